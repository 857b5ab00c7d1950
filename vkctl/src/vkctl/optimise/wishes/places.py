"""A regular grid of places over the design volume, finer than the mesh, to fit balls in."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array

from .sampling import Field, sampling

PER_EDGE = 3  # places along an edge
_MOST_PLACES = 4_000_000


@dataclass(frozen=True)
class Places:
    """Cubes of a grid that lies evenly in the box of the nodes; what is outside of the mesh too."""

    inside: Array  # bool (x, y, z): in an element that is designed
    step: float
    lowest: Array  # (3,) the centre of the first place
    weights: Any  # sparse (places, p): of the design points

    def sampled(self, values: Array) -> Array:
        """Values (x, y, z) of a field of design points, 0 outside."""
        found: Array = (self.weights @ values).reshape(self.inside.shape)
        return found

    def nearest(self, points: Array) -> Array:
        """Place (k, 3) of the grid nearest to each point."""
        where = np.rint((points - self.lowest) / self.step).astype(np.int64)
        return np.clip(where, 0, np.array(self.inside.shape) - 1)

    def at(self, values: Array, points: Array) -> Array:
        """Values of the grid, interpolated at points (k, 3)."""
        where = (points - self.lowest) / self.step
        found: Array = scipy.ndimage.map_coordinates(values, where.T, order=1, mode="nearest")
        return found


def images_at(places: Places, values: Array, isometries: Array, points: Array) -> Array:
    """The least value of the grid at points (k, 3) and all their images by a pattern."""
    found: Array = np.min(
        [places.at(values, points @ one[:3, :3].T + one[:3, 3]) for one in isometries], axis=0
    )
    return found


def make_places(field: Field) -> Places:
    nodes = field.model.nodes
    low, high = nodes.min(axis=0), nodes.max(axis=0)
    step = max(field.edge / PER_EDGE, float(np.cbrt(np.prod(high - low) / _MOST_PLACES)))
    counts = np.maximum(np.rint((high - low) / step), 1).astype(np.int64)
    lowest = 0.5 * (low + high) - 0.5 * (counts - 1) * step
    sides = [a + step * np.arange(n) for a, n in zip(lowest, counts, strict=True)]
    grid = np.stack(np.meshgrid(*sides, indexing="ij"), axis=-1)
    weights = sampling(field, grid.reshape(-1, 3), nearby=False)
    inside = (np.diff(weights.indptr) > 0).reshape(grid.shape[:3])
    return Places(inside, step, lowest, weights)


def depths(phase: Array, closed: tuple[bool, ...]) -> Array:
    """Distance in steps of each place of a phase to its border, 0 elsewhere.

    `closed` tells of each axis whether the phase ends with the grid.
    """
    if phase.all() and not any(closed):
        return np.full(phase.shape, float(max(phase.shape)))
    width = [(int(ends), int(ends)) for ends in closed]
    within = scipy.ndimage.distance_transform_edt(np.pad(phase, width))
    own = within[
        tuple(slice(ends, ends + n) for (ends, _), n in zip(width, phase.shape, strict=True))
    ]
    # The border lies half a step before the place that is the first on the other side.
    return np.where(phase, own - 0.5, 0.0)


def distances(some: Array) -> Array:
    """Distance in steps of each place to the nearest of some, infinite where there are none."""
    if not some.any():
        return np.full(some.shape, np.inf)
    found: Array = scipy.ndimage.distance_transform_edt(~some)
    return found
