"""Graphs built with Task methods, written from Python, saved as graph files
and rendered by the command: the same bytes every way."""
import json
import math
import subprocess

import numpy as np
import pytest

import tessera


def pattern(height, width):
    y, x, c = np.mgrid[0:height, 0:width, 0:4]
    return ((x * 7 + y * 13 + c * 5) % 17 / 16.0).astype(np.float32)


@pytest.fixture
def plate(tmp_path):
    """A float EXR written from an array."""
    path = tmp_path / "plate.exr"
    tessera.from_array(pattern(48, 64)).write(path, data_type="float")
    return path


def comp(plate_path):
    plate = tessera.filein(path=str(plate_path))
    fg = plate.blur(size=[5, 3]).gain(gain=[1.2, 1, 0.9, 1])
    bg = tessera.checkerboard(size=8, area=[0, 0, 64, 48])
    return fg.over(bg) * 0.5


def test_an_array_written_reads_back_exactly(plate):
    back = tessera.render(tessera.filein(path=str(plate)))
    np.testing.assert_array_equal(back, pattern(48, 64))


def test_methods_build_the_graph_the_functions_build():
    ramp = tessera.linearramp(start=[0, 0], end=[60, 0], area=[0, 0, 64, 8])
    other = tessera.constant(color=[0.5, 0.25, 1, 1], area=[0, 0, 64, 8])
    pairs = [
        (ramp.blur(size=[3, 3]), tessera.blur(ramp, size=[3, 3])),
        (ramp.over(other), tessera.composite(ramp, other, operator="over")),
        (ramp + other, tessera.composite(ramp, other, operator="add")),
        (ramp - other, tessera.composite(ramp, other, operator="minus")),
        (ramp * other, tessera.composite(ramp, other, operator="multiply")),
        (ramp * 2, tessera.gain(ramp, gain=[2, 2, 2, 2])),
        (2 * ramp, tessera.gain(ramp, gain=[2, 2, 2, 2])),
        (ramp.in_(other), tessera.composite(ramp, other, operator="in")),
    ]
    for method, function in pairs:
        assert method.cache_id == function.cache_id
    assert "blur" in tessera.Task.blur.__doc__
    with pytest.raises(TypeError):
        ramp * "2"


def test_write_save_graph_and_the_command_give_the_same_bytes(tmp_path, plate, cli,
                                                             monkeypatch):
    monkeypatch.chdir(tmp_path)
    built = comp("plate.exr")
    built.write(tmp_path / "python.exr", compression="piz")
    # The graph file lies in another folder: its input path follows.
    (tmp_path / "graphs").mkdir()
    graph = tmp_path / "graphs" / "comp.json"
    tessera.save_graph(graph, {str(tmp_path / "command.exr"): built}, compression="piz")
    text = json.loads(graph.read_text())
    assert text["nodes"][0] == {"id": text["nodes"][0]["id"], "op": "filein",
                                "params": {"path": "../plate.exr"}}
    subprocess.run([cli, "render", str(graph), "-q"], check=True, timeout=60)
    # The saved graph, loaded back in Python.
    loaded = json.loads(graph.read_text())
    loaded["outputs"][0]["file"] = str(tmp_path / "loaded.exr")
    graph.write_text(json.dumps(loaded))
    tessera.write_outputs(tessera.load_graph(str(graph)))
    python = (tmp_path / "python.exr").read_bytes()
    assert (tmp_path / "command.exr").read_bytes() == python
    assert (tmp_path / "loaded.exr").read_bytes() == python


def test_several_files_in_one_render_with_progress(tmp_path, plate):
    built = comp(plate)
    seen = []
    tessera.write({tmp_path / "a.exr": built, tmp_path / "a.png": built.blur(size=[2, 2])},
                  progress=lambda done, total: seen.append((done, total)))
    assert (tmp_path / "a.exr").exists() and (tmp_path / "a.png").exists()
    assert seen and seen[-1][0] == seen[-1][1]
    assert built.to_graph().count('"op"') == 6  # filein, blur, gain, checkerboard, composite, gain
    statistics = tessera.statistics()
    assert statistics["Render Manager"]["Render Threads"] == tessera.threads()
    assert isinstance(statistics["Image Memory Management"]["Peak Memory Usage"], int)


def test_mistakes_are_one_line_errors_naming_the_operation_and_parameter(plate):
    plate_task = tessera.filein(path=str(plate))
    cases = [
        (lambda: tessera.blur("plate.exr", size=[3, 3]), TypeError,
         "blur: input 'input' takes a tessera.Task, not a str"),
        (lambda: tessera.blur(plate_task, size={3}), TypeError,
         "blur: parameter 'size': a set is not a parameter value"),
        (lambda: tessera.gain(plate_task, gain=[math.nan, 1, 1, 1]), ValueError,
         "gain: parameter 'gain': [nan, 1, 1, 1] is not a finite number"),
        (lambda: tessera.blur(plate_task, size=[3, 3], sise=1), TypeError,
         "blur: got an unexpected keyword argument 'sise'"),
        (lambda: tessera.write({"x.exr": np.zeros(3)}), TypeError,
         "write: 'x.exr' takes a tessera.Task, not a ndarray"),
        (lambda: tessera.from_array(pattern(4, 4)).to_graph(), ValueError,
         "was not built by an operation"),
    ]
    for call, kind, message in cases:
        with pytest.raises(kind) as raised:
            call()
        assert message in str(raised.value)
        assert "\n" not in str(raised.value)
