"""Nodes within a distance of sets, for regions of a thickness."""

from __future__ import annotations

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.prepare.face_sets import Faces
from vkctl.prepare.sets import Sets

_ROUNDING = 1e-6  # of the thickness: coordinates are single precision


def nodes_around(sets: Sets, name: str, key: str, thickness: float | None) -> Array:
    """Numbers of the nodes of a set, and of those within a thickness of its faces and nodes."""
    own = sets.nodes(name, ("optimise", key))
    if thickness is None or not len(own):
        return own
    reach = thickness * (1.0 + _ROUNDING)
    nodes = sets.mesh.nodes
    near = (
        scipy.spatial.cKDTree(nodes[own - 1]).query(nodes, distance_upper_bound=reach)[0] <= reach
    )
    for triangles in _triangles(_faces(sets, name, own)):
        near |= within(nodes, nodes[triangles - 1], reach)
    return np.flatnonzero(near & sets.active_nodes) + 1


def _faces(sets: Sets, name: str, own: Array) -> Faces:
    """Faces of a set, or the outer ones whose nodes are all in it."""
    if name in sets.names("face"):
        return sets.faces(name, ())
    member = np.zeros(len(sets.mesh.nodes) + 1, np.bool_)
    member[own] = True
    return sets.outer.chosen([np.all(member[table], axis=1) for table in sets.outer.tables])


def _triangles(faces: Faces) -> list[Array]:
    """Corner nodes (k, 3); a face of four corners is two."""
    found = []
    for table in faces.tables:
        found.append(table[:, :3])
        if table.shape[1] == 4:
            found.append(table[:, [0, 2, 3]])
    return found


def within(points: Array, triangles: Array, reach: float) -> Array:
    """Whether points (p, 3) are at most `reach` away from one of the triangles (t, 3, 3)."""
    middle = triangles.mean(axis=1)
    around = np.linalg.norm(triangles - middle[:, None], axis=2).max(axis=1)
    near = scipy.spatial.cKDTree(points).query_ball_point(middle, around + reach)
    of_triangle = np.repeat(np.arange(len(triangles)), [len(some) for some in near])
    of_point = np.concatenate([np.empty(0, np.int64), *near]).astype(np.int64)
    distance = _distances(points[of_point], triangles[of_triangle])
    found = np.zeros(len(points), np.bool_)
    found[of_point[distance <= reach]] = True
    return found


def _distances(points: Array, triangles: Array) -> Array:
    """Of each point (k, 3) from its triangle (k, 3, 3)."""
    corners = [triangles[:, k] for k in range(3)]
    ends = corners[1:] + corners[:1]
    normal = np.cross(corners[1] - corners[0], corners[2] - corners[0])
    inside = np.ones(len(points), np.bool_)
    shortest = np.full(len(points), np.inf)
    for begin, end in zip(corners, ends, strict=True):
        edge, away = end - begin, points - begin
        along = (away * edge).sum(axis=1) / (edge * edge).sum(axis=1)
        foot = begin + np.clip(along, 0.0, 1.0)[:, None] * edge
        shortest = np.minimum(shortest, np.linalg.norm(points - foot, axis=1))
        inside &= (np.cross(edge, away) * normal).sum(axis=1) >= 0
    above = np.abs(((points - corners[0]) * normal).sum(axis=1)) / np.linalg.norm(normal, axis=1)
    found: Array = np.where(inside, above, shortest)
    return found
