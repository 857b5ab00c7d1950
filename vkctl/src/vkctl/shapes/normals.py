"""Normals of faces at their nodes, and patches of faces that lie smoothly side by side."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .functions import quad4, tri3, tri6
from .topology import HEX8_SIGNS

_TRIANGLE = ((0.0, 0.0), (1.0, 0.0), (0.0, 1.0), (0.5, 0.0), (0.5, 0.5), (0.0, 0.5))
_PLACES = {3: _TRIANGLE[:3], 4: tuple(map(tuple, HEX8_SIGNS[:4, :2])), 6: _TRIANGLE}
_SHAPES = {3: tri3, 4: quad4, 6: tri6}
CORNERS_PER_FACE = {3: 3, 4: 4, 6: 3}


def normals_at_nodes(nodes: Array, table: Array) -> Array:
    """Outward normals (faces, width, 3) of one table's faces at their own nodes.

    Their length goes with the area around the node, so that sums weigh by area.
    """
    width = table.shape[1]
    corners = nodes[table - 1]
    found = np.empty(corners.shape)
    for place, (r, s) in enumerate(_PLACES[width]):
        a, b = np.einsum("fna,nb->bfa", corners, _SHAPES[width](r, s)[1])
        found[:, place] = np.cross(a, b)
    return found


def corner_normals(nodes: Array, tables: list[Array]) -> tuple[Array, Array]:
    """Places and unit normals at the corners of all faces, (k, 3) each."""
    places, normals = [], []
    for table in tables:
        count = CORNERS_PER_FACE[table.shape[1]]
        places.append(nodes[table[:, :count] - 1].reshape(-1, 3))
        normals.append(normals_at_nodes(nodes, table)[:, :count].reshape(-1, 3))
    every = np.concatenate(normals)
    return np.concatenate(places), every / np.linalg.norm(every, axis=1, keepdims=True)


def smooth_patches(nodes: Array, tables: list[Array], angle: float) -> list[list[Array]]:
    """Faces in groups that hang together over edges bent by less than `angle` degrees.

    Each group has a table for each of `tables` of which it takes faces.
    """
    from scipy import sparse
    from scipy.sparse import csgraph

    edges, owners, units, first = [], [], [], 0
    for table in tables:
        corners = table[:, : CORNERS_PER_FACE[table.shape[1]]].astype(np.int64)
        faces = first + np.arange(len(table))
        edges.append(np.stack((corners, np.roll(corners, -1, axis=1)), axis=-1).reshape(-1, 2))
        owners.append(np.repeat(faces, corners.shape[1]))
        mean = normals_at_nodes(nodes, table)[:, : corners.shape[1]].sum(axis=1)
        units.append(mean / np.linalg.norm(mean, axis=1, keepdims=True))
        first += len(table)
    ends, owner = np.sort(np.concatenate(edges), axis=1), np.concatenate(owners)
    order = np.lexsort((ends[:, 1], ends[:, 0]))
    ends, owner = ends[order], owner[order]
    same = np.flatnonzero(np.all(ends[1:] == ends[:-1], axis=1))
    a, b = owner[same], owner[same + 1]
    normals = np.concatenate(units)
    smooth = np.einsum("ij,ij->i", normals[a], normals[b]) >= np.cos(np.radians(angle))
    links = sparse.coo_array(
        (np.ones(np.count_nonzero(smooth)), (a[smooth], b[smooth])), shape=(first, first)
    )
    count, patch = csgraph.connected_components(links, directed=False)
    split = np.split(patch, np.cumsum([len(t) for t in tables])[:-1])
    chosen = [[t[p == k] for t, p in zip(tables, split, strict=True)] for k in range(count)]
    return [[table for table in group if len(table)] for group in chosen]
