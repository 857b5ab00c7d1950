"""Formulas of a case file: arithmetic of x, y and z over arrays of points, and nothing else."""

from __future__ import annotations

import ast
import warnings
from collections.abc import Callable
from typing import Any

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import closest

_CONSTANTS = {"pi": np.pi, "e": np.e}
_FUNCTIONS: dict[str, tuple[Callable[..., Any], int]] = {
    "sin": (np.sin, 1),
    "cos": (np.cos, 1),
    "tan": (np.tan, 1),
    "asin": (np.arcsin, 1),
    "acos": (np.arccos, 1),
    "atan": (np.arctan, 1),
    "atan2": (np.arctan2, 2),
    "sinh": (np.sinh, 1),
    "cosh": (np.cosh, 1),
    "tanh": (np.tanh, 1),
    "exp": (np.exp, 1),
    "log": (np.log, 1),
    "log10": (np.log10, 1),
    "sqrt": (np.sqrt, 1),
    "hypot": (np.hypot, 2),
    "abs": (np.abs, 1),
    "sign": (np.sign, 1),
    "floor": (np.floor, 1),
    "ceil": (np.ceil, 1),
    "min": (np.minimum, 2),
    "max": (np.maximum, 2),
}
_BINARY: dict[type, Callable[[Any, Any], Any]] = {
    ast.Add: np.add,
    ast.Sub: np.subtract,
    ast.Mult: np.multiply,
    ast.Div: np.divide,
    ast.Mod: np.mod,
    ast.Pow: np.power,
}
_COMPARE: dict[type, Callable[[Any, Any], Any]] = {
    ast.Lt: np.less,
    ast.LtE: np.less_equal,
    ast.Gt: np.greater,
    ast.GtE: np.greater_equal,
    ast.Eq: np.equal,
    ast.NotEq: np.not_equal,
}
_VARIABLES = ("x", "y", "z")
_LONGEST = 2000  # characters of a formula
_DEEPEST = 60  # levels of nesting; far below the interpreter's own limit
_AT_ONCE = 1 << 16  # points that a formula is taken at together, which bounds its memory


class ExpressionError(ValueError):
    """A formula that can't be used; the text says why."""


def _known(name: str, options: list[str]) -> str:
    meant = closest(name, options)
    return f"; did you mean {meant!r}?" if meant else f"; known are {', '.join(options)}"


def _check(node: ast.AST, depth: int = 0) -> None:
    """Refuse everything but the arithmetic that `_value` knows."""
    if depth > _DEEPEST:
        raise ExpressionError("nested too deeply")
    match node:
        case ast.Constant(value=value):
            if isinstance(value, bool) or not isinstance(value, int | float):
                raise ExpressionError(f"{value!r} is no number")
            _as_float(value)
            return
        case ast.Name(id=name):
            options = [*_VARIABLES, *_CONSTANTS]
            if name not in options:
                raise ExpressionError(f"unknown name {name!r}" + _known(name, options))
            return
        case ast.Call(func=ast.Name(id=name), args=children, keywords=[]):
            if name not in _FUNCTIONS:
                raise ExpressionError(
                    f"unknown function {name!r}" + _known(name, sorted(_FUNCTIONS))
                )
            wanted = _FUNCTIONS[name][1]
            if len(children) != wanted:
                raise ExpressionError(f"{name} takes {wanted} values, not {len(children)}")
        case ast.BinOp(left=left, op=op, right=right) if type(op) in _BINARY:
            children = [left, right]
        case ast.UnaryOp(op=ast.USub() | ast.UAdd() | ast.Not(), operand=operand):
            children = [operand]
        case ast.Compare(left=left, ops=ops, comparators=rest) if all(
            type(op) in _COMPARE for op in ops
        ):
            children = [left, *rest]
        case ast.BoolOp(values=values):
            children = values
        case ast.IfExp(test=test, body=body, orelse=orelse):
            children = [test, body, orelse]
        case _:
            raise ExpressionError(f"{ast.unparse(node)!r} is not arithmetic of x, y and z")
    for child in children:
        _check(child, depth + 1)


def _as_float(value: int | float) -> float:
    try:
        return float(value)
    except OverflowError:
        raise ExpressionError("a number is too large") from None


def _value(node: ast.AST, names: dict[str, Any]) -> Any:
    match node:
        case ast.Constant(value=value):
            return _as_float(value)  # type: ignore[arg-type]
        case ast.Name(id=name):
            return names[name]
        case ast.Call(func=ast.Name(id=name), args=args):
            return _FUNCTIONS[name][0](*(_value(a, names) for a in args))
        case ast.BinOp(left=left, op=op, right=right):
            return _BINARY[type(op)](_value(left, names), _value(right, names))
        case ast.UnaryOp(op=op, operand=operand):
            value = _value(operand, names)
            if isinstance(op, ast.Not):
                return np.logical_not(value)
            return np.negative(value) if isinstance(op, ast.USub) else value
        case ast.Compare(left=left, ops=ops, comparators=rest):
            before, result = _value(left, names), np.True_
            for sign, right in zip(ops, rest, strict=True):
                after = _value(right, names)
                result = np.logical_and(result, _COMPARE[type(sign)](before, after))
                before = after
            return result
        case ast.BoolOp(op=op, values=values):
            join = np.logical_and if isinstance(op, ast.And) else np.logical_or
            result = _value(values[0], names)
            for other in values[1:]:
                result = join(result, _value(other, names))
            return result
        case ast.IfExp(test=test, body=body, orelse=orelse):
            return np.where(_value(test, names), _value(body, names), _value(orelse, names))
    raise AssertionError(ast.dump(node))


class Expression:
    """A checked formula; call it with points (k, 3) to get k values, float64.

    Known are + - * / % **, comparisons, `and`, `or`, `not`, `A if TEST else B`, the constants pi
    and e, and the usual functions. ExpressionError for anything else.
    """

    def __init__(self, text: str) -> None:
        self.text = text
        if len(text) > _LONGEST:
            raise ExpressionError(f"is longer than {_LONGEST} characters")
        try:
            with warnings.catch_warnings():  # of what will be refused
                warnings.simplefilter("ignore")
                tree = ast.parse(text.strip(), mode="eval").body
        except (SyntaxError, ValueError, RecursionError, MemoryError) as error:
            reason = getattr(error, "msg", None) or str(error)
            raise ExpressionError(f"can't be read as a formula: {reason}") from None
        try:
            _check(tree)
        except RecursionError:
            raise ExpressionError("nested too deeply") from None
        self._tree = tree

    def __repr__(self) -> str:
        return f"Expression({self.text!r})"

    def __call__(self, points: Array) -> Array:
        values = np.empty(len(points))
        for start in range(0, len(points), _AT_ONCE):
            piece = slice(start, start + _AT_ONCE)
            names: dict[str, Any] = dict(_CONSTANTS)
            names.update(zip(_VARIABLES, np.asarray(points[piece], np.float64).T, strict=True))
            with np.errstate(all="ignore"):
                values[piece] = _value(self._tree, names)
        bad = np.flatnonzero(~np.isfinite(values))
        if len(bad):
            x, y, z = points[bad[0]]
            raise ExpressionError(
                f"{self.text!r} has no finite value at {len(bad)} points, "
                f"such as ({x:.6g}, {y:.6g}, {z:.6g})"
            )
        return values
