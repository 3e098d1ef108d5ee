"""Tessera: a tile-based image-graph engine.

Every operation of the graph files is a function of this module, with the
same name, inputs and parameters (``help(tessera.blur)``)::

    import tessera
    plate = tessera.from_array(pixels)              # a numpy array, not copied
    graded = tessera.gain(plate, gain=[1.2, 1, 0.9, 1])
    soft = tessera.blur(graded, size=[9, 9])
    image = tessera.render(soft)                    # float32, height x width x channels

``render`` takes ``progress(done, total)`` and ``cancel`` (a
``threading.Event``); Ctrl-C cancels a render too. ``load_graph`` reads a
graph file and ``write_outputs`` renders its files.
"""

import inspect
import itertools
import json
import keyword

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
    statistics,
    threads,
    tile_size,
    write_outputs,
)
from . import _tessera

_names = itertools.count(1)


def _python_name(name, taken=()):
    """A parameter's name in Python: a keyword, or the name of an input of
    the same operation (shuffle's a and b), gets a trailing underscore."""
    return name + "_" if keyword.iskeyword(name) or name in taken else name


def _json_value(value):
    """numpy scalars and arrays as plain JSON values."""
    if hasattr(value, "tolist"):
        return value.tolist()
    raise TypeError(f"{type(value).__name__} is not a parameter value")


def _operation_function(op):
    inputs = [
        inspect.Parameter(name, inspect.Parameter.POSITIONAL_OR_KEYWORD,
                          default=None if optional else inspect.Parameter.empty)
        for name, optional in zip(op.inputs, op.optional_inputs)
    ]
    taken = set(op.inputs) | {"name", "base_directory"}
    params = {}
    for p in op.parameters:
        default = json.loads(p.default) if p.default else inspect.Parameter.empty
        params[_python_name(p.name, taken)] = p.name
        inputs.append(inspect.Parameter(_python_name(p.name, taken),
                                        inspect.Parameter.KEYWORD_ONLY, default=default))
    inputs.append(inspect.Parameter("name", inspect.Parameter.KEYWORD_ONLY, default=None))
    inputs.append(inspect.Parameter("base_directory", inspect.Parameter.KEYWORD_ONLY,
                                    default="."))
    signature = inspect.Signature(inputs)

    def build(*args, **kwargs):
        bound = signature.bind(*args, **kwargs)
        given = bound.arguments
        node = given.get("name") or f"{op.name}{next(_names)}"
        values = {params[k]: v for k, v in given.items() if k in params}
        return _tessera._create(op.name, node, json.dumps(values, default=_json_value),
                                {name: given.get(name) for name in op.inputs},
                                given.get("base_directory", "."))

    lines = [op.summary[:1].upper() + op.summary[1:] + ".", ""]
    if op.inputs:
        lines.append("Inputs: " + ", ".join(
            f"{n} (optional)" if o else n for n, o in zip(op.inputs, op.optional_inputs)))
    for p in op.parameters:
        allowed = f"; {p.range}" if p.range else ""
        allowed += f"; one of {', '.join(p.choices)}" if p.choices else ""
        default = f", default {p.default}" if p.default else ", required"
        lines.append(f"{_python_name(p.name, taken)} ({p.type}{default}{allowed}): "
                     f"{p.description}")
    lines += ["", op.reference]
    build.__name__ = build.__qualname__ = op.name
    build.__doc__ = "\n".join(lines)
    build.__signature__ = signature
    return build


for _op in list_operations():
    globals()[_op.name] = _operation_function(_op)
    for _alias in _op.aliases:  # older names stay for scripts that use them
        globals()[_alias] = globals()[_op.name]
del _op
globals().pop("_alias", None)
