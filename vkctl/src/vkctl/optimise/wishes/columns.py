"""Design points in columns along a direction, in order."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array

from .sampling import Field, sampling

_SAME = 1e-2  # of an edge: points this close to a line are on it
_STATION = 0.5  # of an edge, from value to value where few design points are on a line


@dataclass(frozen=True)
class Columns:
    """Lines along a direction through all design points, with the values on each.

    Values are those of the design points on the line; on a mesh that has few of them behind each
    other also values in between, interpolated at stations that are the same for all lines.
    """

    sample: Any  # sparse (v, p), of all values
    order: Array  # (c, l): values of each line along the direction, v where there are no more
    line: Array  # (p,) of each design point
    place: Array  # (p,) of its own value on it

    def lined(self, values: Array, missing: float) -> Array:
        """Values (c, l) on the lines from one a design point."""
        found: Array = np.append(self.sample @ values, missing)[self.order]
        return found

    def own(self, lined: Array) -> Array:
        """Values of the design points from those on the lines."""
        found: Array = lined[self.line, self.place]
        return found

    def mean(self) -> tuple[Any, Array]:
        """Sparse (p, p), the mean over the line of each design point, and how many values it has.

        Where a line has evenly spaced values, they alone count.
        """
        count = self.sample.shape[0]
        even = ((self.order >= len(self.line)) & (self.order < count)).any(axis=1, keepdims=True)
        line, place = np.nonzero((self.order < count) & ((self.order >= len(self.line)) | ~even))
        chosen = (np.ones(len(line)), (line, self.order[line, place]))
        member = scipy.sparse.csr_matrix(chosen, (len(self.order), count))
        sizes = np.diff(member.indptr)
        mean = (scipy.sparse.diags(1.0 / sizes) @ member @ self.sample).tocsr()
        return mean[self.line], sizes[self.line]


def columns_along(field: Field, direction: tuple[float, float, float]) -> Columns:
    """Columns of the design points of a field along a direction."""
    axis = np.array(direction) / np.linalg.norm(direction)
    height = field.points @ axis
    count, line = _lines(field.points - np.outer(height, axis), _SAME * field.edge)
    own = scipy.sparse.identity(len(field.points), format="csr")
    sample, lines, heights = own, line, height
    if (np.bincount(line) < 2).any():
        stations, of_lines = _stations(field, axis, height, line, count)
        values = sampling(field, stations)
        there = np.diff(values.indptr) > 0
        sample = scipy.sparse.vstack((own, values[there])).tocsr()
        lines = np.concatenate((line, of_lines[there]))
        heights = np.concatenate((height, (stations @ axis)[there]))
    order, place = _ordered(lines, heights, count)
    return Columns(sample, order, line, place[: len(field.points)])


def _lines(across: Array, reach: float) -> tuple[int, Array]:
    """How many lines there are, and that of each point, from places across the direction."""
    pairs = scipy.spatial.cKDTree(across).query_pairs(reach, output_type="ndarray")
    ones = np.ones(len(pairs), np.bool_)
    near = scipy.sparse.coo_matrix((ones, (pairs[:, 0], pairs[:, 1])), (len(across), len(across)))
    count, line = scipy.sparse.csgraph.connected_components(near, directed=False)
    return int(count), line


def _stations(
    field: Field, axis: Array, height: Array, line: Array, count: int
) -> tuple[Array, Array]:
    """Places at common heights on each line, and their lines."""
    first = np.full(count, -1)
    first[line[::-1]] = np.arange(len(line))[::-1]
    foot = field.points[first] - np.outer(height[first], axis)
    low, whole = height.min(), np.ptp(height)
    steps = max(int(np.ceil(whole / (_STATION * field.edge))), 1)
    levels = low + (np.arange(steps) + 0.5) * whole / steps
    places = foot[:, None, :] + levels[None, :, None] * axis
    return places.reshape(-1, 3), np.repeat(np.arange(count), len(levels))


def _ordered(lines: Array, heights: Array, count: int) -> tuple[Array, Array]:
    """Values by line and height, padded with their number, and the place of each on its line."""
    sizes = np.bincount(lines, minlength=count)
    by_line = np.lexsort((heights, lines))
    begin = np.concatenate(([0], np.cumsum(sizes)[:-1]))
    place = np.empty(len(lines), np.int64)
    place[by_line] = np.arange(len(lines)) - begin[lines[by_line]]
    order = np.full((count, int(sizes.max())), len(lines), np.int64)
    order[lines, place] = np.arange(len(lines))
    return order, place
