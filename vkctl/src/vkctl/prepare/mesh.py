"""The mesh of the solver, made from a part.

`make_mesh` turns a `Part` into a `PartMesh`: nodes numbered from 1 in the order of their labels, or
to suit the iterative mode where it was meshed here, unused ones dropped, coordinates rounded to the
32-bit numbers that the solver reads, elements of positive volume.
"""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted
from vkctl.shapes.elements import Elements
from vkctl.shapes.ordering import from_both_ends, in_colours
from vkctl.shapes.topology import HEX8, NODES_PER_TYPE, TET4, TET10

from .orientation import orient
from .part import SPLITTING, Lookup, Part, PartError


@dataclass
class PartMesh:
    """Mesh in the solver's numbers. Sets hold 1-based numbers, each once, ascending.

    `surfaces` are the surface elements of the part as rows of node numbers: which solid faces
    they lie on is found when a face set is made of them. `node_data` has one value per node.
    """

    nodes: Array  # float64 (n, 3), exact in float32
    elements: Elements
    node_labels: Array  # int64 (n,), what the part's file calls each node, or Gmsh that meshed it
    element_labels: Array  # int64 (m,)
    node_sets: dict[str, Array] = field(default_factory=dict)
    element_sets: dict[str, Array] = field(default_factory=dict)
    surfaces: dict[str, list[Array]] = field(default_factory=dict)
    node_data: dict[str, Array] = field(default_factory=dict)
    notes: list[str] = field(default_factory=list)

    @property
    def diagonal(self) -> float:
        """Length of the diagonal of the bounding box."""
        return float(np.linalg.norm(np.ptp(self.nodes, axis=0)))


def make_mesh(part: Part, *, scale: float = 1.0, reorder: bool = True) -> PartMesh:
    """Mesh of a part; coordinates are multiplied by `scale`.

    Elements of negative volume are turned round by exchanging nodes if `reorder`, otherwise
    refused. PartError for a part without solid elements, with element types that the solver
    doesn't have, with nodes that don't exist, and for elements that are flat or folded.
    """
    refuse_unsupported(part)
    lookup = Lookup(part.labels, "node")
    used = np.zeros(len(part.labels), np.bool_)
    for _, _, rows in part.solids:
        used[lookup.positions(rows)] = True
    order = np.flatnonzero(used)[np.argsort(part.labels[used], kind="stable")]
    if part.meshed:
        order = _order_of_ours(part, lookup, order)
    rank = np.zeros(len(used), np.int32)  # number of each position, 0 for unused ones
    rank[order] = np.arange(1, len(order) + 1)
    nodes = _rounded(part.points[order] * scale)
    blocks = [(code, labels, rank[lookup.positions(rows)]) for code, labels, rows in part.solids]
    if part.meshed:
        blocks = [_by_lowest_node(*block) for block in _united(blocks)]
    element_labels = np.concatenate([labels for _, labels, _ in blocks])
    elements = _elements([(code, rows) for code, _, rows in blocks])
    notes = list(part.notes)
    if dropped := len(used) - len(nodes):
        notes.append(f"{counted(dropped, 'node')} without a solid element left out")
    notes += orient(nodes, elements, element_labels, reorder)
    mesh = PartMesh(nodes, elements, part.labels[order], element_labels, notes=notes)
    _transfer_sets(part, mesh, lookup, rank, element_labels)
    mesh.node_data = {name: np.asarray(v)[order] for name, v in part.node_data.items()}
    return mesh


def refuse_unsupported(part: Part) -> None:
    if part.unsupported:
        found = ", ".join(f"{count} {name}" for name, count in part.unsupported.items())
        raise PartError(
            f"the part holds elements that the solver doesn't have: {found}; it has 4-node and "
            "10-node tetrahedra and 8-node hexahedra, so mesh it with those, or have wedges, "
            f"pyramids and hexahedra split into tetrahedra: {SPLITTING}"
        )
    if not sum(len(labels) for _, labels, _ in part.solids):
        flat = sum(len(rows) for tables in part.surfaces.values() for rows in tables)
        found = f" (but {counted(flat, 'surface element')})" if flat else ""
        raise PartError(f"the part has no solid elements{found}; mesh its volume")


def _order_of_ours(part: Part, lookup: Lookup, chosen: Array) -> Array:
    """Positions of the chosen nodes of a part that was meshed here, in the order of their numbers.

    Meshes of hexahedra alone have colours; for tetrahedra no order was found that needs fewer
    iterations than those along the part.
    """
    if any(code != HEX8 for code, _, _ in part.solids):
        return chosen[from_both_ends(part.points[chosen])]
    place = np.zeros(len(part.labels), np.int32)
    place[chosen] = np.arange(len(chosen), dtype=np.int32)
    rows = np.concatenate([place[lookup.positions(rows)] for _, _, rows in part.solids])
    return chosen[in_colours(part.points[chosen], rows)]


_Block = tuple[int, Array, Array]  # type code, labels (k,), rows of node numbers (k, nodes)


def _united(blocks: list[_Block]) -> list[_Block]:
    """One block for each type of element."""
    united = []
    for code in dict.fromkeys(code for code, _, _ in blocks):
        same = [(labels, rows) for c, labels, rows in blocks if c == code]
        labels, rows = (np.concatenate(pieces) for pieces in zip(*same, strict=True))
        united.append((code, labels, rows))
    return united


def _by_lowest_node(code: int, labels: Array, rows: Array) -> _Block:
    """Elements in the order of their nodes: successive ones lie side by side in memory."""
    order = np.argsort(rows.min(axis=1), kind="stable")
    return code, labels[order], rows[order]


def _rounded(points: Array) -> Array:
    if not np.all(np.isfinite(points)):
        raise PartError("the part has node coordinates that aren't numbers")
    with np.errstate(over="ignore"):
        nodes = points.astype(np.float32).astype(np.float64)
    if not np.all(np.isfinite(nodes)):
        raise PartError("the part has node coordinates too large for 32-bit numbers")
    return nodes


def _elements(blocks: list[tuple[int, Array]]) -> Elements:
    """Elements in the order of the blocks; material 1 for all."""
    sizes = [len(rows) for _, rows in blocks]
    codes = np.repeat(np.array([code for code, _ in blocks], np.int16), sizes)
    rows_of = np.zeros(len(codes), np.int32)
    tables = {}
    for code, width in NODES_PER_TYPE.items():
        same = [rows for c, rows in blocks if c == code]
        tables[code] = np.concatenate(same) if same else np.empty((0, width), np.int32)
        rows_of[codes == code] = np.arange(1, len(tables[code]) + 1)
    return Elements(
        codes, np.ones(len(codes), np.int16), rows_of, tables[TET4], tables[HEX8], tables[TET10]
    )


def _transfer_sets(
    part: Part, mesh: PartMesh, lookup: Lookup, rank: Array, element_labels: Array
) -> None:
    for name, labels in part.node_sets.items():
        numbers = distinct(rank[lookup.positions(labels)])
        mesh.node_sets[name] = numbers[numbers > 0]
    if part.element_sets:
        elements = Lookup(element_labels, "element")
        for name, labels in part.element_sets.items():
            mesh.element_sets[name] = distinct(elements.positions(labels)) + 1
    for name, tables in part.surfaces.items():
        numbered = [rank[lookup.positions(rows)] for rows in tables if len(rows)]
        mesh.surfaces[name] = [rows[np.all(rows > 0, axis=1)] for rows in numbered]
        if left := sum(len(a) - len(b) for a, b in zip(numbered, mesh.surfaces[name], strict=True)):
            mesh.notes.append(
                f"surface {name!r}: {counted(left, 'surface element')} off the solids left out"
            )
