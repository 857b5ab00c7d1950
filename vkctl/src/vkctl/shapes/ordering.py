"""In which order the nodes of a mesh are numbered, where the numbers are ours to choose.

The iterative mode sweeps through the equations in the order of the nodes, and the order decides how
many iterations it takes.
"""

from __future__ import annotations

import numpy as np
from scipy import sparse
from scipy.sparse.csgraph import connected_components

from vkctl.basics.types import Array

from .topology import HEX8_EDGES

_MOST_COUPLED = 63  # nodes around a node, so that its colour is one of 64 bits
_NOT_YET = -1


def along_the_part(points: Array) -> Array:
    """Positions of the points in order along the longest side of their box.

    Where nodes follow each other through the part, a sweep carries further than in the mesher's
    order, which takes points, curves and surfaces before what is inside. Equal points keep their
    order; whether they are equal is judged in 32 bits, where a mesher's rounding is gone.
    """
    rounded = _rounded(points)
    order: Array = np.argsort(rounded[:, _longest_first(rounded)[0]], kind="stable")
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
    if np.diff(coupled.indptr).max(initial=0) > _MOST_COUPLED:
        return along_the_part(points)
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


def _halves(rows: Array, count: int) -> Array:
    """0 or 1 for each of so many nodes: ends of an edge differ, where the mesh allows it.

    From the lowest node of each piece on. A ring of an odd number of elements has a seam.
    """
    edges = _joined((rows[:, HEX8_EDGES].reshape(-1, 2),), count)
    half = np.full(count, _NOT_YET, np.int8)
    front = np.unique(connected_components(edges, directed=False)[1], return_index=True)[1]
    now = 0
    while len(front):
        half[front] = now
        around = _around(edges, front)[0]
        front = np.unique(around[half[around] == _NOT_YET])
        now = 1 - now
    return half


def _coupled(rows: Array, halves: Array) -> sparse.csr_array:
    """Which nodes of a half share an element."""
    half_of = halves[rows]
    pairs = [
        rows[half_of[:, first] == half_of[:, second]][:, [first, second]]
        for first in range(8)
        for second in range(first)
    ]
    return _joined(tuple(pairs), len(halves))


def _joined(pairs: tuple[Array, ...], count: int) -> sparse.csr_array:
    """A symmetric matrix of ones at pairs (k, 2) of so many nodes, each once."""
    first, second = np.concatenate(pairs).T
    ones = np.ones(len(first), np.bool_)
    one_way = sparse.coo_array((ones, (first, second)), (count, count))
    both = sparse.csr_array(one_way + one_way.T)
    both.sum_duplicates()
    return both


def _colours(coupled: sparse.csr_array) -> Array:
    """The lowest colour that no lower node has taken around each node, node by node upwards.

    Nodes whose lower neighbours have their colours are taken at once.
    """
    count = coupled.shape[0]
    colour = np.full(count, _NOT_YET, np.int64)
    taken = np.zeros(count, np.uint64)  # the bit of a node's colour
    owners = np.repeat(np.arange(count), np.diff(coupled.indptr))
    waiting = np.bincount(owners[coupled.indices < owners], minlength=count)
    front = np.flatnonzero(waiting == 0)
    while len(front):
        around, ends = _around(coupled, front)
        bits = _any_of(taken[around], ends)
        free = ~bits & (bits + np.uint64(1))  # lowest bit that isn't set
        taken[front] = free
        colour[front] = np.frexp(free.astype(np.float64))[1] - 1
        above = around[colour[around] == _NOT_YET]
        np.subtract.at(waiting, above, 1)
        front = np.unique(above[waiting[above] == 0])
    return colour


def _around(graph: sparse.csr_array, nodes: Array) -> tuple[Array, Array]:
    """Neighbours of some nodes, one node's after the other's, and where each node's end."""
    begin, counts = graph.indptr[nodes], np.diff(graph.indptr)[nodes]
    ends = counts.cumsum()
    places = np.arange(ends[-1]) + np.repeat(begin - (ends - counts), counts)
    return graph.indices[places], ends


def _any_of(bits: Array, ends: Array) -> Array:
    """Bits set in each of some pieces that end at places, of which any may be empty."""
    gathered = np.bitwise_or.reduceat(np.append(bits, np.uint64(0)), np.append(0, ends[:-1]))
    found: Array = np.where(np.diff(ends, prepend=0) > 0, gathered, np.uint64(0))
    return found
