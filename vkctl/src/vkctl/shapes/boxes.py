"""Structured boxes of tetrahedra and hexahedra, from a single cell to millions of nodes."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from itertools import permutations
from typing import Literal

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .elements import Elements
from .faces import faces_within
from .forces import Traction, consistent_forces
from .measures import element_centroids, select_nodes
from .topology import HEX8, HEX8_SIGNS, NODES_PER_TYPE, TET4, TET10, TET10_EDGES

Kind = Literal["tet4", "hex8", "tet10", "mixed"]
Side = Literal["x-", "x+", "y-", "y+", "z-", "z+"]

# Steps from a cell's first corner to its eight corners, in the node order of the hexahedron.
_CORNERS = ((HEX8_SIGNS + 1) / 2).astype(np.int64)
LARGEST_DISTORTION = 0.15


def _cell_tetrahedra() -> Array:
    """Corner steps (6, 4, 3) of the six tetrahedra around a cell's main diagonal (Kuhn 1960).

    Opposite cell faces are cut along the same diagonal, so neighbouring cells fit together. Each
    tetrahedron walks along the axes in one of the six orders; the odd orders are turned round.
    """
    tetrahedra = []
    for order in permutations(range(3)):
        path = np.zeros((4, 3), np.int64)
        for step, axis in enumerate(order, 1):
            path[step:, axis] = 1
        odd = np.linalg.det(path[1:]) < 0
        tetrahedra.append(path[[0, 1, 3, 2]] if odd else path)
    return np.array(tetrahedra)


@dataclass
class Box:
    """Mesh of a box. Node numbers run along x fastest, then y, then z, unless `renumbered`."""

    nodes: Array  # float64 (n, 3)
    elements: Elements
    lattice: Array  # int32 (n, 3): steps from the origin corner, before any distortion
    steps: tuple[int, int, int]  # the lattice's size

    def face(self, side: Side) -> Array:
        """Numbers of the nodes on a side such as "x-", also when the box is mapped."""
        axis = "xyz".index(side[0])
        place = {"-": 0, "+": self.steps[axis]}[side[1:]]
        return np.flatnonzero(self.lattice[:, axis] == place) + 1

    def edge(self, first: Side, second: Side) -> Array:
        """Numbers of the nodes that two sides share."""
        return np.intersect1d(self.face(first), self.face(second))

    def corner(self, x: Literal["x-", "x+"], y: Literal["y-", "y+"], z: Literal["z-", "z+"]) -> int:
        """Number of a corner node."""
        return int(np.intersect1d(self.edge(x, y), self.face(z))[0])

    def select(
        self,
        x: float | tuple[float, float] | None = None,
        y: float | tuple[float, float] | None = None,
        z: float | tuple[float, float] | None = None,
    ) -> Array:
        """Numbers of the nodes at coordinates or in closed ranges."""
        return select_nodes(self.nodes, x, y, z)

    def centroids(self) -> Array:
        """Mean of the corners of each element, (m, 3)."""
        return element_centroids(self.nodes, self.elements)

    def traction(self, side: Side, traction: Traction) -> tuple[Array, Array]:
        """Consistent nodal forces of a load on a side: (node numbers, forces (k, 3)).

        `traction` as in `consistent_forces`; the result fits `LoadCase.load(*...)`.
        """
        return consistent_forces(self.nodes, faces_within(self.elements, self.face(side)), traction)


def box(
    kind: Kind,
    cells: tuple[int, int, int],
    size: tuple[float, float, float] = (1.0, 1.0, 1.0),
    origin: tuple[float, float, float] = (0.0, 0.0, 0.0),
    *,
    distortion: float = 0.0,
    mapping: Callable[[Array], Array] | None = None,
    curved: bool = False,
    materials: npt.ArrayLike = 1,
) -> Box:
    """Box of `cells` cells: one hexahedron or six tetrahedra each, all of positive volume.

    "mixed" makes hexahedra, 4-node and 10-node tetrahedra in three layers along x (at least
    three cells); the layers share nodes, but hexahedron and tetrahedron faces don't interpolate
    alike, and mid-edge nodes on a layer's border hang. Elements come cell by cell, the cells in
    the order of their nodes; in a mixed box tetrahedra of 4 nodes first, then hexahedra, then
    tetrahedra of 10 nodes.

    `distortion` shifts inner nodes smoothly by up to that part of the size, 0.15 at most, and
    leaves the sides plane. `mapping` takes and gives all points (n, 3) and comes last. Mid-edge
    nodes stay halfway between their corners unless `curved`, which maps them like the others.
    `materials` is one number for all or one per element.
    """
    if min(cells) < 1 or (kind == "mixed" and cells[0] < 3):
        raise ValueError(f"a {kind} box can't have {cells} cells")
    if abs(distortion) > LARGEST_DISTORTION:
        raise ValueError(f"distortion {distortion} inverts elements, limit {LARGEST_DISTORTION}")
    step = 2 if kind in ("tet10", "mixed") else 1
    steps = (step * cells[0], step * cells[1], step * cells[2])
    tables = _lattice_tables(kind, cells, step)
    lattice, tables = _compact(tables, steps)
    parts = lattice / np.array(steps)
    points = np.array(origin) + np.array(size) * (parts + distortion * _shift(parts))
    if mapping is not None:
        points = np.asarray(mapping(points), np.float64)
    tet10 = tables["tet10"]
    if len(tet10) and not curved:
        points[tet10[:, 4:] - 1] = points[tet10[:, TET10_EDGES] - 1].mean(axis=2)
    elements = Elements.from_tables(**tables, materials=materials)
    return Box(points, elements, lattice, steps)


def renumbered(part: Box, order: Array) -> Box:
    """The box with its nodes in another order of their positions, and elements by lowest nodes.

    The box is of elements of one type.
    """
    number = np.empty(len(order), np.int32)
    number[order] = np.arange(1, len(order) + 1, dtype=np.int32)
    old = part.elements
    tables = {name: number[getattr(old, name) - 1] for name in _WIDTHS}
    rows = next(table for table in tables.values() if len(table))
    by_lowest = np.argsort(rows.min(axis=1), kind="stable")
    tables = {name: table[by_lowest] if len(table) else table for name, table in tables.items()}
    elements = Elements.from_tables(**tables, materials=old.materials[by_lowest])
    return Box(part.nodes[order], elements, part.lattice[order], part.steps)


def _shift(parts: Array) -> Array:
    """Smooth shift of points of the unit cube that vanishes on its sides."""
    bubble = np.sin(np.pi * parts).prod(axis=1)
    shift: Array = bubble[:, None] * np.array((1.0, -0.8, 0.6))
    return shift


def _lattice_tables(kind: Kind, cells: tuple[int, int, int], step: int) -> dict[str, Array]:
    """Connectivity tables of lattice numbers, 1-based."""
    nx, ny, nz = cells
    if kind == "mixed":
        third, two = nx // 3, 2 * (nx // 3)
        layers = {"hex8": (0, third), "tet4": (third, two), "tet10": (two, nx)}
    else:
        layers = {kind: (0, nx)}
    stride = np.array((1, step * nx + 1, (step * nx + 1) * (step * ny + 1)))
    tables = {name: np.empty((0, w), np.int64) for name, w in _WIDTHS.items()}
    for name, (low, high) in layers.items():
        k, j, i = np.meshgrid(np.arange(nz), np.arange(ny), np.arange(low, high), indexing="ij")
        first = step * (np.column_stack((i.ravel(), j.ravel(), k.ravel())) @ stride) + 1
        offsets = _element_steps(name, step) @ stride
        tables[name] = (first[:, None, None] + offsets).reshape(-1, offsets.shape[-1])
    return tables


_WIDTHS = {
    "tet4": NODES_PER_TYPE[TET4],
    "hex8": NODES_PER_TYPE[HEX8],
    "tet10": NODES_PER_TYPE[TET10],
}


def _element_steps(name: str, step: int) -> Array:
    """Lattice steps (elements per cell, nodes, 3) of a cell's elements."""
    if name == "hex8":
        return step * _CORNERS[None]
    corners = step * _cell_tetrahedra()
    if name == "tet4":
        return corners
    mids = corners[:, TET10_EDGES].sum(axis=2) // 2
    return np.concatenate((corners, mids), axis=1)


def _compact(
    tables: dict[str, Array], steps: tuple[int, int, int]
) -> tuple[Array, dict[str, Array]]:
    """Drop lattice points without an element: (lattice steps of the nodes, tables of nodes)."""
    sx, sy, sz = steps
    used = np.zeros((sx + 1) * (sy + 1) * (sz + 1), np.bool_)
    for table in tables.values():
        used[table - 1] = True
    number = np.cumsum(used, dtype=np.int32)
    place = np.flatnonzero(used)
    rest, x = np.divmod(place, sx + 1)
    z, y = np.divmod(rest, sy + 1)
    lattice = np.column_stack((x, y, z)).astype(np.int32)
    return lattice, {name: number[table - 1] for name, table in tables.items()}
