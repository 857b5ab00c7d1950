"""Teeth and dents of the part's surface: nodes on the other side than nearly all around them.

A level field can hold a thread or a dot of material far thinner than an element, or a pit as
thin. The mesh can't resolve them, and another mesh wouldn't have them.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .volume import Cells, DesignVolume, blocks_of

# Part of what lies around a node, weighted by its shape function, that is material. A flat surface
# through the node leaves a half, an edge of 90 degrees a quarter of it or three.
LEAST_AROUND = 0.2  # for a node in the material
MOST_AROUND = 0.8  # for a node outside


def uneven_nodes(space: DesignVolume, levels: Array) -> Array:
    """Nodes, bool (n,), that are teeth or dents of the surface that a level per node has."""
    inside = levels > 0
    counts = [cells.of_corners(inside) for cells in space.cells]
    near = np.zeros(len(levels), np.bool_)
    full = np.zeros(len(levels))
    for cells, count in zip(space.cells, counts, strict=True):
        cut = _cut(cells, count)
        corners = cells.corners.take(cut, axis=1)
        near[corners] = True
        parts = np.empty(corners.shape)
        for block in blocks_of(len(cut)):
            parts[:, block] = _inside(cells, levels, cut[block])
        full += np.bincount(corners.ravel(), parts.ravel(), len(levels))
    for cells, count in zip(space.cells, counts, strict=True):
        whole = np.flatnonzero(count == len(cells.corners))
        beside = whole[near.take(cells.corners.take(whole, axis=1)).any(axis=0)]
        corners, parts = (each.take(beside, axis=1) for each in (cells.corners, cells.parts))
        full += np.bincount(corners.ravel(), parts.ravel(), len(levels))
    share = full[near] / space.around[near]
    found = np.zeros(len(levels), np.bool_)
    found[near] = np.where(inside[near], share < LEAST_AROUND, share > MOST_AROUND)
    return found


def cut_share(space: DesignVolume, levels: Array) -> float:
    """Part of the elements that follow the level field through which its surface goes."""
    cut = sum(len(_cut(cells, cells.of_corners(levels > 0))) for cells in space.cells)
    return cut / sum(len(cells.wholes) for cells in space.cells)


def _cut(cells: Cells, count: Array) -> Array:
    """Places of the elements of whose corners so many (e,) are in a mask: some, but not all."""
    return np.flatnonzero((count > 0) & (count < len(cells.corners)))


def _inside(cells: Cells, levels: Array, places: Array) -> Array:
    """Integrals (c, e) of the corners' functions over the material, of a block of elements."""
    inside = cells.levels(levels, places) > 0
    volumes = inside * cells.volumes[cells.rows[places]]
    return np.asarray(cells.shapes @ volumes.T)
