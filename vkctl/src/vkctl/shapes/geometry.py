"""Shapes of the three element types: volumes, centroids, faces, consistent nodal forces.

Node orders and parameters are those of the solver. Connectivity and face tables hold 1-based
node numbers.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from vkctl.directory.formats import HEX8, TET4, TET10, Array
from vkctl.directory.model import Elements

# A pressure, a vector, or a function from points (k, 3) to pressures (k,) or vectors (k, 3).
Traction = float | npt.ArrayLike | Callable[[Array], Array]

# Local nodes (0-based) of each face, seen from outside counter-clockwise: corners, then the
# mid-edge nodes between corners 1-2, 2-3, 3-1.
TET4_FACES = np.array(((0, 2, 1), (0, 1, 3), (1, 2, 3), (0, 3, 2)))
TET10_FACES = np.array(
    ((0, 2, 1, 6, 5, 4), (0, 1, 3, 4, 8, 7), (1, 2, 3, 5, 9, 8), (0, 3, 2, 7, 9, 6))
)
HEX8_FACES = np.array(
    ((0, 3, 2, 1), (4, 5, 6, 7), (0, 1, 5, 4), (1, 2, 6, 5), (2, 3, 7, 6), (3, 0, 4, 7))
)
FACES = {TET4: TET4_FACES, TET10: TET10_FACES, HEX8: HEX8_FACES}

# Corner pairs (0-based) of the mid-edge nodes 5 to 10 of a 10-node tetrahedron.
TET10_EDGES = np.array(((0, 1), (1, 2), (0, 2), (0, 3), (1, 3), (2, 3)))

# Signs of xi, eta, zeta at the nodes of a hexahedron.
HEX8_SIGNS = np.array(
    (
        (-1, -1, -1),
        (1, -1, -1),
        (1, 1, -1),
        (-1, 1, -1),
        (-1, -1, 1),
        (1, -1, 1),
        (1, 1, 1),
        (-1, 1, 1),
    ),
    dtype=np.float64,
)

# Barycentric gradients (L, a, b, c) with respect to (a, b, c).
_BARYCENTRIC = np.array(((-1, -1, -1), (1, 0, 0), (0, 1, 0), (0, 0, 1)), dtype=np.float64)


def tet10_gradients(point: npt.ArrayLike) -> Array:
    """Derivatives (10, 3) of the quadratic shape functions at the parameters (a, b, c)."""
    abc = np.asarray(point, np.float64)
    bary = np.concatenate(([1.0 - abc.sum()], abc))
    corners = (4.0 * bary - 1.0)[:, None] * _BARYCENTRIC
    i, j = TET10_EDGES.T
    mids = 4.0 * (bary[i, None] * _BARYCENTRIC[j] + bary[j, None] * _BARYCENTRIC[i])
    return np.concatenate((corners, mids))


def hex8_gradients(point: npt.ArrayLike) -> Array:
    """Derivatives (8, 3) of the trilinear shape functions at (xi, eta, zeta)."""
    factors = 1.0 + HEX8_SIGNS * np.asarray(point, np.float64)
    gradients = np.empty((8, 3))
    for k in range(3):
        others = [m for m in range(3) if m != k]
        gradients[:, k] = HEX8_SIGNS[:, k] * factors[:, others].prod(axis=1) / 8.0
    return gradients


_G = 1.0 / np.sqrt(3.0)
# Points and weights that integrate the Jacobian determinant exactly: it is constant on the
# 4-node tetrahedron, at most quadratic in each parameter of the hexahedron, and of degree 3 on
# the 10-node tetrahedron (five-point rule of Stroud 1971, T3:3-1).
_RULES: dict[int, tuple[Array, Array]] = {
    TET4: (np.full((1, 3), 0.25), np.array((1 / 6,))),
    HEX8: (_G * HEX8_SIGNS, np.ones(8)),
    TET10: (
        np.array(
            (
                (1 / 4, 1 / 4, 1 / 4),
                (1 / 6, 1 / 6, 1 / 6),
                (1 / 2, 1 / 6, 1 / 6),
                (1 / 6, 1 / 2, 1 / 6),
                (1 / 6, 1 / 6, 1 / 2),
            )
        ),
        np.array((-4 / 5, 9 / 20, 9 / 20, 9 / 20, 9 / 20)) / 6.0,
    ),
}
_GRADIENTS: dict[int, Callable[[npt.ArrayLike], Array]] = {
    TET4: lambda _: _BARYCENTRIC,
    HEX8: hex8_gradients,
    TET10: tet10_gradients,
}


def _determinants(nodes: Array, rows: Array, gradients: Array) -> Array:
    jacobian = np.einsum("ena,nb->eab", nodes[rows - 1], gradients)
    determinants: Array = np.linalg.det(jacobian)
    return determinants


def element_volumes(nodes: Array, elements: Elements) -> Array:
    """Signed volume of each element, (m,); a negative value is an inverted element.

    Elements of unknown type codes have the volume 0.
    """
    volumes = np.zeros(len(elements))
    for code, (points, weights) in _RULES.items():
        numbers, rows = elements.of_type(code)
        for point, weight in zip(points, weights, strict=True):
            determinants = _determinants(nodes, rows, _GRADIENTS[code](point))
            volumes[numbers - 1] += weight * determinants
    return volumes


def element_centroids(nodes: Array, elements: Elements) -> Array:
    """Mean of the corner nodes of each element, (m, 3); NaN for unknown type codes."""
    centroids = np.full((len(elements), 3), np.nan)
    for code, corners in ((TET4, 4), (HEX8, 8), (TET10, 4)):
        numbers, rows = elements.of_type(code)
        centroids[numbers - 1] = nodes[rows[:, :corners] - 1].mean(axis=1)
    return centroids


def select_nodes(
    nodes: Array,
    x: float | tuple[float, float] | None = None,
    y: float | tuple[float, float] | None = None,
    z: float | tuple[float, float] | None = None,
    tolerance: float = 1e-6,
) -> Array:
    """Numbers of the nodes at a coordinate or inside a closed range, in each direction given.

    `tolerance` is relative to the largest extent of the nodes.
    """
    margin = tolerance * float(np.ptp(nodes, axis=0).max(initial=0.0)) if len(nodes) else 0.0
    inside = np.ones(len(nodes), np.bool_)
    for k, wanted in enumerate((x, y, z)):
        if wanted is not None:
            low, high = wanted if isinstance(wanted, tuple) else (wanted, wanted)
            inside &= (nodes[:, k] >= low - margin) & (nodes[:, k] <= high + margin)
    return np.flatnonzero(inside) + 1


def faces_within(elements: Elements, nodes: npt.ArrayLike) -> list[Array]:
    """Element faces whose nodes are all among `nodes`, seen from outside counter-clockwise.

    One table of node numbers for each width that occurs: 3 and 6 for tetrahedra, 4 for
    hexahedra. An inner face that lies in the set comes out twice, once from each side.
    """
    chosen = np.asarray(nodes)
    highest = max((int(t.max()) for t in elements.used_tables() if t.size), default=0)
    member = np.zeros(max(highest, int(chosen.max(initial=0))) + 1, np.bool_)
    member[chosen] = True
    found = []
    for code, local in FACES.items():
        rows = elements.of_type(code)[1]
        inside = member[rows]
        faces = [rows[inside[:, face].all(axis=1)][:, face] for face in local]
        if any(len(f) for f in faces):
            found.append(np.concatenate(faces))
    return found


def boundary_faces(elements: Elements) -> list[Array]:
    """Faces that belong to one element only, as `faces_within` gives them.

    Triangles and quadrangles never match each other, so where tetrahedra and hexahedra meet both
    sides count as boundary.
    """
    triangles: list[Array] = []
    quadrangles: list[Array] = []
    for code, local in FACES.items():
        rows = elements.of_type(code)[1]
        if len(rows):
            target = quadrangles if code == HEX8 else triangles
            target.append(rows[:, local].reshape(-1, local.shape[1]))
    found = []
    for group, corners in ((triangles, 3), (quadrangles, 4)):
        if group:
            keys = np.concatenate([g[:, :corners] for g in group])
            single = _occur_once(np.sort(keys, axis=1))
            parts = np.split(single, np.cumsum([len(g) for g in group])[:-1])
            found += [g[part] for g, part in zip(group, parts, strict=True) if part.any()]
    return found


def _occur_once(rows: Array) -> Array:
    """Mask of the rows that occur once; the first three columns are enough to tell a face."""
    span = int(rows.max()) + 1
    if span < 1 << 21:  # three node numbers fit one integer, which sorts faster
        packed = rows[:, :3].astype(np.int64) @ np.array((span * span, span, 1))
        order = np.argsort(packed)
    else:
        order = np.lexsort((rows[:, 2], rows[:, 1], rows[:, 0]))
    ordered = rows[order, :3]
    differs = np.any(ordered[1:] != ordered[:-1], axis=1)
    first = np.concatenate(([True], differs))
    last = np.concatenate((differs, [True]))
    mask = np.empty(len(rows), np.bool_)
    mask[order] = first & last
    return mask


def face_triangles(faces: list[Array]) -> Array:
    """Flat triangles (k, 3) that draw faces: quadrangles give two, 6-node triangles four."""
    parts = {3: ((0, 1, 2),), 4: ((0, 1, 2), (0, 2, 3))}
    parts[6] = ((0, 3, 5), (3, 1, 4), (5, 4, 2), (3, 4, 5))
    triangles = [face[:, list(p)] for face in faces for p in parts[face.shape[1]]]
    return np.concatenate(triangles) if triangles else np.empty((0, 3), np.int32)


def _tri3(r: float, s: float) -> tuple[Array, Array]:
    shape = np.array((1 - r - s, r, s))
    return shape, _BARYCENTRIC[:3, :2]


def _tri6(r: float, s: float) -> tuple[Array, Array]:
    bary, slope = _tri3(r, s)
    i, j = np.array(((0, 1), (1, 2), (2, 0))).T
    shape = np.concatenate((bary * (2 * bary - 1), 4 * bary[i] * bary[j]))
    mids = 4 * (bary[i, None] * slope[j] + bary[j, None] * slope[i])
    return shape, np.concatenate(((4 * bary - 1)[:, None] * slope, mids))


def _quad4(r: float, s: float) -> tuple[Array, Array]:
    signs = HEX8_SIGNS[:4, :2]
    factors = 1 + signs * (r, s)
    slope = np.column_stack((signs[:, 0] * factors[:, 1], signs[:, 1] * factors[:, 0])) / 4
    return factors.prod(axis=1) / 4, slope


def _triangle_points() -> list[tuple[float, float, float]]:
    """Seven points of degree 5 on the unit triangle (Radon 1948): r, s, weight."""
    points = [(1 / 3, 1 / 3, 9 / 80)]
    for sign in (-1.0, 1.0):
        a = (6 + sign * np.sqrt(15)) / 21
        weight = (155 + sign * np.sqrt(15)) / 2400
        points += [(a, a, weight), (1 - 2 * a, a, weight), (a, 1 - 2 * a, weight)]
    return points


_QUADRANGLE_POINTS = [(r * _G, s * _G, 1.0) for r in (-1, 1) for s in (-1, 1)]


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
        shape_of = {3: _tri3, 4: _quad4, 6: _tri6}[width]
        points = _QUADRANGLE_POINTS if width == 4 else _triangle_points()
        loads = np.zeros((len(table), width, 3))
        for r, s, weight in points:
            shape, slope = shape_of(r, s)
            loads += shape[:, None] * _point_load(nodes[table - 1], shape, slope, weight, traction)
        for k in range(3):
            total[:, k] += np.bincount(table.ravel() - 1, loads[..., k].ravel(), len(nodes))
        touched.append(table.ravel().astype(np.int64))
    numbers = np.unique(np.concatenate(touched))
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
