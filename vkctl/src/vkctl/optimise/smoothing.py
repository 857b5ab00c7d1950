"""Smoothing of a field on design points over their neighbours."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array


@dataclass(frozen=True)
class Near:
    """Pairs of points, 0-based, that are not further than some radius from each other."""

    count: int  # of points
    first: Array
    second: Array
    distance: Array


def near_points(points: Array, radius: float) -> Near:
    """All pairs of points (p, 3) within a radius."""
    pairs = scipy.spatial.cKDTree(points).query_pairs(radius, output_type="ndarray")
    first, second = pairs.T.astype(np.int32)
    apart = points.take(first, axis=0) - points.take(second, axis=0)
    return Near(len(points), first, second, np.sqrt(np.einsum("pk,pk->p", apart, apart)))


def smoothing_over(points: Array, radius: float, without: Array | None = None) -> Any:
    """The weights of `smoothing_of` where no other radius is wanted."""
    return smoothing_of(near_points(points, radius), radius, without)


def smoothing_of(near: Near, radius: float, without: Array | None = None) -> Any:
    """Weights, sparse (p, p), that fall linearly to 0 at `radius`; each row adds up to 1.

    The radius is at most that of `near`. Points of the mask `without` count for themselves alone.

    O. Sigmund, Struct. Multidisc. Optim. 21 (2001) 120-127.
    """
    chosen = near.distance < radius
    if without is not None:
        chosen &= ~(without[near.first] | without[near.second])
    first, second = near.first[chosen], near.second[chosen]
    weight, own = radius - near.distance[chosen], np.arange(near.count, dtype=np.int32)
    weights = scipy.sparse.coo_array(
        (
            np.concatenate((weight, weight, np.full(near.count, radius))),
            (np.concatenate((first, second, own)), np.concatenate((second, first, own))),
        ),
        (near.count, near.count),
    ).tocsr()
    weights.sort_indices()
    sums = np.add.reduceat(weights.data, weights.indptr[:-1])
    weights.data /= sums.repeat(np.diff(weights.indptr))
    return weights
