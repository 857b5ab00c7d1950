"""In which order the nodes of a mesh are numbered, where the numbers are ours to choose.

The iterative mode sweeps through the equations in the order of the nodes, and the order decides how
many iterations it takes.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array

from .groups import distinct, groups_of_links
from .topology import HEX8_EDGES

_MOST_COUPLED = 63  # nodes around a node, so that its colour is one of 64 bits
_NOT_YET = -1


def from_both_ends(points: Array) -> Array:
    """Positions of the points in order along the longest side of their box, from both ends inwards.

    Where nodes follow each other through the part, a sweep carries further than in the mesher's
    order, which takes points, curves and surfaces before what is inside. Begun at both ends, it
    takes as many iterations as from one to the other, and has twice the nodes to work on at once:
    H. A. van der Vorst, SIAM J. Sci. Stat. Comput. 10 (1989) 1174-1185, on such orders.

    Equal distances keep the points' order; whether they are equal is judged in 32 bits, where a
    mesher's rounding is gone.
    """
    rounded = _rounded(points)
    along = rounded[:, _longest_first(rounded)[0]]
    with np.errstate(over="ignore", invalid="ignore"):
        from_ends = np.minimum(along - along.min(), along.max() - along) if len(along) else along
    order: Array = np.argsort(from_ends, kind="stable")
    return order


def in_colours(points: Array, hexahedra: Array) -> Array:
    """Positions of the points in an order for a mesh of hexahedra alone, rows (k, 8) of positions.

    First come the nodes that an even number of edges lies between, then those in between, and in
    both halves nodes of one colour follow each other, which share no element. A sweep then takes
    neighbours along face diagonals, which are coupled most, one after the other. Boxes need half of
    the iterations that they need in the order along the part, faded designs two thirds.

    L. M. Adams, H. F. Jordan, SIAM J. Sci. Stat. Comput. 7 (1986) 490-506, on such orders.
    """
    rounded = _rounded(points)
    by_place = np.lexsort([rounded[:, axis] for axis in _longest_first(rounded)[::-1]])
    rank = np.empty(len(points), np.int32)
    rank[by_place] = np.arange(len(points), dtype=np.int32)
    rows = rank[hexahedra]
    halves = _halves(rows, len(points))
    coupled = _coupled(rows, halves)
    if np.diff(coupled.begins).max(initial=0) > _MOST_COUPLED:
        return from_both_ends(points)
    order: Array = by_place[np.lexsort((_colours(coupled), halves))]
    return order


def _rounded(points: Array) -> Array:
    with np.errstate(over="ignore", invalid="ignore"):
        return points.astype(np.float32)


def _longest_first(points: Array) -> list[int]:
    """Axes by the sides of the points' box; of equal sides the first of x, y, z comes first."""
    if not len(points):
        return [0, 1, 2]
    with np.errstate(over="ignore", invalid="ignore"):
        sides = np.ptp(points, axis=0)
    return sorted(range(3), key=lambda axis: -sides[axis])


@dataclass(frozen=True)
class _Graph:
    """Neighbours of each node, those of one after the other's, each once."""

    begins: Array  # (n + 1,)
    neighbours: Array

    def owners(self) -> Array:
        """The node of each neighbour."""
        return np.repeat(np.arange(len(self.begins) - 1), np.diff(self.begins))

    def around(self, nodes: Array) -> tuple[Array, Array]:
        """Neighbours of some nodes, one node's after the other's, and where each node's end."""
        begin = self.begins[nodes]
        counts = self.begins[nodes + 1] - begin
        ends = counts.cumsum()
        places = np.arange(ends[-1]) + np.repeat(begin - (ends - counts), counts)
        return self.neighbours[places], ends


def _joined(pairs: Sequence[Array], count: int) -> _Graph:
    """Of so many nodes that pairs (k, 2) join."""
    either = [np.minimum(*some.T).astype(np.int64) * count + np.maximum(*some.T) for some in pairs]
    low, high = np.divmod(distinct(np.concatenate(either)), count)
    first, second = np.divmod(
        np.sort(np.concatenate((low * count + high, high * count + low))), count
    )
    begins = np.concatenate(([0], np.bincount(first, minlength=count).cumsum()))
    return _Graph(begins, second)


def _halves(rows: Array, count: int) -> Array:
    """0 or 1 for each of so many nodes: ends of an edge differ, where the mesh allows it.

    From the lowest node of each piece on. A ring of an odd number of elements has a seam.
    """
    edges = _joined([rows[:, HEX8_EDGES].reshape(-1, 2)], count)
    half = np.full(count, _NOT_YET, np.int8)
    pieces = groups_of_links(count, edges.owners(), edges.neighbours)
    front = np.unique(pieces, return_index=True)[1]
    now = 0
    while len(front):
        half[front] = now
        around = edges.around(front)[0]
        front = distinct(around[half[around] == _NOT_YET])
        now = 1 - now
    return half


def _coupled(rows: Array, halves: Array) -> _Graph:
    """Which nodes of a half share an element."""
    half_of = halves[rows]
    pairs = [
        rows[half_of[:, first] == half_of[:, second]][:, [first, second]]
        for first in range(8)
        for second in range(first)
    ]
    return _joined(pairs, len(halves))


def _colours(coupled: _Graph) -> Array:
    """The lowest colour that no lower node has taken around each node, node by node upwards.

    Nodes whose lower neighbours have their colours are taken at once.
    """
    count = len(coupled.begins) - 1
    colour = np.full(count, _NOT_YET, np.int64)
    taken = np.zeros(count, np.uint64)  # the bit of a node's colour
    owners = coupled.owners()
    waiting = np.bincount(owners[coupled.neighbours < owners], minlength=count)
    front = np.flatnonzero(waiting == 0)
    while len(front):
        around, ends = coupled.around(front)
        bits = _any_of(taken[around], ends)
        free = ~bits & (bits + np.uint64(1))  # lowest bit that isn't set
        taken[front] = free
        colour[front] = np.frexp(free.astype(np.float64))[1] - 1
        above = around[colour[around] == _NOT_YET]
        np.subtract.at(waiting, above, 1)
        front = distinct(above[waiting[above] == 0])
    return colour


def _any_of(bits: Array, ends: Array) -> Array:
    """Bits set in each of some pieces that end at places, of which any may be empty."""
    gathered = np.bitwise_or.reduceat(np.append(bits, np.uint64(0)), np.append(0, ends[:-1]))
    found: Array = np.where(np.diff(ends, prepend=0) > 0, gathered, np.uint64(0))
    return found
