"""A part as its file tells it, and the mesh of the solver made from it.

A reader fills a `Part` with the labels of the file. `make_mesh` turns that into a `Mesh`: nodes
numbered from 1 in the order of their labels, unused ones dropped, coordinates rounded to the
32-bit numbers that the solver reads, elements of positive volume.
"""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field

import numpy as np

from vkctl.directory.formats import HEX8, NODES_PER_TYPE, TET4, TET10, Array
from vkctl.directory.model import Elements
from vkctl.shapes import geometry

TYPE_NAMES = {
    TET4: "4-node tetrahedra",
    TET10: "10-node tetrahedra",
    HEX8: "8-node hexahedra",
}
_SHOWN = 5  # labels named in a message


class PartError(Exception):
    """A part that can't be turned into a model; the text says why and what helps."""


@dataclass
class Part:
    """Mesh in the labels of its file.

    `solids` holds (type code, element labels (k,), rows of node labels (k, nodes)) in the order
    of the file, nodes already in the solver's order. `surfaces` holds for each name the node
    labels of surface elements, arrays of 3, 4 or 6 columns. `node_data` has one value per entry
    of `labels`.
    """

    labels: Array
    points: Array  # float64 (n, 3)
    solids: list[tuple[int, Array, Array]]
    node_sets: dict[str, Array] = field(default_factory=dict)
    element_sets: dict[str, Array] = field(default_factory=dict)
    surfaces: dict[str, list[Array]] = field(default_factory=dict)
    node_data: dict[str, Array] = field(default_factory=dict)
    unsupported: dict[str, int] = field(default_factory=dict)  # element type and count
    notes: list[str] = field(default_factory=list)


@dataclass
class Mesh:
    """Mesh in the solver's numbers. Sets hold 1-based numbers, each once, ascending.

    `surfaces` are the surface elements of the part as rows of node numbers: which solid faces
    they lie on is found when a face set is made of them. `node_data` has one value per node.
    """

    nodes: Array  # float64 (n, 3), exact in float32
    elements: Elements
    node_sets: dict[str, Array] = field(default_factory=dict)
    element_sets: dict[str, Array] = field(default_factory=dict)
    surfaces: dict[str, list[Array]] = field(default_factory=dict)
    node_data: dict[str, Array] = field(default_factory=dict)
    notes: list[str] = field(default_factory=list)

    @property
    def diagonal(self) -> float:
        """Length of the diagonal of the bounding box."""
        return float(np.linalg.norm(np.ptp(self.nodes, axis=0)))


def counted(count: int, what: str) -> str:
    """Count and plural of a noun that takes an s: "1 node", "2 nodes"."""
    return f"{count} {what}" + ("" if count == 1 else "s")


def labelled(labels: Iterable[int]) -> str:
    """The first few labels, for messages."""
    shown = [int(label) for label in labels]
    dots = ", ..." if len(shown) > _SHOWN else ""
    return ", ".join(str(label) for label in shown[:_SHOWN]) + dots


def distinct(numbers: Array) -> Array:
    """The numbers in ascending order, each once.

    For whole numbers `numpy.unique` goes through a hash table, many times slower than this.
    """
    flat = np.asarray(numbers).ravel()
    if np.all(flat[1:] > flat[:-1]):
        return flat
    ordered = np.sort(flat)
    kept: Array = ordered[np.concatenate(([True], ordered[1:] != ordered[:-1]))]
    return kept


class Lookup:
    """Positions of labels; the labels need not be dense nor sorted."""

    def __init__(self, labels: Array, what: str) -> None:
        self.what = what
        self.order = np.argsort(labels, kind="stable")
        self.sorted = np.asarray(labels)[self.order]
        self.dense = False
        if len(labels):
            double = self.sorted[1:][self.sorted[1:] == self.sorted[:-1]]
            if len(double):
                raise PartError(f"{what} labels occur twice: {labelled(double)}")
            self.dense = bool(self.sorted[-1] - self.sorted[0] + 1 == len(labels))

    def positions(self, labels: Array) -> Array:
        """Positions (0-based) of `labels`; PartError names those that don't exist."""
        wanted = np.asarray(labels)
        if not len(self.sorted):
            place = np.zeros(wanted.shape, np.int64)
            missing = np.ones(wanted.shape, np.bool_)
        elif self.dense:
            place = wanted - self.sorted[0]
            missing = (place < 0) | (place >= len(self.sorted))
        else:
            place = np.minimum(np.searchsorted(self.sorted, wanted), len(self.sorted) - 1)
            missing = self.sorted[place] != wanted
        if np.any(missing):
            bad = distinct(wanted[missing])
            raise PartError(f"{self.what}s that don't exist are referred to: {labelled(bad)}")
        return self.order[place]

    def known(self, labels: Array) -> Array:
        """Those of `labels` that exist."""
        return labels[np.isin(labels, self.sorted)]


def make_mesh(part: Part, *, scale: float = 1.0, reorder: bool = True) -> Mesh:
    """Mesh of a part; coordinates are multiplied by `scale`.

    Elements of negative volume are turned round by exchanging nodes if `reorder`, otherwise
    refused. PartError for a part without solid elements, with element types that the solver
    doesn't have, with nodes that don't exist, and for elements that are flat or folded.
    """
    _refuse_unsupported(part)
    lookup = Lookup(part.labels, "node")
    used = np.zeros(len(part.labels), np.bool_)
    blocks = [(code, lookup.positions(rows)) for code, _, rows in part.solids]
    for _, rows in blocks:
        used[rows] = True
    rank = _ranks(part.labels, used)
    order = np.flatnonzero(used)[np.argsort(part.labels[used], kind="stable")]
    nodes = _rounded(part.points[order] * scale)
    element_labels = np.concatenate([labels for _, labels, _ in part.solids])
    elements = _elements([(code, rank[rows]) for code, rows in blocks])
    notes = list(part.notes)
    if dropped := len(used) - len(nodes):
        notes.append(f"{counted(dropped, 'node')} without a solid element left out")
    notes += _orient(nodes, elements, element_labels, reorder)
    mesh = Mesh(nodes, elements, notes=notes)
    _transfer_sets(part, mesh, lookup, rank, element_labels)
    mesh.node_data = {name: np.asarray(v)[order] for name, v in part.node_data.items()}
    return mesh


def _refuse_unsupported(part: Part) -> None:
    if part.unsupported:
        found = ", ".join(f"{count} {name}" for name, count in part.unsupported.items())
        raise PartError(
            f"the part holds elements that the solver doesn't have: {found}; it has 4-node and "
            "10-node tetrahedra and 8-node hexahedra, so mesh it with those"
        )
    if not sum(len(labels) for _, labels, _ in part.solids):
        flat = sum(len(rows) for tables in part.surfaces.values() for rows in tables)
        found = f" (but {counted(flat, 'surface element')})" if flat else ""
        raise PartError(f"the part has no solid elements{found}; mesh its volume")


def _ranks(labels: Array, used: Array) -> Array:
    """Node number (1-based, by ascending label) of each position, 0 for unused ones."""
    rank = np.zeros(len(labels), np.int32)
    kept = np.flatnonzero(used)
    rank[kept[np.argsort(labels[kept], kind="stable")]] = np.arange(1, len(kept) + 1)
    return rank


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
    part: Part, mesh: Mesh, lookup: Lookup, rank: Array, element_labels: Array
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


# --- orientation -----------------------------------------------------------------------------

# The same element with two corners exchanged: positions of the nodes.
_TURNED = {
    TET4: [0, 2, 1, 3],
    TET10: [0, 2, 1, 3, 6, 5, 4, 7, 9, 8],
    HEX8: [4, 5, 6, 7, 0, 1, 2, 3],
}
_FLAT = 1e-6  # volume over (longest edge)^3 below which an element counts as flat


def _orient(nodes: Array, elements: Elements, labels: Array, reorder: bool) -> list[str]:
    """Turn inverted elements round in place; notes on what was done."""
    notes = []
    for code in (TET4, TET10, HEX8):
        table = elements.table(code)
        if not len(table):
            continue
        named = labels[elements.type_codes == code]
        corners = table[:, : 8 if code == HEX8 else 4]
        volume, size = _corner_volumes(nodes, corners)
        flat = np.abs(volume) <= _FLAT * size**3
        if np.any(flat):
            raise PartError(
                f"{np.count_nonzero(flat)} of the {TYPE_NAMES[code]} have no volume: elements "
                f"{labelled(named[flat])}"
            )
        if len(inverted := np.flatnonzero(volume < 0)):
            words = f"{len(inverted)} of the {TYPE_NAMES[code]} have their nodes in inverted order"
            if not reorder:
                raise PartError(f"{words}: elements {labelled(named[inverted])}")
            table[inverted] = table[inverted][:, _TURNED[code]]
            notes.append(f"{words}; reordered")
        if code == TET10:
            _check_middles(nodes, table, named)
        if code != TET4:
            notes += _check_jacobian(nodes, table, code, named)
    return notes


def _corner_volumes(nodes: Array, corners: Array) -> tuple[Array, Array]:
    """(signed volume, longest edge from the first corner) of tetrahedra or hexahedra."""
    first = nodes[corners[:, 0] - 1]
    if corners.shape[1] == 4:
        a, b, c = (nodes[corners[:, k] - 1] - first for k in (1, 2, 3))
        size = np.sqrt(np.max([np.einsum("ij,ij->i", e, e) for e in (a, b, c)], axis=0))
        return np.einsum("ij,ij->i", a, np.cross(b, c)) / 6, size
    volume = determinants(nodes, corners, HEX8, _INNER[HEX8]).sum(axis=1)
    edges = [np.linalg.norm(nodes[corners[:, k] - 1] - first, axis=1) for k in (1, 3, 4)]
    return volume, np.max(edges, axis=0)


def _check_middles(nodes: Array, table: Array, labels: Array) -> None:
    """Refuse mid-edge nodes that are nowhere near their edge: a wrong order of nodes."""
    far = np.zeros(len(table), np.bool_)
    for place, (i, j) in enumerate(geometry.TET10_EDGES, 4):
        a, b, middle = (nodes[table[:, k] - 1] for k in (i, j, place))
        length = np.linalg.norm(b - a, axis=1)
        far |= np.linalg.norm(middle - (a + b) / 2, axis=1) > 0.5 * length
    if np.any(far):
        raise PartError(
            f"{np.count_nonzero(far)} of the 10-node tetrahedra have mid-edge nodes far off their "
            f"edges: elements {labelled(labels[far])}; is the order of the mid-edge nodes right?"
        )


# Points where the Jacobian determinant must be positive: the solver integrates at points like
# these. At the nodes it may vanish without harm, which is worth a note.
_INNER = {
    TET10: np.array(
        [(0.25, 0.25, 0.25)]
        + [tuple(0.5854102 if i == k else 0.1381966 for i in (1, 2, 3)) for k in range(4)]
    ),
    HEX8: geometry.HEX8_SIGNS / np.sqrt(3.0),
}
_OUTER = {
    TET10: np.array(((0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)), np.float64),
    HEX8: geometry.HEX8_SIGNS,
}
_BLOCK = 1 << 13  # elements at a time
_GRADIENTS = {TET10: geometry.tet10_gradients, HEX8: geometry.hex8_gradients}


def _check_jacobian(nodes: Array, table: Array, code: int, labels: Array) -> list[str]:
    if code == TET10:  # straight elements have the constant determinant of their corners
        bent = np.flatnonzero(curved(nodes, table))
        table, labels = table[bent], labels[bent]
    inner = determinants(nodes, table, code, _INNER[code]).min(axis=1)
    if np.any(folded := inner <= 0):
        raise PartError(
            f"{np.count_nonzero(folded)} of the {TYPE_NAMES[code]} are folded (the Jacobian is "
            f"negative inside): elements {labelled(labels[folded])}; improve the mesh"
        )
    outer = determinants(nodes, table, code, _OUTER[code]).min(axis=1)
    if np.any(poor := outer <= 0):
        where = f"elements {labelled(labels[poor])}"
        words = f"{np.count_nonzero(poor)} of the {TYPE_NAMES[code]} are badly shaped: {where}"
        return [words]
    return []


def curved(nodes: Array, table: Array) -> Array:
    """Mask of the 10-node tetrahedra with an edge that isn't straight or unevenly divided.

    What the rounding of coordinates to 32 bits can do doesn't count.
    """
    mask = np.zeros(len(table), np.bool_)
    rounding = 1.2e-7 * float(np.abs(nodes).max(initial=0.0))
    for place, (i, j) in enumerate(geometry.TET10_EDGES, 4):
        a, b, middle = (nodes[table[:, k] - 1] for k in (i, j, place))
        off = np.abs(middle - (a + b) / 2).max(axis=1)
        mask |= off > 1e-6 * np.abs(b - a).max(axis=1) + rounding
    return mask


def determinants(nodes: Array, table: Array, code: int, points: Array) -> Array:
    """Jacobian determinants (elements, points) of connectivity rows at parameter points (p, 3).

    For 10-node tetrahedra and hexahedra; done block by block, which keeps to the caches.
    """
    gradients = np.array([_GRADIENTS[code](point) for point in points])
    factors = gradients.transpose(1, 2, 0).reshape(table.shape[1], -1)
    found = np.empty((len(table), len(points)))
    for first in range(0, len(table), _BLOCK):
        rows = table[first : first + _BLOCK]
        corners = nodes[rows - 1].transpose(0, 2, 1)
        jacobian = (corners @ factors).reshape(len(rows), 3, 3, len(points))
        x, y, z = (jacobian[:, k] for k in range(3))
        found[first : first + _BLOCK] = (
            x[:, 0] * (y[:, 1] * z[:, 2] - y[:, 2] * z[:, 1])
            + x[:, 1] * (y[:, 2] * z[:, 0] - y[:, 0] * z[:, 2])
            + x[:, 2] * (y[:, 0] * z[:, 1] - y[:, 1] * z[:, 0])
        )
    return found
