"""Files written from Python, and the render statistics."""

import os
import xml.etree.ElementTree as ElementTree

from . import _tessera
from ._tessera import Task


def write(outputs, *, data_type="", compression="zip", rect=None, channels="RGBA",
          progress=None, cancel=None, queue="batch"):
    """Renders each task to its file, all in one render: ``{path: task}``.

    The format follows the extension (EXR, TIFF, PNG, JPEG, ...);
    ``data_type`` is half, float, uint8 or uint16 (default: half for EXR,
    uint16 for TIFF, else uint8); ``compression`` for EXR and TIFF. ``rect``
    (x0, y0, x1, y1) defaults to each task's format, else its data window;
    ``channels`` as ``render`` takes them ("RGBA", "all", "diffuse.*").
    ``progress(done, total)`` and ``cancel`` as for ``render``. Each file is
    written under a temporary name and renamed when complete.
    """
    items = []
    for path, task in outputs.items():
        if not isinstance(task, Task):
            raise TypeError(f"write: '{path}' takes a tessera.Task, not a {type(task).__name__}")
        items.append((task, os.fspath(path), rect, channels))
    _tessera._write(items, data_type, compression, progress, cancel, queue)


def _write_task(self, path, **options):
    """Renders this task to ``path`` (see ``tessera.write`` for the options)."""
    write({path: self}, **options)


Task.write = _write_task


def _value(text):
    for kind in (int, float):
        try:
            return kind(text)
        except ValueError:
            pass
    return {"true": True, "false": False}.get(text, text)


def _block(element):
    return {child.get("name"): _block(child) if child.tag == "block" else _value(child.get("value"))
            for child in element}


def statistics():
    """The render statistics: {block: {entry: value}} ("Image Memory
    Management": {"Peak Memory Usage": bytes, ...}); statistics_xml() gives
    the same as XML."""
    return _block(ElementTree.fromstring(_tessera.statistics_xml()))
