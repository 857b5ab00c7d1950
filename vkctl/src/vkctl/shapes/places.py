"""Which elements hold a point, and where in them: shape functions turned round."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array

from .elements import Elements
from .functions import GRADIENTS, shape_values
from .topology import HEX8, TYPES

# How far outside of an element, in its parameters, a point still counts as in it: coordinates of
# files are rounded, and a point on the surface shall not be lost.
_MARGIN = 1e-4
_BULGE = 0.1  # of its box, by which a curved element may leave it
_PAIRS = 1 << 21  # of points and boxes compared at a time
_STEPS = 30  # of Newton's method
_FURTHEST = 4.0  # parameters that a step may reach
_EXACT = 1e-12  # steps that can end it
_SETTLED = 1e-6  # steps that have found a place


@dataclass(frozen=True)
class Hits:
    """Points in elements; a point between elements is in several."""

    points: Array  # (k,) from 0
    elements: Array  # (k,) numbers
    parameters: Array  # (k, 3)
    outside: Array  # (k,) how far outside, in parameters; 0 inside


def elements_at_points(nodes: Array, elements: Elements, chosen: Array, points: Array) -> Hits:
    """The chosen elements (bool (m,)) that hold points (p, 3), by point, then by number."""
    low, high = _boxes(nodes, elements, chosen)
    numbers = np.flatnonzero(chosen & np.isfinite(low).all(axis=1))
    pairs = list(_pairs(points, np.arange(len(points)), low, high, numbers))
    places, owners = np.concatenate([np.empty((2, 0), np.int64), *pairs], axis=1)
    found = []
    for code in TYPES:
        mask = elements.type_codes[owners] == code
        own, of_points = owners[mask], places[mask]
        rows = elements.table(code)[elements.conn_index[own] - 1] - 1
        parameters = _parameters(code, nodes[rows], points[of_points])
        outside = _outside(code, parameters)
        kept = outside <= _MARGIN
        found.append((of_points[kept], own[kept] + 1, parameters[kept], outside[kept]))
    hits = [np.concatenate(parts) for parts in zip(*found, strict=True)]
    order = np.lexsort((hits[1], hits[0]))
    return Hits(*(values[order] for values in hits))


def _boxes(nodes: Array, elements: Elements, chosen: Array) -> tuple[Array, Array]:
    """Lowest and highest coordinates (m, 3) that an element may reach; NaN where not chosen."""
    low, high = np.full((len(elements), 3), np.nan), np.full((len(elements), 3), np.nan)
    for code in TYPES:
        numbers, rows = elements.of_type(code)
        inside = chosen[numbers - 1]
        numbers, rows = numbers[inside], rows[inside]
        for k in range(3):
            of_nodes = nodes[rows - 1, k]
            low[numbers - 1, k], high[numbers - 1, k] = of_nodes.min(axis=1), of_nodes.max(axis=1)
    reach = _BULGE * (high - low)
    return low - reach, high + reach


def _pairs(points: Array, some: Array, low: Array, high: Array, numbers: Array) -> Iterator[Array]:
    """Pairs (2, k) of points and elements whose boxes hold them: halves the points until few."""
    if not len(some):
        return
    lowest, highest = points[some].min(axis=0), points[some].max(axis=0)
    near = (high[numbers] >= lowest).all(axis=1) & (low[numbers] <= highest).all(axis=1)
    numbers = numbers[near]
    if len(some) == 1 or len(some) * len(numbers) <= _PAIRS:
        at = points[some][:, None]
        inside = ((at >= low[numbers]) & (at <= high[numbers])).all(axis=2)
        place, owner = np.nonzero(inside)
        yield np.array((some[place], numbers[owner]))
        return
    along = points[some, (highest - lowest).argmax()]
    order = some[np.argsort(along, kind="stable")]
    for half in (order[: len(order) // 2], order[len(order) // 2 :]):
        yield from _pairs(points, half, low, high, numbers)


def _parameters(code: int, corners: Array, points: Array) -> Array:
    """Parameters (k, 3) of points in elements with these nodes (k, n, 3); NaN where none fit."""
    parameters = np.full((len(points), 3), 0.0 if code == HEX8 else 0.25)
    step = np.zeros_like(parameters)
    with np.errstate(all="ignore"):
        for _ in range(_STEPS):
            misses = points - np.einsum("kn,kna->ka", shape_values(code, parameters), corners)
            jacobian = np.einsum("kna,knp->kap", corners, GRADIENTS[code](parameters))
            step = _solved(jacobian, misses)
            parameters = np.clip(parameters + step, -_FURTHEST, _FURTHEST)
            if not (np.abs(step) > _EXACT).any():
                break
    settled = (np.abs(step) <= _SETTLED).all(axis=1, keepdims=True)
    found: Array = np.where(settled, parameters, np.nan)
    return found


def _solved(matrices: Array, sides: Array) -> Array:
    """Solutions of 3 by 3 systems by cofactors; not finite where there is none."""
    a, b, c = (matrices[:, :, k] for k in range(3))
    determinants = (a * np.cross(b, c)).sum(axis=1)
    parts = [np.cross(b, c), np.cross(c, a), np.cross(a, b)]
    products = np.stack([(part * sides).sum(axis=1) for part in parts], axis=1)
    found: Array = products / determinants[:, None]
    return found


def _outside(code: int, parameters: Array) -> Array:
    """How far outside of the element parameters are; NaN where there are none."""
    if code == HEX8:
        beyond = np.abs(parameters).max(axis=1) - 1
    else:
        beyond = -np.column_stack((parameters, 1 - parameters.sum(axis=1))).min(axis=1)
    found: Array = np.where(np.isnan(parameters[:, 0]), np.nan, np.maximum(beyond, 0))
    return found
