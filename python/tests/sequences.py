"""Graph files of a short animated shot, shared by the sequence and farm
tests: numbered input frames, and a comp that reads them under a still
background and an animated grade."""
import json

import numpy as np

import tessera


def write_inputs(folder, frames):
    """Numbered input frames folder/in.####.exr: a ramp whose colour moves.
    Run from `folder` (output paths are taken from the current folder)."""
    graph = folder / "inputs.json"
    graph.write_text(json.dumps({
        "nodes": [{"id": "ramp", "op": "linearramp", "params": {
            "area": [0, 0, 96, 64], "start": [0, 0], "end": [96, 64],
            "startColor": [{"frame": 1, "value": [0, 0, 0, 1]},
                           {"frame": 24, "value": [1, 0, 0, 1]}],
            "endColor": [0, 0, 1, 1]}}],
        "outputs": [{"node": "ramp", "file": "in.####.exr", "dataType": "float"}]}))
    result = tessera.render_frames(str(graph), frames)
    assert result["failed"] == {}
    return graph


def write_comp(folder, frames="1-24", output="out/comp.####.exr"):
    graph = folder / "comp.json"
    graph.write_text(json.dumps({
        "frames": frames,
        "nodes": [
            {"id": "plate", "op": "filein", "params": {"path": "in.####.exr"}},
            {"id": "grade", "op": "gain", "params": {"gain": [
                {"frame": 1, "value": [1, 1, 1, 1], "interp": "smooth"},
                {"frame": 24, "value": [0.5, 2, 1, 1]}]}, "inputs": {"input": "plate"}},
            # Changes every frame; the farm tests make it slower with --set.
            {"id": "glow", "op": "bilateral", "params": {"radius": [2, 2]},
             "inputs": {"input": "grade"}},
            {"id": "bg", "op": "checkerboard", "params": {"area": [0, 0, 96, 64]}},
            {"id": "soft", "op": "blur", "params": {"size": [15, 15]}, "inputs": {"input": "bg"}},
            {"id": "comp", "op": "composite", "params": {"operator": "multiply"},
             "inputs": {"a": "glow", "b": "soft"}}],
        "outputs": [{"node": "comp", "file": output, "dataType": "float"}]}))
    return graph


def pixels(path):
    """A file's pixels, read through the library."""
    return tessera.render(tessera.filein(path=str(path)))


def assert_same_frames(a, b, frames):
    for frame in frames:
        name = f"comp.{frame:04d}.exr"
        np.testing.assert_array_equal(pixels(a / name), pixels(b / name), err_msg=name)
