"""Tessera: a tile-based image-graph engine.

Every operation of the graph files is a function of this module, with the
same name, inputs and parameters (``help(tessera.blur)``)::

    import tessera
    plate = tessera.from_array(pixels)              # a numpy array, not copied
    graded = tessera.gain(plate, gain=[1.2, 1, 0.9, 1])
    soft = tessera.blur(graded, size=[9, 9])
    image = tessera.render(soft)                    # float32, height x width x channels

Every operation that takes an image is also a method of ``Task``
(``plate.blur(size=[9, 9])``), composite's operators too (``fg.over(bg)``),
and ``a + b``, ``a - b``, ``a * b`` and ``a * 2`` build the graph's add,
minus, multiply and gain. ``render`` takes ``progress(done, total)`` and
``cancel`` (a ``threading.Event``); Ctrl-C cancels a render too.
``Task.write`` and ``write`` render files; ``Task.to_graph`` and
``save_graph`` write the graph as a graph file that ``tessera render`` and
``tessera-farm`` render identically. ``load_graph`` reads a graph file and
``write_outputs`` renders its files.
"""

from ._tessera import (  # noqa: F401
    Cancelled,
    Error,
    Graph,
    GraphFileError,
    GraphOutput,
    OperationDescription,
    OperationParameter,
    OutOfMemory,
    OutputFile,
    RenderError,
    Task,
    __version__,
    channel_names,
    clear_cache,
    clear_task_cache,
    frame_path,
    from_array,
    graph_frames,
    list_operations,
    load_graph,
    parse_frames,
    render,
    render_frames,
    reset_statistics,
    set_caching,
    set_disk_limit,
    set_memory_limit,
    set_threads,
    set_tile_size,
    statistics_xml,
    threads,
    tile_size,
    write_outputs,
)
from ._files import statistics, write  # noqa: F401
from ._graphs import save_graph, to_graph  # noqa: F401
from ._operators import operation_functions

globals().update(operation_functions())
