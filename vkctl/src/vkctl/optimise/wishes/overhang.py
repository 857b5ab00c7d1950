"""Shapes that can be printed: every point is held from below.

A point may be material only if something is within the cone below it, which is looked for layer
after layer from the plate up: the lower one of its own level and the highest in the cone counts.
M. Langelaar, Addit. Manuf. 12 (2016) 60-70; on unstructured meshes E. van de Ven, R. Maas,
C. Ayas, M. Langelaar, F. van Keulen, Struct. Multidisc. Optim. 57 (2018) 2075-2091. The highest is
taken itself, not a smooth likeness: nothing here is derived.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.shapes.topology import CORNERS_PER_TYPE, TYPES

from .entries import Overhang
from .sampling import Field

_REACH = 1.6  # edges, to what holds a point: on a grid the next ones across its squares
_FURTHER = 3.0  # edges, where there is nothing closer in the cone
_ON_PLATE = 0.25  # of an edge above the lowest point
_ROUNDING = 1e-3  # of the angle's cosine
_EQUAL = 1e-4  # of the scores of what may hold a point: a symmetric shape stays so


@dataclass(frozen=True)
class Layer:
    """Points whose holders all lie in layers below."""

    points: Array
    holders: Array  # of the first point, of the second, ...
    begins: Array  # where those of each point begin

    def highest(self, values: Array) -> Array:
        """The highest value among the holders of each point."""
        found: Array = np.maximum.reduceat(values[self.holders], self.begins)
        return found

    def sizes(self) -> Array:
        return np.diff(np.append(self.begins, len(self.holders)))


@dataclass(frozen=True)
class Held:
    """What holds each point while it is printed."""

    layers: list[Layer]  # from the plate up, without those on it
    loose: Array  # points with nothing in their cone: empty unless they are to keep
    kept: Array  # bool (p,): there whatever holds them

    def printed(self, levels: Array) -> Array:
        """Levels of what is held; nothing is higher than before."""
        found = levels.copy()
        found[self.loose] = -1.0
        found[self.kept] = levels[self.kept]
        for layer in self.layers:
            free = ~self.kept[layer.points]
            lowest = np.minimum(found[layer.points], layer.highest(found))
            found[layer.points[free]] = lowest[free]
        return found

    def holding(self, criterion: Array, levels: Array) -> Array:
        """A criterion that has what holds a point count as much as the point itself.

        That is the holder with the highest level, so that what is there goes on to hold.
        """
        found = criterion.copy()
        scale = max(float(criterion.max()), 1e-300)
        for layer in reversed(self.layers):
            scores = levels + found / scale
            best = np.repeat(layer.highest(scores), layer.sizes())
            chosen = scores[layer.holders] >= best - _EQUAL
            wanted = np.repeat(found[layer.points], layer.sizes())
            np.maximum.at(found, layer.holders[chosen], wanted[chosen])
        return found


def held_points(field: Field, overhang: Overhang, kept: Array) -> Held:
    """Holders of all design points; ValueError where most points have none."""
    axis = np.array(overhang.direction) / np.linalg.norm(overhang.direction)
    height = field.points @ axis
    plate = height.min() if overhang.plate is None else float(np.array(overhang.plate) @ axis)
    standing = height <= plate + _ON_PLATE * field.edge
    upper, lower = _in_cone(field, axis, overhang.angle, _REACH)
    without = ~standing & (np.bincount(upper, minlength=len(height)) == 0)
    if without.any():
        far = _in_cone(field, axis, overhang.angle, _FURTHER, np.flatnonzero(without))
        upper, lower = (np.concatenate(pair) for pair in zip((upper, lower), far, strict=True))
    hanging = ~standing[upper]
    upper, lower = upper[hanging], lower[hanging]
    loose = ~standing & (np.bincount(upper, minlength=len(height)) == 0)
    return Held(_layers(height, upper, lower), np.flatnonzero(loose), kept)


def _in_cone(
    field: Field, axis: Array, angle: float, reach: float, some: Array | None = None
) -> tuple[Array, Array]:
    """Pairs of a point and one in the cone below it."""
    tree = scipy.spatial.cKDTree(field.points)
    chosen = np.arange(len(field.points)) if some is None else some
    near = tree.query_ball_point(field.points[chosen], reach * field.edge)
    upper = np.repeat(chosen, [len(found) for found in near])
    lower = np.concatenate([np.empty(0, np.int64), *near]).astype(np.int64)
    apart = field.points[upper] - field.points[lower]
    distance = np.linalg.norm(apart, axis=1)
    held = (distance > 0) & (apart @ axis >= (np.cos(np.radians(angle)) - _ROUNDING) * distance)
    held &= _of_corners(field)[lower]
    return upper[held], lower[held]


def _of_corners(field: Field) -> Array:
    """Mask (p,) of the design points that some element has at a corner.

    The material in the middle of an edge follows its corners: a level there holds nothing.
    """
    index = field.model.node_tp_index
    assert index is not None
    found = np.zeros(len(field.points) + 1, np.bool_)
    for code in TYPES:
        corners = field.model.elements.of_type(code)[1][:, : CORNERS_PER_TYPE[code]]
        found[np.maximum(index[corners - 1], 0)] = True
    return found[1:]


def _layers(height: Array, upper: Array, lower: Array) -> list[Layer]:
    """Points by the longest chain of holders down to one that needs none."""
    depth = np.zeros(len(height), np.int64)
    order = np.argsort(height[upper], kind="stable")
    upper, lower = upper[order], lower[order]
    while True:
        deeper = np.zeros_like(depth)
        np.maximum.at(deeper, upper, depth[lower] + 1)
        if np.array_equal(deeper, depth):
            break
        depth = deeper
    order = np.lexsort((upper, depth[upper]))
    upper, lower = upper[order], lower[order]
    found = []
    for level in np.split(np.arange(len(upper)), np.flatnonzero(np.diff(depth[upper])) + 1):
        if len(level):
            points, begins = np.unique(upper[level], return_index=True)
            found.append(Layer(points, lower[level], begins))
    return found
