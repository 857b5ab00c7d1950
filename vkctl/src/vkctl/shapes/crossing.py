"""Triangles of a surface that cut through others of it: no body has such a surface."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import scipy

from vkctl.basics.types import Array

_BLOCK = 1 << 18  # pairs looked at at once, so that they fit into the caches
_SIDES = ((0, 1), (1, 2), (2, 0))


@dataclass(frozen=True)
class _Facets:
    """Triangles by columns, which NumPy gathers faster than rows."""

    corners: tuple[Array, ...]  # three of (f,)
    points: Array  # (3, n)
    normal: Array  # (3, f), of any length
    low: Array  # (3, f): their boxes
    high: Array

    def at(self, corner: int, of: Array) -> Array:
        """Places (3, k) of a corner of some triangles."""
        return self.points.take(self.corners[corner].take(of), axis=1)


def crossing(points: Array, triangles: Array, only: Array) -> Array:
    """Mask (f,) of the triangles that an edge of another goes through, and of those it is of.

    `only` are triangles (f,), of which each pair has one at least. What merely touches isn't
    found, nor what overlaps within a plane.
    """
    found = np.zeros(len(triangles), np.bool_)
    if not only.any():
        return found
    facets = _facets(points, triangles)
    first, second = _near(facets, only)
    for begin in range(0, len(first), _BLOCK):
        one, other = first[begin : begin + _BLOCK], second[begin : begin + _BLOCK]
        for some in (_boxes_meet, _on_both_sides):
            kept = some(facets, one, other)
            one, other = one[kept], other[kept]
        cut = _goes_through(facets, one, other) | _goes_through(facets, other, one)
        found[one[cut]] = found[other[cut]] = True
    return found


def _facets(points: Array, triangles: Array) -> _Facets:
    columns = np.ascontiguousarray(points.T)
    corners = tuple(np.ascontiguousarray(corner) for corner in triangles.T)
    a, b, c = (columns.take(corner, axis=1) for corner in corners)
    low, high = (pick(pick(a, b), c) for pick in (np.minimum, np.maximum))
    return _Facets(corners, columns, _cross(b - a, c - a), low, high)


def _near(facets: _Facets, only: Array) -> tuple[Array, Array]:
    """Pairs of triangles whose boxes may meet, by the middles of these."""
    middles = 0.5 * (facets.low + facets.high)
    longest = float((facets.high - facets.low).max())
    tree = scipy.spatial.cKDTree(middles.T, balanced_tree=False)
    first, second = tree.query_pairs(longest, p=np.inf, output_type="ndarray").T
    wanted = only[first] | only[second]
    return first[wanted], second[wanted]


def _boxes_meet(facets: _Facets, one: Array, other: Array) -> Array:
    meet = np.ones(len(one), np.bool_)
    for low, high in zip(facets.low, facets.high, strict=True):
        meet &= low.take(one) <= high.take(other)
        meet &= low.take(other) <= high.take(one)
    return meet


def _on_both_sides(facets: _Facets, one: Array, other: Array) -> Array:
    """Pairs in which both triangles have corners on both sides of the other's plane."""
    both = np.ones(len(one), np.bool_)
    for of, plane in ((one, other), (other, one)):
        base, normal = facets.at(0, plane), facets.normal.take(plane, axis=1)
        above, below = np.zeros((2, len(one)), np.bool_)
        for k, corner in enumerate(facets.corners):
            ends = corner.take(of)
            shared = [ends == other_end.take(plane) for other_end in facets.corners]
            height = _dot(normal, facets.at(k, of) - base)
            height[shared[0] | shared[1] | shared[2]] = 0.0
            above |= height > 0
            below |= height < 0
        both &= above & below
    return both


def _goes_through(facets: _Facets, one: Array, face: Array) -> Array:
    """Whether a side of each triangle goes through the inside of the other of its pair.

    By the signs of the tetrahedra that the ends of the side make with the face, and the side with
    the sides of the face. Sides that begin in a corner of the face don't go through it.
    """
    through = np.zeros(len(one), np.bool_)
    a, b, c = (facets.at(k, face) for k in range(3))
    normal = facets.normal.take(face, axis=1)
    of_face = [corner.take(face) for corner in facets.corners]
    for begin, end in _SIDES:
        ends = (facets.corners[begin].take(one), facets.corners[end].take(one))
        shared = np.any([number == corner for number in ends for corner in of_face], axis=0)
        p, q = facets.at(begin, one), facets.at(end, one)
        across = _dot(normal, p - a) * _dot(normal, q - a) < 0
        turns = [_dot(q - p, _cross(u - p, v - p)) for u, v in ((a, b), (b, c), (c, a))]
        inside = np.abs(np.sign(turns).sum(axis=0)) == len(turns)
        through |= ~shared & across & inside
    return through


def _dot(one: Array, other: Array) -> Array:
    found: Array = one[0] * other[0] + one[1] * other[1] + one[2] * other[2]
    return found


def _cross(one: Array, other: Array) -> Array:
    (a, b, c), (u, v, w) = one, other
    return np.stack((b * w - c * v, c * u - a * w, a * v - b * u))
