"""The surface that was cut out of a mesh, made smooth: what it was cut through stays as it is.

Each round moves every point towards the mean of its neighbours and then, a little further, away
from it: waves shorter than a few triangles go, longer ones stay (G. Taubin, SIGGRAPH 95, 351-358).
A point on an outer face of the mesh stays in its plane, one on an edge between two on their line.
Where the cut surface meets an outer face, neighbours are those along this curve alone. At the end
the cut surface is moved along its normals by the one distance that restores the volume. Where
triangles turn over or cut through others by that, as necks between beads do, points stay, and
around them as many as it takes.
"""

from __future__ import annotations

from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array

from .crossing import crossing
from .cutting import Surface
from .shells import areas, edges_of, enclosed

_ROUNDS = 40
_TOWARDS, _AWAY = 0.5, -0.53  # what is longer than some ten triangles passes
_PLANE = 3e-4  # fourth of the squared angle, 2 degrees, up to which faces count as one plane
_CORRECTIONS = 5
_TRIALS = 30  # in each of which more points stay as they were


def smoothed(part: Surface, fixed: Array) -> tuple[Array, int]:
    """Points (n, 3) of a closed surface made smooth; those of the mask `fixed` stay.

    And how many triangles are left that turned over or cut through others: hardly ever any.
    """
    cut = np.asarray((part.levels[part.triangles] == 0).all(axis=1))
    freedom, ranks = _freedom(part, cut)
    means, alone = _means(part, cut, ranks)
    stays = fixed | alone
    for _ in range(_TRIALS):
        freedom[stays] = 0.0
        points = part.points.copy()
        for _ in range(_ROUNDS):
            for share in (_TOWARDS, _AWAY):
                points += share * _allowed(freedom, means @ points - points)
        points = _with_volume(points, part, cut, freedom)
        wrong = _turned(points, part) | crossing(points, part.triangles, cut)
        if not wrong.any():
            break
        stays = _more(stays, part.triangles, wrong)
    return points, int(np.count_nonzero(wrong))


def _more(stays: Array, triangles: Array, wrong: Array) -> Array:
    """With the corners of triangles, and where these stayed already, of those around them."""
    more = stays.copy()
    more[triangles[wrong]] = True
    stood = wrong & stays[triangles].all(axis=1)
    at_them = np.zeros(len(stays), np.bool_)
    at_them[triangles[stood]] = True
    more[triangles[at_them[triangles].any(axis=1)]] = True
    return more


def _turned(points: Array, part: Surface) -> Array:
    """Triangles that are seen from the other side than before: the surface overlaps there."""
    before, after = areas(part.points, part.triangles), areas(points, part.triangles)
    turned: Array = (before * after).sum(axis=1) < 0
    return turned


def _allowed(freedom: Array, moves: Array) -> Array:
    found: Array = np.einsum("nij,nj->ni", freedom, moves)
    return found


def _freedom(part: Surface, cut: Array) -> tuple[Array, Array]:
    """Projections (n, 3, 3) on where each point may go, and from how many planes it is held."""
    count, triangles = len(part.points), part.triangles
    across = areas(part.points, triangles)
    lengths = np.linalg.norm(across, axis=1)
    weights = np.where(cut, 0.0, 1.0 / np.maximum(lengths, np.finfo(float).tiny))
    squares = (across[:, :, None] * across[:, None, :] * weights[:, None, None]).reshape(-1, 9)
    summed = _at_points(squares, triangles, count).reshape(-1, 3, 3)
    total = np.trace(summed, axis1=1, axis2=2)
    values, vectors = np.linalg.eigh(summed / np.where(total > 0, total, 1.0)[:, None, None])
    held = values > _PLANE
    freedom = np.eye(3) - np.einsum("nik,nk,njk->nij", vectors, held.astype(float), vectors)
    return freedom, held.sum(axis=1)


def _at_points(values: Array, triangles: Array, count: int) -> Array:
    """Sums (n, w) over the triangles at each point."""
    corners = triangles.ravel()
    repeated = np.repeat(values, 3, axis=0)
    return np.column_stack([np.bincount(corners, column, count) for column in repeated.T])


def _means(part: Surface, cut: Array, ranks: Array) -> tuple[Any, Array]:
    """Matrix that takes the mean of the neighbours of each point, and points that have none."""
    count = len(part.points)
    edges, edge = edges_of(part.triangles)
    owner = np.repeat(np.arange(len(cut)), 3)
    rims = np.bincount(edge, cut[owner]) == 1  # the cut surface on one side
    on_rim = np.zeros(count, np.bool_)
    on_rim[edges[rims]] = True
    creases = _bent(part, owner[np.argsort(edge, kind="stable")].reshape(-1, 2), cut)
    on_crease = (ranks >= 2) & ~on_rim
    pairs = np.concatenate(
        (
            _from(edges, ~on_rim & ~on_crease),
            _from(edges[rims], on_rim),
            _from(edges[creases], on_crease),
        )
    )
    degree = np.bincount(pairs[:, 0], minlength=count)
    shares = 1.0 / np.maximum(degree, 1)[pairs[:, 0]]
    means = scipy.sparse.csr_array((shares, (pairs[:, 0], pairs[:, 1])), shape=(count, count))
    return means, (degree == 0) | (on_rim & (degree != 2))


def _bent(part: Surface, sides: Array, cut: Array) -> Array:
    """Edges between outer faces in different planes; `sides` are the two triangles of each."""
    across = areas(part.points, part.triangles)
    first, second = (across[sides[:, k]] for k in range(2))
    squares = (first**2).sum(axis=1) * (second**2).sum(axis=1)
    bent: Array = (first * second).sum(axis=1) ** 2 < (1.0 - 4.0 * _PLANE) * squares
    return bent & ~cut[sides].any(axis=1)


def _from(edges: Array, chosen: Array) -> Array:
    """Edges in both directions, from chosen points."""
    both = np.concatenate((edges, edges[:, ::-1]))
    found: Array = both[chosen[both[:, 0]]]
    return found


def _with_volume(points: Array, part: Surface, cut: Array, freedom: Array) -> Array:
    """The points with the cut surface moved to where it encloses what it did."""
    wanted = enclosed(part.points, part.triangles)
    across = areas(points, part.triangles[cut])
    normals = _at_points(across, part.triangles[cut], len(points))
    lengths = np.linalg.norm(normals, axis=1, keepdims=True)
    outwards = _allowed(freedom, normals / np.maximum(lengths, np.finfo(float).tiny))
    growth = 0.5 * float((across * outwards[part.triangles[cut]].mean(axis=1)).sum())
    if growth <= 0:
        return points
    # A pocket that smoothing has all but closed has hardly any surface to move.
    furthest = float(np.sqrt(np.linalg.norm(across, axis=1).max()))
    for _ in range(_CORRECTIONS):
        distance = (wanted - enclosed(points, part.triangles)) / growth
        points = points + float(np.clip(distance, -furthest, furthest)) * outwards
    return points
