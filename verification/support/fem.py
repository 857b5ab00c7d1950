"""Finite element arithmetic in numpy, written apart from the solver: shapes, quadrature,
consistent loads, error norms and stress recovery.

Shapes and rules repeat on purpose what the solver and vkctl have: a mistake in theirs must not find
its like in the suite that judges them.

Arrays are indexed [element][point][node or component]; strains and stresses run xx, yy, zz, xy,
yz, xz with engineering shear strains.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import lru_cache

import numpy as np
from scipy import sparse
from scipy.sparse.linalg import spsolve
from scipy.special import roots_jacobi

from vkctl.basics.types import Array
from vkctl.shapes.topology import HEX8, TET10

from .mesh import CUBE, EDGES, Mesh

QUAD4, TRI3, TRI6 = 4, 3, 6  # face shapes by their number of nodes
FACE_EDGES = np.array([[0, 1], [1, 2], [2, 0]])


@lru_cache
def gauss_cube(n: int, dimension: int = 3) -> tuple[Array, Array]:
    """Points and weights of the Gauss-Legendre product rule on the cube -1..1."""
    x, w = np.polynomial.legendre.leggauss(n)
    points = np.stack(np.meshgrid(*[x] * dimension, indexing="ij"), axis=-1)
    weights = np.ones((n,) * dimension)
    for axis in range(dimension):
        weights *= w.reshape([-1 if k == axis else 1 for k in range(dimension)])
    return points.reshape(-1, dimension), weights.ravel()


@lru_cache
def gauss_simplex(n: int, dimension: int = 3) -> tuple[Array, Array]:
    """Product rule of n points a direction on the collapsed cube, exact to degree 2n - 1.

    Points are the coordinates 2, 3 (, 4) of the corners; weights sum to the measure of the
    unit simplex. (Stroud, Approximate Calculation of Multiple Integrals, 1971, conical product.)
    """
    rules = []
    for k in range(dimension):
        x, w = roots_jacobi(n, dimension - 1 - k, 0)
        rules.append(((1 + x) / 2, w / 2 ** (dimension - k)))
    t = np.stack(np.meshgrid(*[r[0] for r in rules], indexing="ij"), axis=-1)
    w = np.array(1.0)
    for _, of_axis in rules:
        w = w[..., None] * of_axis
    t = t.reshape(-1, dimension)
    left: Array | float = 1.0
    points = np.empty_like(t)
    for k in range(dimension):
        points[:, k] = left * t[:, k]
        left = left * (1 - t[:, k])
    return points, w.ravel()


# The two rules of the solver on the tetrahedron, weights summing to 1/6 here: orders 2 and 3.
# (Keast 1986; Witherden and Vincent 2015.) Orbits (a, a, a, 1 - 3a): weight, a.
_TET_ORBITS = {
    2: [(0.25, 0.1381966011250105)],
    3: [(0.13852796651186214, 0.3280546967114267), (0.11147203348813786, 0.10695227393293068)],
}


def solver_rule(code: int, order: int) -> tuple[Array, Array]:
    """The integration rule of the solver's kernels: order 2 or 3 of a type."""
    if code == HEX8:
        return gauss_cube(order)
    points, weights = [], []
    for weight, a in _TET_ORBITS[order]:
        points.append(np.where(np.eye(4, dtype=bool), 1 - 3 * a, a)[:, 1:])
        weights.append(np.full(4, weight / 6))
    return np.concatenate(points), np.concatenate(weights)


def rule(code: int, n: int = 4) -> tuple[Array, Array]:
    """A fine rule of the reference element."""
    return gauss_cube(n) if code == HEX8 else gauss_simplex(n)


def _simplex_shapes(points: Array, edges: Array | None) -> tuple[Array, Array]:
    """Linear, or with `edges` quadratic, shapes of a simplex and their derivatives."""
    dimension = points.shape[1]
    bary = np.column_stack((1 - points.sum(axis=1), points))
    slope = np.vstack((-np.ones(dimension), np.eye(dimension)))  # of each coordinate
    if edges is None:
        return bary, np.broadcast_to(slope, (len(points), *slope.shape))
    a, b = edges.T
    shapes = np.hstack((bary * (2 * bary - 1), 4 * bary[:, a] * bary[:, b]))
    corner = (4 * bary - 1)[..., None] * slope
    middle = 4 * (bary[:, a, None] * slope[b] + bary[:, b, None] * slope[a])
    return shapes, np.concatenate((corner, middle), axis=1)


def _box_shapes(points: Array, corners: Array) -> tuple[Array, Array]:
    sign = 2.0 * corners - 1.0
    factors = 1 + points[:, None, :] * sign
    shapes = factors.prod(axis=2) / len(corners)
    slopes = np.empty((len(points), *corners.shape))
    for k in range(corners.shape[1]):
        others = np.delete(factors, k, axis=2).prod(axis=2)
        slopes[..., k] = sign[:, k] * others / len(corners)
    return shapes, slopes


def shapes(code: int, points: Array) -> tuple[Array, Array]:
    """Shape functions [point][node] and parametric derivatives [point][node][axis]."""
    if code == HEX8:
        return _box_shapes(points, CUBE)
    return _simplex_shapes(points, EDGES if code == TET10 else None)


def face_shapes(width: int, points: Array) -> tuple[Array, Array]:
    """The same for faces, told apart by their number of nodes."""
    if width == QUAD4:
        return _box_shapes(points, CUBE[:4, :2])
    return _simplex_shapes(points, FACE_EDGES if width == TRI6 else None)


class Points:
    """Quadrature points of all elements of a table: shape, position, gradient, volume weight."""

    def __init__(self, code: int, nodes: Array, table: Array, points: Array, weights: Array):
        self.code, self.table = code, table
        self.shape, slopes = shapes(code, points)
        x = nodes[table]
        self.position = np.einsum("pn,enk->epk", self.shape, x)
        jacobian = np.einsum("pnj,enk->epjk", slopes, x)
        self.volume = np.linalg.det(jacobian) * weights
        self.gradient = np.einsum("epkj,pnj->epnk", np.linalg.inv(jacobian), slopes)

    def field(self, values: Array) -> Array:
        """Nodal values (n,) or (n, k) at the points."""
        found: Array = np.einsum("pn,en...->ep...", self.shape, values[self.table])
        return found

    def strain(self, u: Array) -> Array:
        g = np.einsum("epnk,eni->epik", self.gradient, u[self.table])  # d u_i / d x_k
        return np.stack(
            (
                g[..., 0, 0],
                g[..., 1, 1],
                g[..., 2, 2],
                g[..., 0, 1] + g[..., 1, 0],
                g[..., 1, 2] + g[..., 2, 1],
                g[..., 0, 2] + g[..., 2, 0],
            ),
            axis=-1,
        )


def quadrature(mesh: Mesh, n: int = 4) -> list[Points]:
    """Fine quadrature points of each type in the mesh."""
    return [Points(code, mesh.nodes, table, *rule(code, n)) for code, table in mesh.tables.items()]


def isotropic(e: float, nu: float) -> Array:
    """Hooke's law, 6 by 6."""
    law = np.zeros((6, 6))
    law[:3, :3] = nu
    law[range(3), range(3)] = 1 - nu
    law[range(3, 6), range(3, 6)] = (1 - 2 * nu) / 2
    return law * e / ((1 + nu) * (1 - 2 * nu))


def stiffness(points: Points, law: Array, factor: Array | float = 1.0) -> Array:
    """Element matrices [element][3n][3n]; `factor` [element][point] scales the law."""
    e, p, n, _ = points.gradient.shape
    b = np.zeros((e, p, 6, n, 3))
    gx, gy, gz = (points.gradient[..., k] for k in range(3))
    for row, axis, value in (
        (0, 0, gx), (1, 1, gy), (2, 2, gz), (3, 0, gy), (3, 1, gx),
        (4, 1, gz), (4, 2, gy), (5, 0, gz), (5, 2, gx),
    ):  # fmt: skip
        b[:, :, row, :, axis] = value
    b = b.reshape(e, p, 6, 3 * n)
    weight = points.volume * factor
    matrices: Array = np.einsum("epai,ab,epbj,ep->eij", b, law, b, weight, optimize=True)
    return matrices


def solve(
    mesh: Mesh, law: Array, fixed: Array, load: Array, order: int, free_strain: Array | None = None
) -> Array:
    """Displacements (n, 3) with the solver's rule of an order, held at the nodes `fixed`, or at the
    components that are true in it.

    `free_strain` is a normal strain [element][point] at the points of that rule.
    """
    code, table = mesh.only()
    q = Points(code, mesh.nodes, table, *solver_rule(code, order))
    dofs = (3 * table[:, :, None] + np.arange(3)).reshape(len(table), -1)
    rows = np.repeat(dofs, dofs.shape[1], axis=1).ravel()
    columns = np.tile(dofs, dofs.shape[1]).ravel()
    total = sparse.csc_matrix((stiffness(q, law).ravel(), (rows, columns)))
    right = load.astype(float).copy()
    if free_strain is not None:
        swelling = law[:3, :3].sum(axis=0)[0] * free_strain * q.volume
        np.add.at(right, table, np.einsum("epnk,ep->enk", q.gradient, swelling))
    held = fixed
    if fixed.dtype != np.bool_:
        held = np.zeros_like(mesh.nodes, bool)
        held[fixed] = True
    free = ~held.ravel()
    u = np.zeros(mesh.nodes.size)
    u[free] = spsolve(total[free][:, free], right.ravel()[free])
    return u.reshape(-1, 3)


def body_load(mesh: Mesh, force: Callable[[Array], Array], n: int = 4) -> Array:
    """Consistent nodal forces (n, 3) of a force per volume, given at positions (..., 3)."""
    total = np.zeros_like(mesh.nodes)
    for q in quadrature(mesh, n):
        f = np.einsum("pn,epk,ep->enk", q.shape, force(q.position), q.volume)
        np.add.at(total, q.table, f)
    return total


def face_load(mesh: Mesh, faces: Array, traction: Callable[[Array, Array], Array]) -> Array:
    """Consistent nodal forces (n, 3) of a traction on faces.

    `traction` takes positions and outward unit normals (..., 3) and gives force per area.
    """
    width = faces.shape[1]
    points, weights = gauss_cube(4, 2) if width == QUAD4 else gauss_simplex(4, 2)
    shape, slopes = face_shapes(width, points)
    x = mesh.nodes[faces]
    tangent = np.einsum("pnj,fnk->fpjk", slopes, x)
    normal = np.cross(tangent[..., 0, :], tangent[..., 1, :])
    area = np.linalg.norm(normal, axis=-1)
    position = np.einsum("pn,fnk->fpk", shape, x)
    t = traction(position, normal / area[..., None])
    total = np.zeros_like(mesh.nodes)
    np.add.at(total, faces, np.einsum("pn,fpk,fp,p->fnk", shape, t, area, weights))
    return total


def pressure(value: float) -> Callable[[Array, Array], Array]:
    """Traction of a pressure: against the outward normal."""
    return lambda _, normal: -value * normal


def volume(mesh: Mesh) -> float:
    return float(sum(q.volume.sum() for q in quadrature(mesh)))


def l2_error(mesh: Mesh, u: Array, exact: Callable[[Array], Array], n: int = 4) -> float:
    """L2 norm of u - exact over that of exact."""
    difference = size = 0.0
    for q in quadrature(mesh, n):
        wanted = exact(q.position)
        difference += float((((q.field(u) - wanted) ** 2).sum(axis=-1) * q.volume).sum())
        size += float(((wanted**2).sum(axis=-1) * q.volume).sum())
    return float(np.sqrt(difference / size))


# --- stress recovery ----------------------------------------------------------------------------


def _samples(mesh: Mesh, u: Array, law: Array, free_strain: Array | None) -> tuple[Array, ...]:
    """Stresses at the points where they are most accurate: position, stress, element table."""
    code, table = mesh.only()
    if code == HEX8:
        q = Points(code, mesh.nodes, table, np.zeros((1, 3)), np.array([8.0]))
    else:
        q = Points(code, mesh.nodes, table, *solver_rule(code, 2))
    strain = q.strain(u)
    if free_strain is not None:
        strain[..., :3] -= q.field(free_strain)[..., None]
    return q.position, strain @ law, table


def nodal_average(
    mesh: Mesh, u: Array, law: Array, node: int, free_strain: Array | None = None
) -> Array:
    """Mean over the elements at a node of the stress that each has at the node itself.

    `free_strain`: thermal strain per node.
    """
    code, table = mesh.only()
    corners = 2.0 * CUBE - 1.0 if code == HEX8 else np.vstack((np.zeros(3), np.eye(3)))
    rows, place = np.nonzero(table == node)
    total = np.zeros(6)
    for row, k in zip(rows, place, strict=True):
        q = Points(code, mesh.nodes, table[row : row + 1], corners[k : k + 1], np.ones(1))
        strain = q.strain(u)[0, 0]
        if free_strain is not None:
            strain[:3] -= free_strain[node]
        total += law @ strain
    return total / len(rows)


def patch_fit(
    mesh: Mesh, u: Array, law: Array, node: int, free_strain: Array | None = None, rings: int = 2
) -> Array:
    """Stress at a node from a least-squares quadratic through sampling points around it.

    The sampling points are the element centres of hexahedra and the four Gauss points of
    tetrahedra, taken from the elements within `rings` rings of elements around the node.
    (After Zienkiewicz and Zhu, Int. J. Numer. Meth. Eng. 33, 1992, 1331-1364.)
    """
    position, stress, table = _samples(mesh, u, law, free_strain)
    near = np.array([node])
    for _ in range(rings):
        chosen = np.isin(table, near).any(axis=1)
        near = np.unique(table[chosen])
    d = (position[chosen] - mesh.nodes[node]).reshape(-1, 3)
    d = d / np.abs(d).max()
    x, y, z = d.T
    basis = np.column_stack((np.ones(len(d)), x, y, z, x * x, y * y, z * z, x * y, y * z, x * z))
    fit, *_ = np.linalg.lstsq(basis, stress[chosen].reshape(-1, 6), rcond=1e-8)
    constant: Array = fit[0]
    return constant
