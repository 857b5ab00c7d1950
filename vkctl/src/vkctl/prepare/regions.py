"""Where a set's geometric conditions hold."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .case_file.entries import Region

TOLERANCE = 1e-5  # of regions, relative to the diagonal of the bounding box


def distance_outside(region: Region, points: Array) -> Array:
    """Distance of points from a region, 0 inside; for a plane the distance from it."""
    offset = points - np.array(region.point)
    if region.shape == "box":
        above = points - np.array(region.direction)
        excess = np.maximum(-offset, above).max(axis=1)
    elif region.shape == "sphere":
        excess = np.linalg.norm(offset, axis=1) - region.radius
    else:
        unit = np.array(region.direction) / np.linalg.norm(region.direction)
        along = offset @ unit
        excess = np.abs(along)
        if region.shape == "cylinder":
            excess = np.linalg.norm(offset - along[:, None] * unit, axis=1) - region.radius
    outside: Array = np.maximum(excess, 0.0)
    return outside
