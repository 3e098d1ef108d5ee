"""The Python module against numpy and against the command: round trips,
graphs built in Python, zero-copy input, cancellation and errors."""
import _thread
import inspect
import json
import keyword
import subprocess
import sys
import threading

import numpy as np
import pytest

import tessera
from tessera._operators import _python_name


@pytest.fixture(autouse=True)
def small_tiles():
    tessera.set_tile_size(32, 32)
    yield
    tessera.set_tile_size(256, 256)
    tessera.clear_task_cache()


def pattern(height, width, channels):
    y, x, c = np.mgrid[0:height, 0:width, 0:channels]
    return ((x * 7 + y * 13 + c * 5) % 17 / 16.0).astype(np.float32)


@pytest.mark.parametrize("channels,count", [("RGBA", 4), ("RGB", 3), ("A", 1), ("RGBAZ", 5)])
def test_arrays_come_back_exactly(channels, count):
    a = pattern(45, 70, count)
    task = tessera.from_array(a, channels=channels if count not in (3, 4) else None)
    assert task.data_window == (0, 0, 70, 45)
    out = tessera.render(task, channels=channels)
    assert out.dtype == np.float32 and out.shape == (45, 70, count)
    np.testing.assert_array_equal(out, a)


def test_channels_go_by_name_never_by_position():
    a = pattern(12, 9, 3)
    # Named in the array's order; the engine keeps its own, and says it.
    task = tessera.from_array(a, channels="pytest.v,R,pytest.u")
    names = tessera.channel_names(task)
    assert sorted(names) == ["R", "pytest.u", "pytest.v"] and names[0] == "R"
    out = tessera.render(task, channels="all")
    for i, name in enumerate(["pytest.v", "R", "pytest.u"]):
        np.testing.assert_array_equal(out[..., names.index(name)], a[..., i])
    np.testing.assert_array_equal(tessera.render(task, channels="pytest.*"),
                                  out[..., [names.index(n) for n in tessera.channel_names(task, "pytest.*")]])
    motion = tessera.shuffle(task, r="pytest.u", g="a.pytest.v", b_="0")
    np.testing.assert_array_equal(tessera.render(motion, channels="RG"), a[..., [2, 0]])
    with pytest.raises(ValueError, match="no channel 'nothing.here'"):
        tessera.render(task, channels="R,nothing.here")


def test_strided_and_other_typed_arrays_are_converted_and_placed_at_their_origin():
    a = pattern(40, 60, 4)
    for source in (a[::2, ::3], a.astype(np.float64), a[:, :, :3].copy()):
        task = tessera.from_array(source, origin=(10, -5))
        h, w = source.shape[:2]
        assert task.data_window == (10, -5, 10 + w, h - 5)
        np.testing.assert_array_equal(
            tessera.render(task, channels="RGBA"[: source.shape[2]]), source.astype(np.float32))
    # Around the data: transparent black.
    out = tessera.render(tessera.from_array(a, origin=(4, 4)), rect=(0, 0, 8, 8))
    assert out[:4].max() == 0 and out[4:, 4:].tolist() == a[:4, :4].tolist()


def test_an_array_is_read_in_place_kept_alive_and_read_only_meanwhile():
    a = pattern(32, 32, 4)
    before = sys.getrefcount(a)
    task = tessera.from_array(a)
    assert sys.getrefcount(a) == before + 1
    # An edit in place would reach the tiles rendered after it and not those
    # kept from before: refused while a task reads the array.
    with pytest.raises(ValueError, match="read-only"):
        a[3, 5] = [9, 8, 7, 6]
    np.testing.assert_array_equal(tessera.render(task), a)
    twice = tessera.from_array(a)
    del task
    tessera.clear_task_cache()
    tessera.clear_cache()
    assert not a.flags.writeable  # the second task still reads it
    del twice
    tessera.clear_task_cache()
    assert sys.getrefcount(a) == before
    a[3, 5] = [9, 8, 7, 6]  # writeable again
    assert tessera.render(tessera.from_array(a))[3, 5].tolist() == [9, 8, 7, 6]
    frozen = pattern(4, 4, 4)
    frozen.flags.writeable = False
    del_me = tessera.from_array(frozen)
    del del_me
    tessera.clear_task_cache()
    assert not frozen.flags.writeable  # left as it came


def test_operations_keep_the_declared_names_defaults_and_documentation():
    ops = {op.name: op for op in tessera.list_operations()}
    assert len(ops) > 80
    for name, op in ops.items():
        function = getattr(tessera, name)
        assert op.summary[1:] in function.__doc__
        signature = inspect.signature(function).parameters
        for p in op.parameters:
            renamed = keyword.iskeyword(p.name) or p.name in op.inputs
            default = signature[p.name + "_" if renamed else p.name].default
            if p.default:
                assert default == json.loads(p.default), (name, p.name)
            else:
                assert default is inspect.Parameter.empty, (name, p.name)
    # A keyword, and a parameter named like an input, take a trailing "_".
    assert "b_" in inspect.signature(tessera.shuffle).parameters


def test_a_graph_built_in_python_equals_the_graph_file_rendered_by_the_command(tmp_path, cli):
    nodes = [
        {"id": "ramp", "op": "linearramp",
         "params": {"start": [0, 0], "end": [90, 30], "startColor": [0.1, 0.2, 0.9, 1],
                    "endColor": [1.5, 0.4, 0.1, 1], "area": [0, 0, 96, 64]}},
        {"id": "graded", "op": "gain", "params": {"gain": [1.2, 0.9, 1.1, 1]},
         "inputs": {"input": "ramp"}},
        {"id": "soft", "op": "blur", "params": {"size": [7, 3]}, "inputs": {"input": "graded"}},
        {"id": "turned", "op": "orient", "params": {"orientation": "rotate90"},
         "inputs": {"input": "soft"}},
    ]
    path = tmp_path / "out.exr"
    graph = tmp_path / "graph.json"
    graph.write_text(json.dumps({"nodes": nodes, "outputs": [
        {"node": "turned", "rect": [0, 0, 64, 96], "file": [str(path)], "dataType": "float"}]}))
    subprocess.run([cli, "render", str(graph), "--quiet", "--tile", "48"], check=True)

    ramp = tessera.linearramp(start=[0, 0], end=[90, 30], startColor=[0.1, 0.2, 0.9, 1],
                              endColor=[1.5, 0.4, 0.1, 1], area=[0, 0, 96, 64])
    built = tessera.orient(tessera.blur(tessera.gain(ramp, gain=[1.2, 0.9, 1.1, 1]),
                                        size=[7, 3]), orientation="rotate90")
    mine = tessera.render(built, rect=(0, 0, 64, 96))
    theirs = tessera.render(tessera.filein(path=str(path)), rect=(0, 0, 64, 96))
    np.testing.assert_array_equal(mine, theirs)


def test_graph_files_load_with_overrides_and_write_their_outputs(tmp_path):
    path = tmp_path / "c.exr"
    graph = tmp_path / "graph.json"
    graph.write_text(json.dumps({
        "nodes": [{"id": "c", "op": "constant",
                   "params": {"area": [0, 0, 40, 20], "color": [0.5, 0.5, 0.5, 1]}}],
        "outputs": [{"node": "c", "file": [str(path)], "dataType": "float"}]}))
    g = tessera.load_graph(str(graph), set={"c.color": "[1, 0.25, 0, 1]"})
    assert g.outputs[0].rect == (0, 0, 40, 20)
    assert tessera.render(g.outputs[0].task)[7, 9].tolist() == [1, 0.25, 0, 1]
    seen = []
    tessera.write_outputs(g, progress=lambda done, total: seen.append((done, total)))
    assert seen[-1][0] == seen[-1][1] == 2  # 32-pixel tiles over 40 x 20
    written = tessera.render(tessera.filein(path=str(path)))
    assert written[0, 0].tolist() == [1, 0.25, 0, 1]


def slow_task():
    return tessera.perlinnoise(scale=40, octaves=12, area=[0, 0, 3000, 3000])


def test_a_render_is_cancelled_from_another_thread():
    tessera.set_caching(False)
    stop = threading.Event()
    progress = []

    def report(done, total):
        progress.append((done, total))
        if done > 0 and not stop.is_set():
            threading.Thread(target=stop.set).start()

    with pytest.raises(tessera.Cancelled):
        tessera.render(slow_task(), progress=report, cancel=stop)
    assert progress and progress[-1][0] < progress[-1][1]
    tessera.set_caching(True)


def test_ctrl_c_and_a_raising_callback_stop_the_render_and_raise_in_python():
    tessera.set_caching(False)

    def interrupt(done, total):
        if done > 0:
            _thread.interrupt_main()

    with pytest.raises(KeyboardInterrupt):
        tessera.render(slow_task(), progress=interrupt)

    def fail(done, total):
        raise ValueError("stop here")

    with pytest.raises(ValueError, match="stop here"):
        tessera.render(slow_task(), progress=fail)
    # The render queue is free again.
    assert tessera.render(slow_task(), rect=(0, 0, 4, 4)).shape == (4, 4, 4)
    tessera.set_caching(True)


def test_errors_carry_the_librarys_messages():
    plate = tessera.from_array(pattern(8, 8, 4))
    with pytest.raises(tessera.GraphFileError, match=r"field 'gain'"):
        tessera.gain(plate, gain=[1, 2])
    with pytest.raises(tessera.GraphFileError, match=r"out of range"):
        tessera.crop(plate, rect=[0, 0, 4, 4], name="cut").__class__  # valid
        tessera.border(plate, left=-3)
    with pytest.raises(TypeError):
        tessera.crop(plate)  # rect is required
    with pytest.raises(tessera.GraphFileError, match="cannot read"):
        tessera.load_graph("/nonexistent/graph.json")
    with pytest.raises(ValueError, match=r"no channel 'RQ' \(it has RGBA\)"):
        tessera.render(plate, channels="RQ")
    with pytest.raises(ValueError, match="say which"):
        tessera.from_array(np.zeros((4, 4, 2), np.float32))
    with pytest.raises(tessera.Error):
        tessera.text(text="")


def test_hostile_calls_get_one_line_errors_and_the_interpreter_lives():
    with pytest.raises(tessera.Error, match="more than 1024"):
        tessera.set_threads(10**6)
    with pytest.raises(ValueError, match="at least 1 pixel"):
        tessera.set_tile_size(0, 0)
    plate = tessera.from_array(pattern(8, 8, 4))
    with pytest.raises(tessera.Error, match="more than this machine's memory"):
        tessera.render(plate, rect=(0, 0, 10**9, 10**9))
    with pytest.raises(tessera.GraphFileError, match=r"out of range \(-2\^30 to 2\^30\)"):
        tessera.gain(plate, gain=[1e39, 1, 1, 1])
    with pytest.raises(tessera.GraphFileError, match=r"out of range \(-2\^30 to 2\^30\)"):
        tessera.text(text="x", position=[1e39, 1e39])
    assert tessera.render(plate).shape == (8, 8, 4)


def test_renders_from_several_threads_wait_their_turn():
    # As a Dask worker runs frames: every render succeeds, none is refused.
    plate = tessera.from_array(pattern(64, 48, 4))
    expected = tessera.render(tessera.blur(plate, size=[3, 3]))
    results, errors = [], []

    def work(i):
        try:
            for _ in range(3):
                tessera.clear_cache()
                results.append(tessera.render(tessera.blur(plate, size=[3, 3])))
        except Exception as e:  # pragma: no cover - the failure is reported below
            errors.append(e)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert not errors
    assert len(results) == 12
    for r in results:
        np.testing.assert_array_equal(r, expected)


def test_every_numeric_parameter_refuses_values_beyond_its_declared_range():
    plate = tessera.from_array(pattern(8, 8, 4))
    refused = 0
    for op in tessera.list_operations():
        function = getattr(tessera, op.name)
        taken = set(op.inputs) | {"name", "base_directory", "frame"}
        inputs = {name: plate for name in op.inputs}
        required = {_python_name(p.name, taken): json.loads(p.example)
                    for p in op.parameters if not p.default}
        for p in op.parameters:
            if not p.range:
                continue
            value = int(p.high) + 1 if p.type in ("integer", "[xmin, ymin, xmax, ymax]") \
                else p.high + 1
            shape = json.loads(p.default or p.example)
            given = [value] * len(shape) if isinstance(shape, list) and shape else value
            if isinstance(shape, list) and not shape:
                given = [value, value]
            kwargs = dict(required, **{_python_name(p.name, taken): given})
            with pytest.raises(tessera.GraphFileError,
                               match=rf"node 'probe', field '{p.name}': value .* out of range"):
                function(**inputs, **kwargs, name="probe")
            refused += 1
    assert refused > 150
