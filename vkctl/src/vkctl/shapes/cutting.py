"""The surface of what tetrahedra leave above level zero, in triangles, without a library's grids.

Between its corners a level is linear. A vertex of the surface is a corner above zero or lies on an
edge that the level crosses, and is the same one for all that meet there: the surface is closed.
"""

from __future__ import annotations

from dataclasses import dataclass
from itertools import permutations

import numpy as np

from vkctl.basics.types import Array

from .faces import occur_once
from .topology import TET4_FACES

Edge = tuple[int, int]  # local corners; an inner one twice is the corner itself


@dataclass(frozen=True)
class Body:
    """Tetrahedra that fit together, made once for the surfaces of many level fields."""

    points: Array  # (n, 3)
    rows: Array  # (k, 4) of points, from 0
    outside: Array  # (f, 3): faces that belong to one tetrahedron, seen from outside


@dataclass(frozen=True)
class Surface:
    """Triangles (f, 3) seen from outside counter-clockwise, their points, and the level there."""

    triangles: Array
    points: Array
    levels: Array


def body(points: Array, rows: Array, inner: int | None = None) -> Body:
    """A body of tetrahedra; points from `inner` on are known to lie on no outer face."""
    faces = rows[:, TET4_FACES].reshape(-1, 3)
    if inner is not None:
        faces = faces[(faces < inner).all(axis=1)]
    outside = faces[occur_once(np.sort(faces, axis=1))]
    return Body(points, rows.astype(np.int32), outside.astype(np.int32))


def surface(of: Body, levels: Array) -> Surface:
    """Surface of the part of a body where `levels`, per point and none of them 0, are positive."""
    inside = levels > 0
    cut = _pieces(of.rows, inside, _WITHIN)
    ends = np.concatenate((cut, _pieces(of.outside, inside, _ON_FACES))).reshape(-1, 2)
    low, high = ends.min(axis=1).astype(np.int64), ends.max(axis=1)
    keys, triangles = np.unique(low * len(levels) + high, return_inverse=True)
    low, high = np.divmod(keys, len(levels))
    share = np.zeros(len(keys))
    crossed = low != high
    below, above = levels[low[crossed]], levels[high[crossed]]
    share[crossed] = below / (below - above)
    points = of.points[low] + share[:, None] * (of.points[high] - of.points[low])
    return Surface(triangles.reshape(-1, 3), points, np.where(crossed, 0.0, levels[low]))


def _pieces(rows: Array, inside: Array, table: list[Array]) -> Array:
    """Vertices (t, 3, 2) of the triangles that `table` makes of rows, by which corners are in."""
    corners = rows.shape[1]
    kind = inside[rows] @ (1 << np.arange(corners)).astype(np.int64)
    found = [np.empty((0, 3, 2), rows.dtype)]
    for number, triangles in enumerate(table):
        if len(triangles):
            found.append(rows[kind == number][:, triangles].reshape(-1, 3, 2))
    return np.concatenate(found)


def _within() -> list[Array]:
    """Triangles that cut a tetrahedron, seen from below zero, by the mask of corners above."""
    table: dict[int, list[tuple[Edge, ...]]] = {0: [], 15: []}
    for a, b, c, d in permutations(range(4)):
        if not _is_even((a, b, c, d)):
            continue
        table[1 << a] = [((a, b), (a, c), (a, d))]
        table[15 - (1 << a)] = [((a, b), (a, d), (a, c))]
        table[1 << a | 1 << b] = _two((a, c), (a, d), (b, d), (b, c))
    return [np.array(table[kind], np.int64) for kind in range(16)]


def _on_faces() -> list[Array]:
    """What is left of a triangle, by the mask of corners above."""
    table: dict[int, list[tuple[Edge, ...]]] = {0: [], 7: [((0, 0), (1, 1), (2, 2))]}
    for a, b, c in ((0, 1, 2), (1, 2, 0), (2, 0, 1)):
        table[1 << a] = [((a, a), (a, b), (a, c))]
        table[1 << a | 1 << b] = _two((a, a), (b, b), (b, c), (c, a))
    return [np.array(table[kind], np.int64) for kind in range(8)]


def _two(a: Edge, b: Edge, c: Edge, d: Edge) -> list[tuple[Edge, ...]]:
    """A quadrangle in triangles."""
    return [(a, b, c), (a, c, d)]


def _is_even(order: tuple[int, ...]) -> bool:
    swaps = sum(order[i] > order[j] for j in range(len(order)) for i in range(j))
    return swaps % 2 == 0


_WITHIN, _ON_FACES = _within(), _on_faces()
