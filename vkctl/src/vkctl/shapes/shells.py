"""Surfaces of triangles: whether they are closed, how many bodies they enclose, and how much."""

from __future__ import annotations

import numpy as np
import scipy

from vkctl.basics.types import Array


def edges_of(triangles: Array) -> tuple[Array, Array]:
    """Edges (e, 2), the lower point first, and the edge of each side (3 f,): 12, 23, 31 in turn."""
    sides = np.sort(triangles[:, [0, 1, 1, 2, 2, 0]].reshape(-1, 2), axis=1).astype(np.int64)
    span = int(sides.max(initial=0)) + 1
    keys, edge = np.unique(sides @ np.array((span, 1)), return_inverse=True)
    return np.column_stack((keys // span, keys % span)), edge


def open_edges(triangles: Array) -> int:
    """Edges that don't belong to exactly two triangles; 0 for a closed surface."""
    edges, edge = edges_of(triangles)
    return int(np.count_nonzero(np.bincount(edge, minlength=len(edges)) != 2))


def areas(points: Array, triangles: Array) -> Array:
    """Vectors (f, 3) across the triangles, twice as long as their areas."""
    first, second, third = (points[triangles[:, k]] for k in range(3))
    across: Array = np.cross(second - first, third - first)
    return across


def enclosed(points: Array, triangles: Array) -> float:
    """Volume within a closed surface that is seen from outside counter-clockwise."""
    return float(_cones(points, triangles).sum())


def bodies(points: Array, triangles: Array) -> int:
    """Closed surfaces that hang together and aren't the walls of a cavity."""
    edges, _ = edges_of(triangles)
    graph = scipy.sparse.coo_array(
        (np.ones(len(edges), np.bool_), (edges[:, 0], edges[:, 1])), shape=(len(points),) * 2
    )
    _, shell = scipy.sparse.csgraph.connected_components(graph, directed=False)
    volumes = np.bincount(shell[triangles[:, 0]], _cones(points, triangles))
    return int(np.count_nonzero(volumes > 0))


def _cones(points: Array, triangles: Array) -> Array:
    """Volumes with a sign between the middle of all points and each triangle."""
    moved = points - points.mean(axis=0)
    first, second, third = (moved[triangles[:, k]] for k in range(3))
    found: Array = (first * np.cross(second, third)).sum(axis=1) / 6.0
    return found


def qualities(points: Array, triangles: Array) -> Array:
    """Area over the sum of the squared sides, 1 for an equilateral triangle."""
    area = 0.5 * np.linalg.norm(areas(points, triangles), axis=1)
    corners = points[triangles]
    squares = ((corners - np.roll(corners, 1, axis=1)) ** 2).sum(axis=(1, 2))
    found: Array = 4.0 * np.sqrt(3.0) * area / np.maximum(squares, np.finfo(float).tiny)
    return found
