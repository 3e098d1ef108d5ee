"""Sequences from Python and from the command: each frame written once,
failures reported by frame, Ctrl-C and bad frame lists."""
import subprocess

import numpy as np
import pytest

import tessera
from sequences import pixels, write_comp, write_inputs


@pytest.fixture
def shot(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    write_inputs(tmp_path, "1-6")
    return tmp_path


def test_render_frames_writes_each_frame_as_the_graph_gives_it(shot):
    graph = write_comp(shot, frames="1-6")
    assert tessera.graph_frames(str(graph)) == [1, 2, 3, 4, 5, 6]
    seen, progress = [], set()
    result = tessera.render_frames(str(graph), "1-6x2,5",
                                   progress=lambda frame, done, total: progress.add(frame),
                                   on_frame=lambda frame, error: seen.append((frame, error)))
    assert result == {"rendered": [1, 3, 5], "failed": {}}
    assert seen == [(1, None), (3, None), (5, None)] and progress == {1, 3, 5}
    for frame in (1, 3, 5):
        loaded = tessera.load_graph(str(graph), frame=frame)
        assert loaded.frame == frame and loaded.animated
        np.testing.assert_array_equal(pixels(shot / f"out/comp.{frame:04d}.exr"),
                                      tessera.render(loaded.outputs[0].task,
                                                     rect=loaded.outputs[0].rect))
    assert not (shot / "out/comp.0002.exr").exists()


def test_a_missing_input_frame_is_reported_by_number(shot, cli):
    (shot / "in.0004.exr").unlink()
    graph = write_comp(shot, frames="1-6")
    result = tessera.render_frames(str(graph))
    assert result["rendered"] == [1, 2, 3, 5, 6]
    assert list(result["failed"]) == [4] and "in.0004.exr" in result["failed"][4]

    run = subprocess.run([cli, "render", str(graph), "--frames", "3-5", "-q"],
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 1
    assert run.stderr.splitlines()[-1] == "tessera: 1 of 3 frames failed: 4"
    assert "frame 4" in run.stderr and "in.0004.exr" in run.stderr

    bad = subprocess.run([cli, "render", str(graph), "--frames", "5-1"],
                         capture_output=True, text=True, timeout=60)
    assert bad.returncode == 2 and "--frames" in bad.stderr


def test_frame_lists_and_paths_match_the_library(tmp_path):
    assert tessera.parse_frames("1-10x4,2") == [1, 5, 9, 2]
    assert tessera.frame_path("a.%03d.####.exr", 7) == "a.007.0007.exr"
    with pytest.raises(ValueError, match="not a frame list"):
        tessera.parse_frames("1-")
    with pytest.raises(ValueError, match="declares no frames"):
        still = tmp_path / "still.json"
        still.write_text('{"nodes": [{"id": "c", "op": "constant"}], "outputs": [{"node": "c"}]}')
        tessera.render_frames(str(still))
