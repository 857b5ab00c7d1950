"""Isometries of a pattern, and the mean over the images of a point."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .entries import Cyclic, Plane

MOST_IMAGES = 60
_SAME = 1e-3  # entries of rotations, and shifts by lengths: directions are written with few digits


def reflection(plane: Plane) -> Array:
    """(4, 4) of homogeneous coordinates."""
    normal = np.array(plane.normal) / np.linalg.norm(plane.normal)
    turned = np.eye(3) - 2.0 * np.outer(normal, normal)
    return _about(turned, plane.point)


def rotation(cyclic: Cyclic) -> Array:
    """(4, 4) of one step around the axis."""
    axis = np.array(cyclic.axis) / np.linalg.norm(cyclic.axis)
    angle = 2.0 * np.pi / cyclic.count
    across = np.cross(np.eye(3), axis)  # across @ v is the product of axis and v
    turned = np.eye(3) + np.sin(angle) * across + (1.0 - np.cos(angle)) * across @ across
    return _about(turned, cyclic.point)


def _about(turned: Array, point: tuple[float, float, float]) -> Array:
    whole = np.eye(4)
    whole[:3, :3] = turned
    whole[:3, 3] = np.array(point) - turned @ np.array(point)
    return whole


def images(symmetry: tuple[Plane, ...], cyclic: Cyclic | None) -> Array:
    """All isometries (n, 4, 4) that planes and axis make, the identity first.

    ValueError where they make more than `MOST_IMAGES`.
    """
    makers = [reflection(plane) for plane in symmetry]
    places = [np.abs(plane.point).max() for plane in symmetry]
    if cyclic is not None:
        makers.append(rotation(cyclic))
        places.append(np.abs(cyclic.point).max())
    scale = np.ones((4, 4))
    scale[:3, 3] = max([1.0, *places])
    found, fresh = [np.eye(4)], [np.eye(4)]
    while fresh:
        made = [maker @ one for one in fresh for maker in makers]
        fresh = []
        for one in made:
            if all(np.abs((one - other) / scale).max() > _SAME for other in found):
                found.append(one)
                fresh.append(one)
        if len(found) > MOST_IMAGES:
            raise ValueError(f"they make more than {MOST_IMAGES} images of a point")
    return np.array(found)
