"""Elements turned so that their volume is positive; flat and folded ones refused."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.elements import Elements
from vkctl.shapes.measures import NEARLY_NO_VOLUME, curved, determinants
from vkctl.shapes.topology import (
    CORNERS_PER_TYPE,
    HEX8,
    HEX8_SIGNS,
    TET4,
    TET10,
    TET10_EDGES,
    TURNED,
    TYPE_NAMES,
    TYPES,
)

from .part import PartError, labelled


def orient(nodes: Array, elements: Elements, labels: Array, reorder: bool) -> list[str]:
    """Turn inverted elements round in place; notes on what was done."""
    notes = []
    for code in TYPES:
        table = elements.table(code)
        if not len(table):
            continue
        named = labels[elements.type_codes == code]
        corners = table[:, : CORNERS_PER_TYPE[code]]
        volume, size = _corner_volumes(nodes, corners)
        flat = np.abs(volume) <= NEARLY_NO_VOLUME * size**3
        if np.any(flat):
            raise PartError(
                f"{np.count_nonzero(flat)} of the {TYPE_NAMES[code]} have no volume: elements "
                f"{labelled(named[flat])}"
            )
        if len(inverted := np.flatnonzero(volume < 0)):
            words = f"{len(inverted)} of the {TYPE_NAMES[code]} have their nodes in inverted order"
            if not reorder:
                raise PartError(f"{words}: elements {labelled(named[inverted])}")
            table[inverted] = table[inverted][:, TURNED[code]]
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
    for place, (i, j) in enumerate(TET10_EDGES, 4):
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
    HEX8: HEX8_SIGNS / np.sqrt(3.0),
}

_OUTER = {
    TET10: np.array(((0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)), np.float64),
    HEX8: HEX8_SIGNS,
}


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
