"""Meshes of mapped blocks: hexahedra, and tetrahedra that are cut from them.

Node numbers are 0-based in here and turned to 1-based in `model`. Coordinates are rounded to
single precision when a mesh is made, so that references see the nodes that the solver sees.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.elements import Elements
from vkctl.shapes.topology import HEX8, TET4, TET10

NAMES = {TET4: "4-node tetrahedra", HEX8: "8-node hexahedra", TET10: "10-node tetrahedra"}
TYPES = (TET4, HEX8, TET10)

# Corners of the reference cube in the node order of the hexahedron.
CUBE = np.array(
    [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]]
)
# Kuhn's cut of the cube into six tetrahedra around the diagonal 0-6. All face diagonals ascend,
# so that neighbouring cells of a structured block agree on them. [tetrahedron][corner of CUBE]
KUHN = np.array(
    [[0, 1, 2, 6], [0, 2, 3, 6], [0, 3, 7, 6], [0, 7, 4, 6], [0, 4, 5, 6], [0, 5, 1, 6]]
)
# Corners between which the mid-edge nodes 5 to 10 of the tetrahedron stand.
EDGES = np.array([[0, 1], [1, 2], [0, 2], [0, 3], [1, 3], [2, 3]])

Mapping = Callable[[Array], Array]
Condition = Callable[[Array, Array, Array], Array]  # of x, y, z


@dataclass
class Mesh:
    """Nodes (n, 3) and one connectivity table per type code, 0-based."""

    nodes: Array
    tables: dict[int, Array] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.nodes = np.asarray(self.nodes, np.float32).astype(np.float64)

    def only(self) -> tuple[int, Array]:
        """Type code and table of a mesh of one type."""
        ((code, table),) = self.tables.items()
        return code, table

    def where(self, condition: Condition) -> Array:
        """0-based numbers of the nodes whose x, y, z meet the condition."""
        return np.flatnonzero(condition(*self.nodes.T))

    def at(self, point: tuple[float, float, float]) -> int:
        """The node at a point, to 1e-5; any other count of nodes there is an error."""
        hits = np.flatnonzero(np.linalg.norm(self.nodes - point, axis=1) < 1e-5)
        if len(hits) != 1:
            raise ValueError(f"{len(hits)} nodes at {point}")
        return int(hits[0])

    def count(self) -> int:
        return sum(len(table) for table in self.tables.values())


def model(
    mesh: Mesh,
    materials: list[Material],
    cases: list[LoadCase],
    *,
    material_index: npt.ArrayLike = 1,
    options: dict[str, float] | None = None,
) -> Model:
    """Model of a mesh: all 4-node tetrahedra first, then hexahedra, then 10-node tetrahedra."""
    tet4, hex8, tet10 = (mesh.tables[c] + 1 if c in mesh.tables else None for c in TYPES)
    elements = Elements.from_tables(tet4, hex8, tet10, material_index)
    return Model(mesh.nodes, elements, materials, cases, options=dict(options or {}))


def block(code: int, cells: tuple[int, int, int], mapping: Mapping | None = None) -> Mesh:
    """Unit cube of `cells` cells, each one hexahedron or six tetrahedra, mapped by `mapping`.

    The mid-edge nodes of 10-node tetrahedra are nodes of the grid of half the spacing and are
    mapped like all others: on a curved geometry they lie on it.
    """
    step = 2 if code == TET10 else 1
    counts = step * np.asarray(cells) + 1
    axes = [np.linspace(0.0, 1.0, n) for n in counts]
    grid = np.stack(np.meshgrid(*axes, indexing="ij"), axis=-1).reshape(-1, 3)
    first = np.stack(np.meshgrid(*map(np.arange, cells), indexing="ij"), axis=-1).reshape(-1, 3)
    corners = step * (first[:, None, :] + CUBE)  # [cell][corner][axis], in grid steps
    if code != HEX8:
        corners = corners[:, KUHN].reshape(-1, 4, 3)
    if code == TET10:
        middle = (corners[:, EDGES[:, 0]] + corners[:, EDGES[:, 1]]) // 2
        corners = np.concatenate((corners, middle), axis=1)
    table = (corners[..., 0] * counts[1] + corners[..., 1]) * counts[2] + corners[..., 2]
    nodes = grid if mapping is None else mapping(grid)
    return Mesh(nodes, {code: orient(code, nodes, table)})


def orient(code: int, nodes: Array, table: Array) -> Array:
    """The table with the elements of negative volume turned around."""
    corner = {HEX8: (0, 1, 3, 4)}.get(code, (0, 1, 2, 3))
    edges = nodes[table[:, corner[1:]]] - nodes[table[:, corner[:1]]]
    turned = {
        TET4: [0, 2, 1, 3],
        TET10: [0, 2, 1, 3, 6, 5, 4, 7, 9, 8],
        HEX8: [4, 5, 6, 7, 0, 1, 2, 3],
    }[code]
    return np.where((np.linalg.det(edges) < 0.0)[:, None], table[:, turned], table)


def merge(parts: list[Mesh], tolerance: float = 1e-5) -> Mesh:
    """One mesh of several, nodes closer than `tolerance` made one."""
    nodes = np.concatenate([part.nodes for part in parts])
    keys = np.round(nodes / tolerance / 8.0).astype(np.int64)
    _, first, number = np.unique(keys, axis=0, return_index=True, return_inverse=True)
    order = np.argsort(np.argsort(first))  # keep the order of first appearance
    number = order[number.ravel()]
    tables: dict[int, Array] = {}
    start = 0
    for part in parts:
        for code, table in part.tables.items():
            rows = number[table + start]
            tables[code] = np.concatenate((tables[code], rows)) if code in tables else rows
        start += len(part.nodes)
    return Mesh(nodes[np.sort(first)], tables)


def straighten(mesh: Mesh) -> Mesh:
    """The mesh with its mid-edge nodes moved to the middles of their edges."""
    code, table = mesh.only()
    nodes = mesh.nodes.copy()
    if code == TET10:
        for k, (a, b) in enumerate(EDGES):
            nodes[table[:, 4 + k]] = 0.5 * (nodes[table[:, a]] + nodes[table[:, b]])
    return Mesh(nodes, mesh.tables)


def shake(mesh: Mesh, amount: float, seed: int = 1, fixed: Array | None = None) -> Mesh:
    """The mesh with its inner corner nodes moved by up to `amount` in each direction.

    Boundary nodes stay, as do those in `fixed`; straight edges stay straight.
    """
    rng = np.random.default_rng(seed)
    moves = np.zeros(len(mesh.nodes), bool)
    for code, table in mesh.tables.items():
        moves[table[:, : 4 if code == TET10 else None]] = True
    for code, table in mesh.tables.items():
        for faces in [boundary(code, table)]:
            moves[faces] = False
    if fixed is not None:
        moves[fixed] = False
    shift = amount * rng.uniform(-1.0, 1.0, mesh.nodes.shape) * moves[:, None]
    moved = Mesh(mesh.nodes + shift, mesh.tables)
    return straighten(moved) if TET10 in mesh.tables else moved


# Faces by type code, corners first, seen from outside counter-clockwise.
FACES = {
    TET4: np.array([[0, 2, 1], [0, 1, 3], [1, 2, 3], [0, 3, 2]]),
    TET10: np.array(
        [[0, 2, 1, 6, 5, 4], [0, 1, 3, 4, 8, 7], [1, 2, 3, 5, 9, 8], [0, 3, 2, 7, 9, 6]]
    ),
    HEX8: np.array(
        [[0, 3, 2, 1], [4, 5, 6, 7], [0, 1, 5, 4], [1, 2, 6, 5], [2, 3, 7, 6], [3, 0, 4, 7]]
    ),
}


def boundary(code: int, table: Array) -> Array:
    """Faces that only one element of the table has, (faces, nodes per face)."""
    faces = table[:, FACES[code]].reshape(-1, FACES[code].shape[1])
    corners = 4 if code == HEX8 else 3
    keys = np.sort(faces[:, :corners], axis=1)
    _, index, counts = np.unique(keys, axis=0, return_index=True, return_counts=True)
    outer: Array = faces[index[counts == 1]]
    return outer


def faces_where(mesh: Mesh, condition: Condition) -> Array:
    """Boundary faces of a mesh of one type whose nodes all meet the condition."""
    faces = boundary(*mesh.only())
    inside = np.zeros(len(mesh.nodes), bool)
    inside[mesh.where(condition)] = True
    return faces[inside[faces].all(axis=1)]
