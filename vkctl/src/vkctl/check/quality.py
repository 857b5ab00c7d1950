"""Shapes of elements of one type: inverted, folded, flat, sliver.

The determinant of the Jacobian is taken at the points at which the solver integrates.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.functions import hex8_gradients, tet10_gradients
from vkctl.shapes.measures import NEARLY_STRAIGHT, NO_VOLUME
from vkctl.shapes.rules import solver_hexahedron_points, solver_tetrahedron_points
from vkctl.shapes.topology import (
    HEX8,
    HEX8_EDGES,
    HEX8_NEIGHBOURS,
    HEX8_SIGNS,
    TET4,
    TET10_EDGES,
    TET_CORNERS,
)

_ELEMENTS_PER_BLOCK = 20_000  # bounds the work arrays
SLIVER = 0.05  # quality below which an element is a sliver: about 1 thick and 100 wide
_TET10_INNER = np.array([tet10_gradients(point) for point in solver_tetrahedron_points()])
_TET10_OUTER = np.array([tet10_gradients(point) for point in TET_CORNERS])
_HEX8_INNER = np.array([hex8_gradients(point) for point in solver_hexahedron_points()])
_HEX8_OUTER = np.array([hex8_gradients(point) for point in HEX8_SIGNS])
_TET4_EDGES = TET10_EDGES


@dataclass
class ShapeReport:
    """Masks over the elements of a type; an element is in the first that fits, top down."""

    repeated: Array  # names a node twice
    flat: Array  # no volume
    mirrored: Array  # negative determinant everywhere
    inverted: Array  # negative determinant at some integration points
    folded_corner: Array  # negative determinant at a corner only
    sliver: Array  # positive, but far from a regular shape
    quality: Array  # 1 regular, 0 flat


def measure(code: int, nodes: Array, rows: Array) -> ShapeReport:
    """Shapes of the elements with node numbers `rows` (k, width)."""
    blocks = [
        _measure(code, nodes, rows[first : first + _ELEMENTS_PER_BLOCK])
        for first in range(0, len(rows), _ELEMENTS_PER_BLOCK)
    ]
    names = ShapeReport.__dataclass_fields__
    return ShapeReport(*(np.concatenate([getattr(b, name) for b in blocks]) for name in names))


def _measure(code: int, nodes: Array, rows: Array) -> ShapeReport:
    ordered = np.sort(rows, axis=1)
    repeated = (ordered[:, 1:] == ordered[:, :-1]).any(axis=1)
    points = nodes[rows - 1]
    # Coordinates that are no numbers are told of with the nodes.
    points = np.where(np.isfinite(points).all(axis=(1, 2))[:, None, None], points, _regular(code))
    inner, outer, volume = _determinants(code, points)
    edges = points[:, HEX8_EDGES if code == HEX8 else _TET4_EDGES]
    lengths = np.linalg.norm(edges[:, :, 1] - edges[:, :, 0], axis=2)
    flat = ~repeated & (np.abs(volume) <= NO_VOLUME * lengths.max(axis=1) ** 3)
    sound = ~repeated & ~flat
    lowest = inner.min(axis=1)
    mirrored = sound & (inner.max(axis=1) < 0)
    inverted = sound & ~mirrored & (lowest <= 0)
    sound &= lowest > 0
    folded = sound & (outer.min(axis=1) <= 0)
    if code == HEX8:
        quality = _scaled_jacobian(points, outer)
    else:
        # Mean ratio of a tetrahedron (Liu and Joe 1994).
        quality = (
            12 * (3 * np.abs(volume)) ** (2 / 3) / np.maximum((lengths**2).sum(axis=1), 1e-300)
        )
    sliver = sound & ~folded & (quality < SLIVER)
    return ShapeReport(repeated, flat, mirrored, inverted, folded, sliver, quality)


def _regular(code: int) -> Array:
    """Node positions that no test objects to."""
    if code == HEX8:
        return HEX8_SIGNS
    corners = np.array(TET_CORNERS)
    return corners if code == TET4 else np.concatenate((corners, corners[TET10_EDGES].mean(axis=1)))


def _determinants(code: int, points: Array) -> tuple[Array, Array, Array]:
    """Determinants at integration points and at corners, and volumes."""
    if code == HEX8:
        inner, outer = _at(points, _HEX8_INNER), _at(points, _HEX8_OUTER)
        return inner, outer, inner[:, -8:].sum(axis=1)  # the rule of 2 points is exact
    straight = _det(np.stack([points[:, k] - points[:, 0] for k in (1, 2, 3)], axis=2))[:, None]
    if code == TET4:
        return straight, straight, straight[:, 0] / 6
    inner, outer = np.repeat(straight, len(_TET10_INNER), 1), np.repeat(straight, 4, 1)
    curved = ~_is_straight(points)
    inner[curved], outer[curved] = (
        _at(points[curved], _TET10_INNER),
        _at(points[curved], _TET10_OUTER),
    )
    return inner, outer, inner.mean(axis=1) / 6


def _is_straight(points: Array) -> Array:
    ends = points[:, TET10_EDGES]
    off = np.linalg.norm(points[:, 4:] - ends.mean(axis=2), axis=2)
    length = np.linalg.norm(ends[:, :, 1] - ends[:, :, 0], axis=2)
    straight: Array = (off <= NEARLY_STRAIGHT * length).all(axis=1)
    return straight


def _at(points: Array, gradients: Array) -> Array:
    """Determinants (k, p) for gradients (p, width, 3) of the shape functions."""
    count, width = len(gradients), gradients.shape[1]
    flat = gradients.transpose(1, 0, 2).reshape(width, 3 * count)
    jacobian = points.transpose(0, 2, 1).reshape(-1, width) @ flat
    return _det(jacobian.reshape(len(points), 3, count, 3).transpose(0, 2, 1, 3))


def _det(m: Array) -> Array:
    determinant: Array = (
        m[..., 0, 0] * (m[..., 1, 1] * m[..., 2, 2] - m[..., 1, 2] * m[..., 2, 1])
        - m[..., 0, 1] * (m[..., 1, 0] * m[..., 2, 2] - m[..., 1, 2] * m[..., 2, 0])
        + m[..., 0, 2] * (m[..., 1, 0] * m[..., 2, 1] - m[..., 1, 1] * m[..., 2, 0])
    )
    return determinant


def _scaled_jacobian(points: Array, outer: Array) -> Array:
    """Smallest corner determinant relative to the edges that meet there (Knupp 2000)."""
    edges = np.linalg.norm(points[:, HEX8_NEIGHBOURS] - points[:, :, None], axis=3)
    scaled: Array = (8 * outer / np.maximum(edges.prod(axis=2), 1e-300)).min(axis=1)
    return scaled
