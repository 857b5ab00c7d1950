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
    count = len(levels)
    near = np.zeros(count, np.bool_)
    for cells in space.cells:
        near[cells.corners[_is_cut(levels[cells.corners])]] = True
    full, whole = np.zeros((2, count))
    for cells in space.cells:
        some = cells.some(np.asarray(near[cells.corners].any(axis=1)))
        inside, every = _around(some, levels)
        full += np.bincount(some.corners.ravel(), inside.ravel(), count)
        whole += np.bincount(some.corners.ravel(), every.ravel(), count)
    share = full[near] / whole[near]
    found = np.zeros(count, np.bool_)
    found[near] = np.where(levels[near] > 0, share < LEAST_AROUND, share > MOST_AROUND)
    return found


def cut_share(space: DesignVolume, levels: Array) -> float:
    """Part of the elements that follow the level field through which its surface goes."""
    cut = sum(int(_is_cut(levels[cells.corners]).sum()) for cells in space.cells)
    return cut / sum(len(cells.corners) for cells in space.cells)


def _is_cut(levels: Array) -> Array:
    return np.asarray((levels > 0).any(axis=1) & (levels <= 0).any(axis=1))


def _around(cells: Cells, levels: Array) -> tuple[Array, Array]:
    """Integrals (e, c) of the corners' functions: over the material, and over all of each."""
    # Not by products of matrices, as in `volume`.
    inside = np.einsum("ec,cp->ep", levels[cells.corners], cells.shapes) > 0
    return (
        np.einsum("ep,cp->ec", inside * cells.volumes, cells.shapes),
        np.einsum("ep,cp->ec", cells.volumes, cells.shapes),
    )
