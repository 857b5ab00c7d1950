"""A part with all its cells cut into 4-node tetrahedra, which fit together."""

from __future__ import annotations

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted
from vkctl.shapes.cells import CELL_CORNERS, CELL_NAMES, cut, triangles_of
from vkctl.shapes.topology import TET4, TET10

from .part import Lookup, Part, PartError, labelled

_PARTS_LABELS = 100  # element 21 becomes 2101, 2102, ...
_SHOWN = 5  # sets named in a note
_WIDEST = 6  # columns of the surface elements that lie on faces of the solver's elements
_SECOND_ORDER = 10  # nodes that a cell of second order has at least


def split(part: Part) -> Part:
    """The part cut into 4-node tetrahedra; a note tells what changed.

    Mid-side nodes are dropped, 10-node tetrahedra lose theirs too. Sets follow: an element set
    has all tetrahedra of its elements, a surface the triangles that its faces are cut into, a node
    set also the centre nodes of cells all corners of which it has. A part of tetrahedra alone is
    left as it is. PartError for cells so warped that no cut of theirs is valid.
    """
    if all(code in (TET4, TET10) for code, _, _ in part.solids):
        part.notes.append("split: there are tetrahedra alone, which are left as they are")
        for name, tables in part.surfaces.items():
            part.surfaces[name] = [t[:, :4] if t.shape[1] > _WIDEST else t for t in tables]
        return part
    lookup = Lookup(part.labels, "node")
    Lookup(np.concatenate([own for _, own, _ in part.solids]), "element")
    cutting = _Cutting(part, lookup)
    solids = [cutting.block(*block) for block in part.solids]
    result = Part(
        np.concatenate((part.labels, *cutting.added)),
        np.concatenate((part.points, *(part.points[c].mean(axis=1) for c in cutting.corners))),
        solids,
        unsupported=part.unsupported,
        notes=[*part.notes, _told(part, solids, sum(map(len, cutting.added)))],
        meshed=part.meshed,
        deck=part.deck,
    )
    owners = np.concatenate([labels // _PARTS_LABELS for _, labels, _ in solids])
    result.cells = owners
    parts = np.concatenate([labels for _, labels, _ in solids])
    for name, labels in part.element_sets.items():
        result.element_sets[name] = parts[np.isin(owners, labels)]
    for name, tables in part.surfaces.items():
        result.surfaces[name] = [_triangles(table) for table in tables]
    for name, labels in part.node_sets.items():
        inside = np.isin(part.labels, labels)
        within = [
            added[inside[corners].all(axis=1)]
            for added, corners in zip(cutting.added, cutting.corners, strict=True)
        ]
        result.node_sets[name] = np.concatenate((labels, *within))
    for name, values in part.node_data.items():
        means = [values[corners].mean(axis=1) for corners in cutting.corners]
        result.node_data[name] = np.concatenate((values, *means))
    return result


class _Cutting:
    """Blocks of cells cut one after the other, and the centre nodes that they take."""

    def __init__(self, part: Part, lookup: Lookup) -> None:
        self.part = part
        self.lookup = lookup
        self.order = np.argsort(part.labels, kind="stable")
        self.rank = np.empty(len(self.order), np.int64)
        self.rank[self.order] = np.arange(len(self.order))
        self.points = part.points[self.order]  # by ascending label
        self.next = int(part.labels.max(initial=0)) + 1
        self.added: list[Array] = []  # labels of centre nodes
        self.corners: list[Array] = []  # positions of the corners around them

    def block(self, code: int, own: Array, rows: Array) -> tuple[int, Array, Array]:
        positions = self.lookup.positions(rows[:, : CELL_CORNERS[code]])
        _refuse_large(own)
        first = len(self.points)
        centres = first + np.arange(len(rows))
        try:
            tetrahedra, cells, around = cut(code, self.rank[positions], self.points, centres)
        except ValueError as error:
            label = int(own[error.args[0]])
            raise PartError(
                f"element {label} of the {CELL_NAMES[code]} is so warped that it can't be split "
                "into tetrahedra; mesh it anew there"
            ) from None
        labels = np.full(len(rows), -1)
        labels[around] = self.next + np.arange(np.count_nonzero(around))
        self.next += int(np.count_nonzero(around))
        self.added.append(labels[around])
        self.corners.append(positions[around])
        names = np.concatenate((self.part.labels[self.order], labels))
        places = np.arange(len(cells)) - np.searchsorted(cells, cells)
        return TET4, own[cells] * _PARTS_LABELS + places + 1, names[tetrahedra]


def _refuse_large(labels: Array) -> None:
    most = np.iinfo(np.int64).max // _PARTS_LABELS - 1
    if len(bad := labels[(labels > most) | (labels < 0)]):
        raise PartError(f"element labels too large to be split: {labelled(distinct(bad))}")


def _triangles(table: Array) -> Array:
    """Surface elements as the triangles that the faces below them are cut into."""
    corners = 3 if table.shape[1] in (3, 6) else 4
    found: Array = triangles_of(table[:, :corners]).reshape(-1, 3)
    return found


def _told(part: Part, solids: list[tuple[int, Array, Array]], centres: int) -> str:
    counts: dict[int, int] = {}
    for code, own, _ in part.solids:
        counts[code] = counts.get(code, 0) + len(own)
    cells = ", ".join(f"{count} {CELL_NAMES[code]}" for code, count in counts.items())
    total = sum(len(own) for _, own, _ in solids)
    text = f"split: {cells} became {total} 4-node tetrahedra"
    whole = distinct(np.concatenate([rows.ravel() for _, _, rows in part.solids]))
    corners = [rows[:, : CELL_CORNERS[code]].ravel() for code, _, rows in part.solids]
    dropped = np.setdiff1d(whole, np.concatenate(corners))
    if len(dropped):
        text += f"; {counted(len(dropped), 'mid-side node')} dropped"
    poorer = [repr(n) for n, labels in part.node_sets.items() if np.any(np.isin(labels, dropped))]
    if poorer:
        dots = ", ..." if len(poorer) > _SHOWN else ""
        text += f", also from the node sets {', '.join(poorer[:_SHOWN])}{dots}"
    if centres:
        text += f"; {counted(centres, 'node')} added in the middle of cells"
    lost = any(rows.shape[1] >= _SECOND_ORDER for _, _, rows in part.solids)
    order = "of first order, not of second, and stiffer" if lost else "stiffer"
    return f"{text}; they are {order} in bending than what they replace: take a finer mesh"
