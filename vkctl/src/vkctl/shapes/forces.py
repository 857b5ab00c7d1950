"""Nodal forces of loads, consistent with the shape functions of the elements."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .elements import Elements
from .functions import quad4, shape_values, tri3, tri6
from .groups import distinct
from .measures import curved, determinants
from .rules import GAUSS_2, QUADRANGLE_POINTS, tetrahedron_rule, triangle_points
from .topology import HEX8, NODES_PER_TYPE, TET4, TET10

# A pressure, a vector, or a function from points (k, 3) to pressures (k,) or vectors (k, 3).
Traction = float | npt.ArrayLike | Callable[[Array], Array]


def consistent_forces(nodes: Array, faces: list[Array], traction: Traction) -> tuple[Array, Array]:
    """Nodal forces of a traction on faces: (node numbers, forces (k, 3)), each node once.

    `traction` is a vector, force per area; a number is a pressure, which pushes against the face
    from outside; a function takes points (k, 3) and gives pressures (k,) or vectors (k, 3). The
    load is integrated over the curved face, with the normal and area at each integration point.
    """
    total = np.zeros_like(nodes, np.float64)
    touched = [np.empty(0, np.int64)]
    for table in faces:
        width = table.shape[1]
        shape_of = {3: tri3, 4: quad4, 6: tri6}[width]
        points = QUADRANGLE_POINTS if width == 4 else triangle_points()
        loads = np.zeros((len(table), width, 3))
        for r, s, weight in points:
            shape, slope = shape_of(r, s)
            loads += shape[:, None] * _point_load(nodes[table - 1], shape, slope, weight, traction)
        for k in range(3):
            total[:, k] += np.bincount(table.ravel() - 1, loads[..., k].ravel(), len(nodes))
        touched.append(table.ravel().astype(np.int64))
    numbers = distinct(np.concatenate(touched))
    return numbers, total[numbers - 1]


def _point_load(
    corners: Array, shape: Array, slope: Array, weight: float, traction: Traction
) -> Array:
    """Load of each face at one integration point, (faces, 1, 3)."""
    tangents = np.einsum("fna,nb->fba", corners, slope)
    normal = weight * np.cross(tangents[:, 0], tangents[:, 1])
    value = traction
    if callable(traction):
        value = traction(np.einsum("fna,n->fa", corners, shape))
    given = np.asarray(value, np.float64)
    if given.ndim == 0 or (callable(traction) and given.ndim == 1):
        return -(given[..., None] * normal)[:, None]
    area = np.linalg.norm(normal, axis=1, keepdims=True)
    loads: Array = (area * given)[:, None]
    return loads


def area_shares(nodes: Array, tables: list[Array]) -> tuple[Array, Array]:
    """Integral of each node's shape function over the faces: (numbers, areas (k,)).

    They add up to the area of the faces. At the corners of plane 6-node triangles they vanish.
    """
    numbers, areas = consistent_forces(nodes, tables, (1.0, 0.0, 0.0))
    return numbers, areas[:, 0]


def spread_force(nodes: Array, tables: list[Array], force: Array) -> tuple[Array, Array]:
    """Nodal forces of a uniform traction with the resultant `force`."""
    numbers, areas = area_shares(nodes, tables)
    return numbers, (areas / areas.sum())[:, None] * force


# Squared shape functions integrated over the unit face, as shares: diagonal lumping (Hinton,
# Rock and Zienkiewicz 1976). The 6-node triangle has 1/60 at corners and 4/45 at middles.
_LUMPED = {
    3: np.full(3, 1 / 3),
    4: np.full(4, 1 / 4),
    6: np.array((1 / 60,) * 3 + (4 / 45,) * 3) / (3 / 60 + 12 / 45),
}


def lumped_areas(nodes: Array, tables: list[Array]) -> tuple[Array, Array]:
    """Area that belongs to each node: (numbers, areas (k,)), all positive, adding up to the whole.

    For elastic supports, whose springs stand at single nodes and must not be negative.
    """
    total = np.zeros(len(nodes))
    for table in tables:
        share = _LUMPED[table.shape[1]]
        area = _face_areas(nodes, table)
        total += np.bincount((table - 1).ravel(), (area[:, None] * share).ravel(), len(nodes))
    numbers = np.flatnonzero(total) + 1
    return numbers, total[numbers - 1]


def _face_areas(nodes: Array, table: Array) -> Array:
    """Areas (k,) of faces: each counted by the shares of its own nodes."""
    apart = np.arange(1, table.size + 1).reshape(table.shape)
    _, areas = area_shares(nodes[table.ravel() - 1], [apart])
    per_face: Array = areas.reshape(table.shape).sum(axis=1)
    return per_face


def nodal_masses(nodes: Array, elements: Elements, densities: Array) -> Array:
    """Integral of density times shape function over the elements, (n,) per node.

    `densities` has one value per element. The sum is the mass; corners of straight 10-node
    tetrahedra get a negative share, as the consistent body force has it.
    """
    masses = np.zeros(len(nodes))
    for code, width in NODES_PER_TYPE.items():
        numbers, rows = elements.of_type(code)
        density = densities[numbers - 1]
        used = density != 0
        shares = _SHARES[code](nodes, rows[used]) * density[used, None]
        flat = rows[used].reshape(-1, width) - 1
        masses += np.bincount(flat.ravel(), shares.ravel(), len(nodes))
    return masses


def _tet_volumes(nodes: Array, rows: Array) -> Array:
    a, b, c = (nodes[rows[:, k] - 1] - nodes[rows[:, 0] - 1] for k in (1, 2, 3))
    volumes: Array = np.einsum("ij,ij->i", a, np.cross(b, c)) / 6
    return volumes


def _tet4_shares(nodes: Array, rows: Array) -> Array:
    return np.repeat(_tet_volumes(nodes, rows)[:, None] / 4, 4, axis=1)


def _tet10_shares(nodes: Array, rows: Array) -> Array:
    """Closed form (-1/20, 1/5 of the volume) where edges are straight, else integrated."""
    share = np.array((-1 / 20,) * 4 + (1 / 5,) * 6)
    shares: Array = _tet_volumes(nodes, rows)[:, None] * share
    bent = curved(nodes, rows)
    if np.any(bent):
        shares[bent] = _integrated(nodes, rows[bent], *tetrahedron_rule(), TET10)
    return shares


def _hex8_shares(nodes: Array, rows: Array) -> Array:
    points, weights = GAUSS_2
    grid = np.stack(np.meshgrid(points, points, points, indexing="ij"), axis=-1).reshape(-1, 3)
    return _integrated(nodes, rows, grid, np.ones(8) * weights[0] ** 3, HEX8)


_SHARES = {TET4: _tet4_shares, TET10: _tet10_shares, HEX8: _hex8_shares}


def _integrated(nodes: Array, rows: Array, points: Array, weights: Array, code: int) -> Array:
    shapes = np.array([shape_values(code, point) for point in points])
    shares: Array = (determinants(nodes, rows, code, points) * weights) @ shapes
    return shares
