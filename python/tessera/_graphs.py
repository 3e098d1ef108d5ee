"""Graphs built in Python, written as graph files (docs/graph-format.md)."""

import json
import os

from . import _tessera
from ._tessera import Task

_PATHS = {op.name: {p.name for p in op.parameters if p.type == "path"}
          for op in _tessera.list_operations()}


def _nodes(outputs):
    """Every node the outputs need, inputs before the nodes that read them."""
    ids, nodes, owners = {}, [], {}

    def visit(task):
        stack = [(task, False)]
        while stack:
            task, expanded = stack.pop()
            if id(task) in ids:
                continue
            node = getattr(task, "_node", None)
            if node is None:
                raise ValueError(f"to_graph: '{task.name}' was not built by an operation (an "
                                 "array lives in memory only): write it to a file and read it "
                                 "with tessera.filein")
            if expanded:
                if owners.setdefault(node.id, task) is not task:
                    raise ValueError(f"to_graph: two tasks are named '{node.id}'")
                ids[id(task)] = node.id
                nodes.append((task, node))
                continue
            stack.append((task, True))
            stack.extend((t, False) for t in reversed(list(node.inputs.values())))

    for task in outputs:
        visit(task)
    return nodes


def _relative(path, base, directory):
    """A node's path as the graph file in `directory` must name it."""
    if os.path.isabs(path):
        return path
    return os.path.relpath(os.path.join(base, path), directory)


def to_graph(outputs, *, frames=None, directory=".", **fields):
    """The graph file's text that renders `outputs`: ``{file: task}`` (or a
    task alone, rendered without a file). ``fields`` apply to every output
    (``data_type`` or ``dataType``, ``compression``, ``channels``, ``rect``,
    ...; see docs/graph-format.md). Input paths are written relative to
    `directory`, where the graph file will lie; output files as given.
    """
    if isinstance(outputs, Task):
        outputs = {None: outputs}
    fields = {"dataType" if k == "data_type" else k: v for k, v in fields.items()}
    graph = {}
    if frames is not None:
        graph["frames"] = str(frames)
    graph["nodes"] = []
    for task, node in _nodes(list(outputs.values())):
        params = dict(node.params)
        for name in _PATHS[node.operation] & params.keys():
            params[name] = _relative(params[name], node.base_directory, directory)
        entry = {"id": node.id, "op": node.operation}
        if params:
            entry["params"] = params
        if node.inputs:
            entry["inputs"] = {name: t._node.id for name, t in node.inputs.items()}
        graph["nodes"].append(entry)
    graph["outputs"] = []
    for path, task in outputs.items():
        output = {"node": task._node.id, **fields}
        if path is not None:
            output["file"] = os.fspath(path)
        graph["outputs"].append(output)
    lines = ",\n".join(f"    {json.dumps(n)}" for n in graph["nodes"])
    outs = ",\n".join(f"    {json.dumps(o)}" for o in graph["outputs"])
    head = f'  "frames": {json.dumps(graph["frames"])},\n' if "frames" in graph else ""
    return f'{{\n{head}  "nodes": [\n{lines}\n  ],\n  "outputs": [\n{outs}\n  ]\n}}\n'


def save_graph(path, outputs, **options):
    """Writes to_graph(outputs) as the graph file `path` (its input paths
    relative to the file's folder)."""
    directory = os.path.dirname(os.path.abspath(path))
    text = to_graph(outputs, directory=directory, **options)
    with open(path, "w") as f:
        f.write(text)


def _task_to_graph(self, path=None, **options):
    """The graph file's text that renders this task (to `path`, if given)."""
    return to_graph({path: self} if path else self, **options)


Task.to_graph = _task_to_graph
