"""Teeth and dents of the part's surface: nodes on the other side than nearly all around them.

A level field can hold a thread or a dot of material far thinner than an element, or a pit as
thin. The mesh can't resolve them, and another mesh wouldn't have them.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .volume import Cells, DesignVolume

# Part of what lies around a node, weighted by its shape function, that is material. A flat surface
# through the node leaves a half, an edge of 90 degrees a quarter of it or three.
LEAST_AROUND = 0.2  # for a node in the material
MOST_AROUND = 0.8  # for a node outside


def uneven_nodes(space: DesignVolume, levels: Array) -> Array:
    """Nodes, bool (n,), that are teeth or dents of the surface that a level per node has."""
    inside = levels > 0
    cut = [_cut(cells, inside) for cells in space.cells]
    near = np.zeros(len(levels), np.bool_)
    for cells, of_cells in zip(space.cells, cut, strict=True):
        near[cells.corners.take(of_cells, axis=1)] = True
    full = np.zeros(len(levels))
    for cells, of_cells in zip(space.cells, cut, strict=True):
        all_over = cells.of_corners(inside) == len(cells.corners)
        whole = np.flatnonzero(all_over & (cells.of_corners(near) > 0))
        for some, parts in (
            (cells.some(whole), cells.parts.take(whole, axis=1)),
            (cells.some(of_cells), _inside(cells.some(of_cells), levels)),
        ):
            full += np.bincount(some.corners.ravel(), parts.ravel(), len(levels))
    share = full[near] / space.around[near]
    found = np.zeros(len(levels), np.bool_)
    found[near] = np.where(inside[near], share < LEAST_AROUND, share > MOST_AROUND)
    return found


def cut_share(space: DesignVolume, levels: Array) -> float:
    """Part of the elements that follow the level field through which its surface goes."""
    cut = sum(len(_cut(cells, levels > 0)) for cells in space.cells)
    return cut / sum(len(cells.wholes) for cells in space.cells)


def _cut(cells: Cells, inside: Array) -> Array:
    """Places of the elements some corners of which are in a mask of nodes, but not all."""
    count = cells.of_corners(inside)
    return np.flatnonzero((count > 0) & (count < len(cells.corners)))


def _inside(cells: Cells, levels: Array) -> Array:
    """Integrals (c, e) of the corners' functions over the material."""
    inside = cells.levels(levels) > 0
    return np.asarray(np.einsum("ep,cp->ce", inside * cells.volumes[cells.rows], cells.shapes))
