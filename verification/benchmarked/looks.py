"""What is measured on the smooth surface of a part, and stresses of its body."""

from __future__ import annotations

from pathlib import Path

import numpy as np
from scipy.spatial import cKDTree

from vkctl.basics.types import Array
from vkctl.directory.model import Model, read
from vkctl.directory.results import read_results
from vkctl.stress.measures import von_mises
from vkctl.stress.nodal import nodal_stress
from vkctl.stress.solution import solution_of

_TOLERANCE = 5.0  # degrees beyond the angle: a surface cut out of a mesh ripples
_ON_PLATE = 0.3  # of the mean edge of the triangles above the lowest place
_NEAR = 4.0  # of these edges, of what is near
_PLACES = 60  # along the longest side of the part, of the grid that undercuts are looked for on


def overhanging(
    points: Array, triangles: Array, build: Array, kept: Array, angle: float = 45.0
) -> float:
    """Part of the surface that hangs over by more than an angle to the upright.

    Plate and what is near the places (k, 3) of nodes to keep are excepted: that is there anyhow.
    """
    corners = points[triangles]
    normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    areas = np.linalg.norm(normals, axis=1)
    height = corners.mean(axis=1) @ build
    edge = np.sqrt(areas.mean())
    above = height > (points @ build).min() + _ON_PLATE * edge
    # How far the surface faces down, of which `angle` from the plate's own normal is allowed.
    steep = -(normals @ build) / np.maximum(areas, 1e-300)
    if len(kept):
        above &= cKDTree(kept).query(corners.mean(axis=1))[0] > _NEAR * edge
    hangs = above & (steep > np.cos(np.radians(90.0 - angle - _TOLERANCE)))
    return float(areas[hangs].sum() / areas.sum())


def undercut(points: Array, triangles: Array, axis: int) -> float:
    """Void that material hides from a mould drawn along an axis from the middle, by its volume."""
    import pyvista

    faces = np.column_stack((np.full(len(triangles), 3), triangles)).ravel()
    surface = pyvista.PolyData(points, faces)
    low, high = points.min(axis=0), points.max(axis=0)
    step = (high - low).max() / _PLACES
    sides = [np.arange(a + 0.5 * step, b, step) for a, b in zip(low, high, strict=True)]
    grid = np.stack(np.meshgrid(*sides, indexing="ij"), axis=-1)
    cloud = pyvista.PolyData(grid.reshape(-1, 3))
    chosen = cloud.select_interior_points(surface, check_surface=False)
    inside = np.asarray(chosen["selected_points"], np.bool_).reshape(grid.shape[:3])
    inside = np.moveaxis(inside, axis, 0)
    half = len(inside) // 2
    hidden = 0
    for outwards in (inside[half:], inside[half - 1 :: -1]):
        further = np.logical_or.accumulate(outwards[::-1], axis=0)[::-1]
        hidden += int((further & ~outwards).sum())
    return float(hidden / inside.sum())


def largest_stress(directory: Path, away_from: tuple[str, ...], distance: float) -> float:
    """Von Mises stress at nodes further than a distance from those of sets, in any load case."""
    model = read(directory)
    far = _further(model, away_from, distance)
    largest = 0.0
    for number in range(1, len(model.load_cases) + 1):
        solution = solution_of(model, read_results(directory, number))
        merged = nodal_stress(solution).merged()
        values = von_mises(merged.stress[merged.inside & far])
        largest = max(largest, float(np.nanmax(values, initial=0.0)))
    return largest


def _further(model: Model, names: tuple[str, ...], distance: float) -> Array:
    chosen = [one.own_nodes() for one in model.sets or [] if one.name in names]
    if len(chosen) != len(names):
        raise ValueError(f"the directory has not all sets of {', '.join(names)}")
    around = model.nodes[np.concatenate(chosen) - 1]
    apart, _ = cKDTree(around).query(model.nodes)
    found: Array = apart > distance
    return found
