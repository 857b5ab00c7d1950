"""The cylinder that points lie on."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array

_CURVED = 1e-4  # second eigenvalue of the normals' moments; smaller ones are of a plane


@dataclass
class Cylinder:
    point: Array  # on the axis
    axis: Array  # unit vector
    radius: float
    unround: float  # largest distance of a point from the wall, relative to the radius


def about_axis(points: Array, point: Array, axis: Array) -> Cylinder:
    """The cylinder of mean radius about a given axis."""
    unit = axis / np.linalg.norm(axis)
    radii = np.linalg.norm(np.cross(points - point, unit), axis=1)
    radius = float(radii.mean())
    off = float(np.abs(radii - radius).max()) / radius if radius > 0 else np.inf
    return Cylinder(point, unit, radius, off)


def through(points: Array, normals: Array) -> Cylinder | None:
    """The cylinder through points whose surface has these normals, any length.

    The axis is square to all normals at first; least squares of the distances from the wall
    follow. None where the normals are those of a plane.
    """
    from scipy.optimize import least_squares

    values, vectors = np.linalg.eigh(normals.T @ normals)
    if values[1] <= _CURVED * values[2]:
        return None
    axis, across = vectors[:, 0], vectors[:, 1:].T
    middle = points.mean(axis=0)
    size = float(np.abs(points - middle).max())
    flat = (points - middle) @ across.T / size

    def placed(unknown: Array) -> tuple[Array, Array]:
        """(point of the axis, its direction) for two shares across, two slopes and a radius."""
        return middle + size * (unknown[:2] @ across), axis + unknown[2:4] @ across

    def off(unknown: Array) -> Array:
        point, direction = placed(unknown)
        unit = direction / np.linalg.norm(direction)
        distances = np.linalg.norm(np.cross(points - point, unit), axis=1)
        difference: Array = distances / size - unknown[4]
        return difference

    # Circle through the points seen along the axis (Kasa 1976), where the search begins.
    columns = np.column_stack((2 * flat, np.ones(len(flat))))
    a, b, c = np.linalg.lstsq(columns, (flat**2).sum(axis=1), rcond=None)[0]
    start = np.array((a, b, 0.0, 0.0, np.sqrt(max(c + a * a + b * b, 1e-12))))
    point, direction = placed(least_squares(off, start, xtol=1e-14, ftol=1e-14, gtol=1e-14).x)
    return about_axis(points, point, direction)
