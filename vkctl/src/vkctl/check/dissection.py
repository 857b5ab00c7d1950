"""Size of a sparse Cholesky factor, from a nested dissection of the mesh by coordinates.

Nested dissection (George 1973) splits a part by a separator of nodes, numbers the separator last,
and goes on with both halves. Each separator is one dense front: with s rows of its own and b rows
of earlier separators next to its part it holds s (s + 1) / 2 + s b entries. The halves are cut
here across the longest side of each part; a solver's ordering follows the graph instead and does
about as well on meshes.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.groups import distinct

_LEAF = 64  # nodes of a part that is not split any more


@dataclass
class FactorSize:
    """Stored entries of a factor and floating-point operations to compute it."""

    entries: float
    operations: float


class _Parts:
    """The parts of one level of the dissection; nodes of separators have left them."""

    def __init__(self, points: Array, edges: tuple[Array, Array]) -> None:
        self.points = points
        self.part = np.zeros(len(points), np.int64)  # of each node, -1 once it has left
        self.inner = edges  # edges between two nodes of one part
        self.border = np.empty(0, np.int64), np.empty(0, np.int64)  # node of a part, node that left

    def renumber(self) -> int:
        """Number the parts from 0 without gaps; how many there are."""
        live = self.part >= 0
        names, self.part[live] = np.unique(self.part[live], return_inverse=True)
        return len(names)

    def border_sizes(self, count: int) -> Array:
        """Distinct nodes of separators next to each part."""
        node, left = self.border
        keys = distinct(self.part[node] * len(self.part) + left)
        return np.bincount(keys // len(self.part), minlength=count)

    def upper_halves(self, sizes: Array) -> Array:
        """Nodes of the upper half of their part, bool per node.

        A part is cut across its longest side, beside the plane of its middle node. Where that
        would leave less than a quarter on a side, since too many nodes lie on the plane, the
        plane's own nodes are divided. So each half of a part has at most three quarters of it,
        wherever the nodes lie: after log(n) / log(4/3) levels no part is left to be split.
        """
        live = np.flatnonzero(self.part >= 0)
        part = self.part[live]
        first = np.concatenate(([0], np.cumsum(sizes)[:-1]))
        ordered = self.points[live][np.argsort(part, kind="stable")]
        sides = np.maximum.reduceat(ordered, first) - np.minimum.reduceat(ordered, first)
        axes = np.argsort(-sides, axis=1, kind="stable")
        along = self.points[live, axes[part, 0]]
        middle = along[np.lexsort((along, part))][first + sizes // 2][part]
        below = np.bincount(part[along < middle], minlength=len(sizes))
        above = np.bincount(part[along > middle], minlength=len(sizes))
        upper = np.where((4 * below >= sizes)[part], along >= middle, along > middle)
        flat = ((4 * below < sizes) & (4 * above < sizes))[part]
        upper[flat] = self._upper_ranks(live[flat], axes)
        spread = np.zeros(len(self.part), np.bool_)
        spread[live] = upper
        return spread

    def _upper_ranks(self, nodes: Array, axes: Array) -> Array:
        """Second half of each part's `nodes` in the order of its `axes`, bool per given node.

        Coordinates that are equal leave it to the nodes' numbers, so the halves are always equal.
        """
        part = self.part[nodes]
        keys = [self.points[nodes, axes[part, k]] for k in (2, 1, 0)]
        order = np.lexsort((*keys, part))
        sizes = np.bincount(part)
        rank = np.empty(len(nodes), np.int64)
        rank[order] = np.arange(len(nodes)) - (np.cumsum(sizes) - sizes)[part[order]]
        halves: Array = rank >= (sizes // 2)[part]
        return halves

    def separators(self, upper: Array, split: Array) -> Array:
        """Nodes next to the other half, of the half that has fewer of them, bool per node."""
        a, b = self.inner
        crossing = (upper[a] != upper[b]) & split[self.part[a]]
        ends = np.concatenate((a[crossing], b[crossing]))
        touched = np.zeros(len(self.part), np.bool_)
        touched[ends] = True
        counts = [
            np.bincount(self.part[touched & (upper == side)], minlength=len(split))
            for side in (False, True)
        ]
        take_upper = counts[1] < counts[0]
        found: Array = touched & (upper == take_upper[np.maximum(self.part, 0)])
        return found

    def divide(self, upper: Array, separator: Array, split: Array) -> None:
        """Take separators and parts that aren't split out; the halves become parts."""
        a, b = self.inner
        stays = (self.part >= 0) & ~separator
        stays &= split[np.maximum(self.part, 0)]
        ends = [(b, a), (a, b)]
        new = [(x[separator[y] & stays[x]], y[separator[y] & stays[x]]) for x, y in ends]
        node, left = self.border
        kept = stays[node]
        self.border = (
            np.concatenate((node[kept], *(pair[0] for pair in new))),
            np.concatenate((left[kept], *(pair[1] for pair in new))),
        )
        inner = stays[a] & stays[b] & (upper[a] == upper[b])
        self.inner = a[inner], b[inner]
        self.part = np.where(stays, 2 * self.part + upper, -1)


def factor_size(points: Array, edges: tuple[Array, Array], components: int = 3) -> FactorSize:
    """Factor of a matrix with `components` rows per node.

    `points` (n, 3), all finite, are the nodes, `edges` their couplings as two arrays of 0-based
    numbers.
    """
    *_, found = FactorSize(0.0, 0.0), *rising_sizes(points, edges, components)
    return found


def rising_sizes(
    points: Array, edges: tuple[Array, Array], components: int = 3
) -> Iterator[FactorSize]:
    """The same, after each level of the dissection: what the separators so far come to."""
    parts = _Parts(points, edges)
    entries = operations = 0.0
    while (count := parts.renumber()) > 0:
        sizes = np.bincount(parts.part[parts.part >= 0], minlength=count)
        border = parts.border_sizes(count)
        split = sizes > _LEAF
        upper = parts.upper_halves(sizes)
        separator = parts.separators(upper, split)
        separator_sizes = np.bincount(parts.part[separator], minlength=count)
        parts.divide(upper, separator, split)
        own, border = (
            components * side.astype(float)
            for side in (np.where(split, separator_sizes, sizes), border)
        )
        entries += float((own * (own + 1) / 2 + own * border).sum())
        operations += float((own**3 / 3 + own**2 * border + own * border**2).sum())
        yield FactorSize(entries, operations)
