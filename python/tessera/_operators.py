"""Every operation of the graph files as a function of the package, and each
that takes an image as a method of Task, all made from the declarations."""

import inspect
import itertools
import json
import keyword
import math
from collections import namedtuple

from . import _tessera
from ._tessera import Task

_names = itertools.count(1)

# How a task was built, for to_graph: the operation, the node's id, its
# parameters as given (JSON values), its input tasks by name and the folder
# its relative paths are taken from.
Node = namedtuple("Node", "operation id params inputs base_directory")


def _python_name(name, taken=()):
    """A parameter's name in Python: a keyword, or the name of an input of
    the same operation (shuffle's a and b), gets a trailing underscore."""
    return name + "_" if keyword.iskeyword(name) or name in taken else name


def _json_value(value):
    """numpy scalars and arrays as plain JSON values."""
    if hasattr(value, "tolist"):
        return value.tolist()
    raise TypeError(type(value).__name__)


def _parameter_value(operation, name, value):
    """A parameter's value as JSON, or a one-line error naming it."""
    try:
        return json.loads(json.dumps(value, default=_json_value, allow_nan=False))
    except ValueError:
        raise ValueError(f"{operation}: parameter '{name}': {value!r} is not a finite "
                         "number") from None
    except TypeError:
        raise TypeError(f"{operation}: parameter '{name}': a {type(value).__name__} is not a "
                        "parameter value (numbers, lists of numbers, strings, bools)") from None


def _docstring(op, taken):
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
    return "\n".join(lines)


def _operation_function(op):
    inputs = [
        inspect.Parameter(name, inspect.Parameter.POSITIONAL_OR_KEYWORD,
                          default=None if optional else inspect.Parameter.empty)
        for name, optional in zip(op.inputs, op.optional_inputs)
    ]
    taken = set(op.inputs) | {"name", "base_directory", "frame"}
    params = {}
    for p in op.parameters:
        default = json.loads(p.default) if p.default else inspect.Parameter.empty
        params[_python_name(p.name, taken)] = p.name
        inputs.append(inspect.Parameter(_python_name(p.name, taken),
                                        inspect.Parameter.KEYWORD_ONLY, default=default))
    inputs.append(inspect.Parameter("name", inspect.Parameter.KEYWORD_ONLY, default=None))
    inputs.append(inspect.Parameter("base_directory", inspect.Parameter.KEYWORD_ONLY,
                                    default="."))
    # Numbered paths (in.####.exr) and animated values are taken at this
    # frame; to_graph writes them as given, for every frame.
    inputs.append(inspect.Parameter("frame", inspect.Parameter.KEYWORD_ONLY, default=0))
    signature = inspect.Signature(inputs)

    def build(*args, **kwargs):
        try:
            given = signature.bind(*args, **kwargs).arguments
        except TypeError as e:
            raise TypeError(f"{op.name}: {e}") from None
        tasks = {}
        for input_name in op.inputs:
            task = given.get(input_name)
            if task is not None and not isinstance(task, Task):
                raise TypeError(f"{op.name}: input '{input_name}' takes a tessera.Task, not a "
                                f"{type(task).__name__}")
            if task is not None:
                tasks[input_name] = task
        node = given.get("name") or f"{op.name}{next(_names)}"
        values = {params[k]: _parameter_value(op.name, k, v)
                  for k, v in given.items() if k in params}
        base = given.get("base_directory", ".")
        task = _tessera._create(op.name, node, json.dumps(values),
                                {n: tasks.get(n) for n in op.inputs}, base,
                                given.get("frame", 0))
        task._node = Node(op.name, node, values, tasks, base)
        return task

    build.__name__ = build.__qualname__ = op.name
    build.__doc__ = _docstring(op, taken)
    build.__signature__ = signature
    return build


def _method(function, doc, **fixed):
    def method(self, *args, **kwargs):
        return function(self, *args, **fixed, **kwargs)
    method.__name__ = method.__qualname__ = function.__name__
    method.__doc__ = doc
    return method


def _gain_or(operator):
    """a * b (Task) as composite's operator; a * 2 (a number) as gain."""
    def apply(self, other):
        if isinstance(other, Task):
            return _FUNCTIONS["composite"](self, other, operator=operator)
        if operator == "multiply" and isinstance(other, (int, float)) and math.isfinite(other):
            return _FUNCTIONS["gain"](self, gain=[float(other)] * 4)
        return NotImplemented
    return apply


_FUNCTIONS = {}


def operation_functions():
    """The operations by name (aliases too), and each that takes an image
    set on Task as a method."""
    for op in _tessera.list_operations():
        function = _operation_function(op)
        for name in [op.name, *op.aliases]:  # older names stay for scripts that use them
            _FUNCTIONS[name] = function
            if op.inputs and not hasattr(Task, name):
                setattr(Task, name, _method(function, function.__doc__))
    composite = _FUNCTIONS["composite"]
    declaration = next(op for op in _tessera.list_operations() if op.name == "composite")
    for operator in next(p for p in declaration.parameters if p.name == "operator").choices:
        name = _python_name(operator)
        if name not in _FUNCTIONS and not hasattr(Task, name):
            setattr(Task, name, _method(composite, f"composite(self, b, operator='{operator}')",
                                        operator=operator))
    Task.__add__ = _gain_or("add")
    Task.__sub__ = _gain_or("minus")
    Task.__mul__ = _gain_or("multiply")
    Task.__rmul__ = lambda self, other: Task.__mul__(self, other)
    return dict(_FUNCTIONS)
