"""Nodal forces of loads, consistent with the shape functions of the elements."""

from __future__ import annotations

import numpy as np

from vkctl.directory.formats import HEX8, NODES_PER_TYPE, TET4, TET10, Array
from vkctl.directory.model import Elements
from vkctl.shapes import geometry

from .case_file.expression import Expression
from .case_file.schema import Field
from .mesh import curved, determinants

# Points and weights of Gauss and Legendre on (-1, 1) and, moved, on (0, 1).
_GAUSS_2 = np.polynomial.legendre.leggauss(2)
_GAUSS_4 = np.polynomial.legendre.leggauss(4)


def evaluate(value: Field, points: Array) -> Array:
    """Values (k,) of a number or formula at points (k, 3)."""
    if isinstance(value, Expression):
        return value(points)
    return np.full(len(points), float(value))


def traction_forces(
    nodes: Array, tables: list[Array], values: tuple[Field, ...]
) -> tuple[Array, Array]:
    """Nodal forces of a traction (three values) or a pressure (one): (numbers, forces (k, 3)).

    A pressure pushes against the faces from outside. Formulas are taken at the integration
    points, so a field that is linear gives its exact resultant on plane faces.
    """

    def at(points: Array) -> Array:
        columns = [evaluate(v, points) for v in values]
        return columns[0] if len(columns) == 1 else np.column_stack(columns)

    return geometry.consistent_forces(nodes, tables, at)


def area_shares(nodes: Array, tables: list[Array]) -> tuple[Array, Array]:
    """Integral of each node's shape function over the faces: (numbers, areas (k,)).

    They add up to the area of the faces. At the corners of plane 6-node triangles they vanish.
    """
    numbers, areas = geometry.consistent_forces(nodes, tables, (1.0, 0.0, 0.0))
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


# --- body forces -----------------------------------------------------------------------------


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
        shares[bent] = _integrated(nodes, rows[bent], *_tet_rule(), TET10)
    return shares


def _hex8_shares(nodes: Array, rows: Array) -> Array:
    points, weights = _GAUSS_2
    grid = np.stack(np.meshgrid(points, points, points, indexing="ij"), axis=-1).reshape(-1, 3)
    return _integrated(nodes, rows, grid, np.ones(8) * weights[0] ** 3, HEX8)


_SHARES = {TET4: _tet4_shares, TET10: _tet10_shares, HEX8: _hex8_shares}


def _tet_rule() -> tuple[Array, Array]:
    """64 points (a, b, c) and weights on the unit tetrahedron (Stroud 1971, conical product).

    Exact to degree 5: shape function times the Jacobian of a curved tetrahedron.
    """
    points, weights = (_GAUSS_4[0] + 1) / 2, _GAUSS_4[1] / 2
    u, v, w = (g.ravel() for g in np.meshgrid(points, points, points, indexing="ij"))
    product = np.einsum("i,j,k->ijk", weights, weights, weights).ravel()
    abc = np.column_stack((u, v * (1 - u), w * (1 - u) * (1 - v)))
    return abc, product * (1 - u) ** 2 * (1 - v)


def _shape(code: int, point: Array) -> Array:
    if code == HEX8:
        trilinear: Array = np.prod(1 + geometry.HEX8_SIGNS * point, axis=1) / 8
        return trilinear
    bary = np.concatenate(([1 - point.sum()], point))
    i, j = geometry.TET10_EDGES.T
    return np.concatenate((bary * (2 * bary - 1), 4 * bary[i] * bary[j]))


def _integrated(nodes: Array, rows: Array, points: Array, weights: Array, code: int) -> Array:
    shapes = np.array([_shape(code, point) for point in points])
    shares: Array = (determinants(nodes, rows, code, points) * weights) @ shapes
    return shares
