"""The volume of the material inside the level field, by the law that the solver sums it with."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.functions import shape_values
from vkctl.shapes.measures import determinants
from vkctl.shapes.rules import FINE, solver_rule
from vkctl.shapes.topology import CORNERS_PER_TYPE, HEX8, TET4, TYPES
from vkctl.stress.points import sharp_presences
from vkctl.stress.solution import option_of

_UNCUT = 1e-3  # level above which, at all corners, an element counts as full; as empty below minus
_MOST_HALVINGS = 60
_MET = 1e-6  # of the design volume


@dataclass(frozen=True)
class Cells:
    """Elements of a type that follow the level field, at the points of the solver's finer rule."""

    corners: Array  # (e, c), 0-based nodes
    shapes: Array  # (p, c): values of the corners' functions that interpolate the level
    volumes: Array  # (e, p) that belong to the points

    def some(self, chosen: Array) -> Cells:
        return Cells(self.corners[chosen], self.shapes, self.volumes[chosen])


@dataclass(frozen=True)
class DesignVolume:
    """What the part of the design volume that is material is summed over."""

    cells: tuple[Cells, ...]
    total: float
    slope: float  # of the solver's presence

    def share(self, nodes: Array) -> float:
        """Material's part of the design volume, of the levels per node."""
        filled = (filled_volumes(cells, nodes, self.slope) for cells in self.cells)
        return min(sum(float(volumes.sum()) for volumes in filled) / self.total, 1.0)

    def threshold(
        self, target: float, low: float, high: float, field: Callable[[float], Array]
    ) -> float:
        """Where between `low` and `high` a field that falls with its threshold has a share.

        `field` gives levels per node. Elements that are full or empty all over what is left of the
        range are summed once, so that late halvings look at few of them.
        """
        settled, cells = 0.0, self.cells
        for _ in range(_MOST_HALVINGS):
            middle = 0.5 * (low + high)
            nodes = field(middle)
            filled = [filled_volumes(some, nodes, self.slope) for some in cells]
            excess = settled + sum(float(v.sum()) for v in filled) - target * self.total
            if abs(excess) <= _MET * self.total or not low < middle < high:
                break
            if excess > 0:
                low = middle
            else:
                high = middle
            kept = []
            for some, volumes in zip(cells, filled, strict=True):
                levels = nodes[some.corners]
                # Above the threshold the field is lower still, below it higher.
                done = _all_above(-levels if excess > 0 else levels, _UNCUT)
                settled += float(volumes[done].sum())
                kept.append(some.some(~done))
            cells = tuple(kept)
        return middle


def filled_volumes(cells: Cells, nodes: Array, slope: float) -> Array:
    """Volume (e,) of the material in each element, from the levels per node."""
    levels = nodes[cells.corners]
    full, empty = _all_above(levels, _UNCUT), _all_above(-levels, _UNCUT)
    found: Array = cells.volumes.sum(axis=1)
    found[empty] *= sharp_presences(np.array(-1.0), slope)
    cut = ~(full | empty)
    presences = sharp_presences(levels[cut] @ cells.shapes.T, slope)
    found[cut] = (presences * cells.volumes[cut]).sum(axis=1)
    return found


def _all_above(levels: Array, bound: float) -> Array:
    return np.asarray((levels > bound).all(axis=1))


def design_volume(model: Model) -> DesignVolume:
    """Of the elements that follow the level field; ValueError if there are none."""
    assert model.element_flags is not None
    off = model.element_flags & np.int16(EXCLUDED | formats.ELEMENT_NO_LEVEL) != 0
    found = []
    for code in TYPES:
        numbers, rows = model.elements.of_type(code)
        if (used := ~off[numbers - 1]).any():
            found.append(_cells(model.nodes, code, rows[used]))
    if not found:
        raise ValueError("no element follows the level field: there is nothing to design")
    total = sum(float(cells.volumes.sum()) for cells in found)
    return DesignVolume(tuple(found), total, option_of(model, "Sta.MatSlopeFactor"))


def _cells(nodes: Array, code: int, rows: Array) -> Cells:
    points, weights = solver_rule(code, FINE)
    corners = CORNERS_PER_TYPE[code]
    shapes = np.array([shape_values(HEX8 if code == HEX8 else TET4, point) for point in points])
    if code == TET4:  # its determinant is the same everywhere
        volumes = determinants(nodes, rows, code, points[:1]) * weights
    else:
        volumes = determinants(nodes, rows, code, points) * weights
    return Cells(rows[:, :corners].astype(np.int64) - 1, shapes, volumes)
