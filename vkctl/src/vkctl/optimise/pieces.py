"""The pieces that a level field leaves of the mesh, and which of them carry a load to a support.

Material hangs together as its surface is cut out (`view/grid.py`): along the edges of the
tetrahedra that the elements are looked at as, from node to node with a level above zero.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.basics.words import place_words
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import LoadCase, Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.topology import HEX8, HEX8_EDGES, HEX8_FACES, TET4, TET10, TET10_EDGES, TYPES

_VOID = -1  # piece of a node without material


@dataclass(frozen=True)
class Acting:
    """What a load case does to the mesh; nodes are 0-based."""

    title: str
    held: Array  # nodes with a support
    loaded: Array  # nodes with a force, a temperature or a displacement that isn't zero
    patch: Array  # of each loaded node: those that elements join are one


@dataclass(frozen=True)
class Joints:
    """What joins the nodes of a mesh, and what its load cases do to them."""

    points: Array  # (n, 3)
    edges: Array  # int32 (2, k) of the elements, each once, by the first of its nodes
    diagonals: Array  # int32 (4, d) of faces of hexahedra: its ends, and the face's other corners
    hexahedra: Array  # (8, h), whose centres have the mean level
    middles: Array  # (m, 3): a node in the middle of an edge and its corners, which give its level
    always: Array  # bool (n,): of an element that doesn't follow the level field
    used: Array  # bool (n,): of an element that isn't left out
    cases: tuple[Acting, ...]


@dataclass(frozen=True)
class Pieces:
    """What one level field comes to."""

    count: int
    of_node: Array  # number from 0, -1 without material
    carrying: Array  # bool per piece: some load case has both a load and a support on it
    touched: Array  # bool per piece: it has a load or a support of some load case
    broken: tuple[str, ...]  # a sentence for each load that no piece takes to a support


def make_joints(model: Model, numbers: Sequence[int] | None = None) -> Joints:
    """Of the elements that aren't left out, and the load cases `numbers`, all if not given."""
    assert model.element_flags is not None and model.node_flags is not None
    active = model.element_flags & EXCLUDED == 0
    deaf = model.element_flags & formats.ELEMENT_NO_LEVEL != 0
    always = np.zeros(len(model.nodes), np.bool_)
    tables = {}
    for code in TYPES:
        own, rows = model.elements.of_type(code)
        tables[code] = rows[active[own - 1]].astype(np.int64) - 1
        always[rows[(active & deaf)[own - 1]] - 1] = True
    tet10 = tables[TET10]
    middles = np.column_stack((tet10[:, 4:].ravel(), tet10[:, TET10_EDGES].reshape(-1, 2)))
    pairs = [
        tables[TET4][:, TET10_EDGES].reshape(-1, 2),
        tables[HEX8][:, HEX8_EDGES].reshape(-1, 2),
        middles[:, [0, 1]],
        middles[:, [0, 2]],
    ]
    count = len(model.nodes)
    edges = _distinct(np.concatenate(pairs), count)
    diagonals = _diagonals(tables[HEX8])
    used = np.zeros(count, np.bool_)
    used[edges] = True
    names = case_names(model)
    skipped = np.flatnonzero(model.node_flags & formats.NODE_NO_LOADS)
    chosen = range(1, len(model.load_cases) + 1) if numbers is None else numbers
    pairs_of_nodes = np.concatenate((edges, diagonals[:2]), axis=1)
    acting = (
        _acting(model.load_cases[n - 1], titled(n, names), skipped, pairs_of_nodes, count)
        for n in chosen
    )
    hexahedra = np.ascontiguousarray(tables[HEX8].T)
    return Joints(model.nodes, edges, diagonals, hexahedra, middles, always, used, tuple(acting))


def _distinct(pairs: Array, count: int) -> Array:
    keys = np.minimum(*pairs.T) * count + np.maximum(*pairs.T)
    keys.sort()
    keys = keys[np.diff(keys, prepend=-1) != 0]
    return np.stack((keys // count, keys % count)).astype(np.int32)


def _diagonals(rows: Array) -> Array:
    """Of the faces of hexahedra, from the lowest node of each, as they are cut; and the others."""
    faces = rows[:, HEX8_FACES].reshape(-1, 4)
    lowest = faces.argmin(axis=1)[:, None]
    turned = np.take_along_axis(faces, (lowest + np.array([0, 2, 1, 3])) % 4, axis=1)
    turned[:, 2:].sort(axis=1)
    order = np.lexsort(turned.T)
    turned = turned[order]
    first = np.append(True, (turned[1:] != turned[:-1]).any(axis=1)) if len(turned) else slice(0)
    return np.ascontiguousarray(turned[first].T.astype(np.int32))


def _acting(case: LoadCase, title: str, skipped: Array, edges: Array, count: int) -> Acting:
    moved = case.constraints[(case.constraints["Value"] != 0).any(axis=1)]
    forced = [f[(f["Force"] != 0).any(axis=1)]["Node"] for f in (case.forces2, case.forces3)]
    loads = np.concatenate((*forced, case.scalars["Node"])).astype(np.int64) - 1
    loads = loads[~np.isin(loads, skipped)]
    loaded = np.unique(np.concatenate((loads, moved["Node"].astype(np.int64) - 1)))
    inside = np.zeros(count, np.bool_)
    inside[loaded] = True
    patch = _components(edges[:, inside[edges].all(axis=0)], count)[1][loaded]
    held = np.unique(case.constraints["Node"].astype(np.int64) - 1)
    return Acting(title, held, loaded, patch)


def _components(pairs: Array, count: int) -> tuple[int, Array]:
    """Of so many things that pairs (2, k) of them join: how many, and the number of each one's."""
    graph = scipy.sparse.coo_array(
        (np.ones(pairs.shape[1], np.bool_), tuple(pairs)), (count, count)
    )
    number, label = scipy.sparse.csgraph.connected_components(graph, directed=False)
    return int(number), label


def _joined_in_order(pairs: Array, count: int) -> tuple[int, Array]:
    """The same of pairs by the first of each, which need no sorting."""
    begins = np.concatenate(([0], np.bincount(pairs[0], minlength=count).cumsum()))
    ones = np.ones(pairs.shape[1])
    graph = scipy.sparse.csr_array((ones, pairs[1], begins.astype(np.int32)), (count, count))
    number, label = scipy.sparse.csgraph.connected_components(graph, directed=False)
    return int(number), label


def find_pieces(joints: Joints, levels: Array) -> Pieces:
    """Pieces of the part that a level per node leaves."""
    count, of_node = _pieces(joints, levels)
    carrying = np.zeros(count + 1, np.bool_)  # the last is of nodes without material
    touched = np.zeros(count + 1, np.bool_)
    broken: list[str] = []
    for case in joints.cases:
        held, loaded = np.zeros((2, count + 1), np.bool_)
        held[of_node[case.held]] = True
        loaded[of_node[case.loaded]] = True
        carrying |= held & loaded
        touched |= held | loaded
        broken += _broken(joints, case, of_node, held)
    return Pieces(count, of_node, carrying[:-1], touched[:-1], tuple(broken))


def _pieces(joints: Joints, levels: Array) -> tuple[int, Array]:
    levels = levels.copy()
    middle, *ends = joints.middles.T
    levels[middle] = 0.5 * (levels[ends[0]] + levels[ends[1]])
    full = (levels >= 0) & joints.used | joints.always
    nodes = np.flatnonzero(full)
    place = np.cumsum(full, dtype=np.int32) - 1  # among these
    count, label = _joined_in_order(place.take(_within(joints.edges, full)), len(nodes))
    others = np.concatenate((_diagonally(joints, full), _spokes(joints, levels, full)), axis=1)
    count, united = _components(label.take(place.take(others)), count)
    of_node = np.full(len(levels), _VOID, np.int64)
    of_node[nodes] = united.take(label)
    return count, of_node


def _within(pairs: Array, full: Array) -> Array:
    """Those of pairs (2, k) of nodes both of which are in a mask."""
    return pairs.take(np.flatnonzero(full.take(pairs[0]) & full.take(pairs[1])), axis=1)


def _diagonally(joints: Joints, full: Array) -> Array:
    """Pairs (2, k) across faces of hexahedra with no other material: else edges join them."""
    first, second, *others = joints.diagonals
    alone = np.flatnonzero(full.take(first) & full.take(second))
    for other in others:
        alone = alone[~full.take(other.take(alone))]
    return joints.diagonals[:2].take(alone, axis=1)


def _spokes(joints: Joints, levels: Array, full: Array) -> Array:
    """Pairs (2, k) that join what lies around the centres of hexahedra that are material.

    Each such corner to the first of them; where all are material their edges join them.
    """
    rows = joints.hexahedra
    marks = full.view(np.int8)
    count = sum((marks.take(corner) for corner in rows), np.zeros(rows.shape[1], np.int8))
    rows = rows.take(np.flatnonzero((count > 1) & (count < len(rows))), axis=1)
    rows = rows[:, levels[rows].mean(axis=0) >= 0]
    corners = full[rows]
    first = rows[corners.argmax(axis=0), np.arange(rows.shape[1])]
    return np.stack((np.broadcast_to(first, rows.shape)[corners], rows[corners]))


def _broken(joints: Joints, case: Acting, of_node: Array, held: Array) -> Iterator[str]:
    """A load is taken over where any node of its patch lies on a piece with a support."""
    joined = held[of_node[case.loaded]] & (of_node[case.loaded] != _VOID)
    for number in np.unique(case.patch):
        members = case.patch == number
        if not joined[members].any():
            middle = joints.points[case.loaded[members]].mean(axis=0)
            yield (
                "the design has fallen apart: nothing joins the load at "
                f"{place_words(middle + 0.0, 4)} of {case.title} to a support"
            )


def loose_nodes(joints: Joints, pieces: Pieces, fixed: Array) -> Array:
    """Material nodes, bool (n,), of the pieces that carry nothing and hold no node of `fixed`.

    Where a load has lost its support, pieces with either stay: they may grow together again. Where
    there are neither loads nor supports nothing tells what is loose.
    """
    useful = pieces.touched if pieces.broken else pieces.carrying
    if not pieces.touched.any():
        return np.zeros(len(pieces.of_node), np.bool_)
    useful = np.append(useful, True)  # what is no material isn't loose
    useful[pieces.of_node[fixed | joints.always]] = True
    loose: Array = ~useful[pieces.of_node]
    return loose
