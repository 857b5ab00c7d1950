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

from .bracket import Bracket

_UNCUT = 1e-3  # level above which, at all corners, an element counts as full; as empty below minus
_MOST_TRIALS = 80
_MET = 1e-6  # of the design volume
_FEW_TRIALS = 14
_NEARLY_MET = 2e-4  # of the design volume


@dataclass(frozen=True)
class Cells:
    """Elements of a type that follow the level field, at the points of the solver's finer rule."""

    corners: Array  # (e, c), 0-based nodes
    shapes: Array  # (c, p): values of the corners' functions that interpolate the level
    volumes: Array  # (e, p) that belong to the points
    wholes: Array  # (e,): volume of each element

    def some(self, chosen: Array) -> Cells:
        return Cells(self.corners[chosen], self.shapes, self.volumes[chosen], self.wholes[chosen])


@dataclass(frozen=True)
class Filled:
    """How much of each element (e,) is material, and which are so all over or nowhere."""

    volumes: Array
    full: Array
    empty: Array


@dataclass(frozen=True)
class DesignVolume:
    """What the part of the design volume that is material is summed over."""

    cells: tuple[Cells, ...]
    total: float
    slope: float  # of the solver's presence

    def share(self, nodes: Array) -> float:
        """Material's part of the design volume, of the levels per node."""
        volumes = (filled(cells, nodes, self.slope).volumes for cells in self.cells)
        return min(sum(float(of_cells.sum()) for of_cells in volumes) / self.total, 1.0)

    def threshold(
        self,
        target: float,
        low: float,
        high: float,
        field: Callable[[float], Array],
        guess: float | None = None,
    ) -> float:
        """Where between `low` and `high` a field that falls with its threshold has a share.

        `field` gives levels per node. Elements that are full or empty all over what is left of the
        range are summed once, so that late trials look at few of them.
        """
        settled, cells = 0.0, self.cells
        bracket = Bracket(low, high, 0.5 * (low + high) if guess is None else guess)
        for _ in range(_MOST_TRIALS):
            nodes = field(bracket.trial)
            found = [filled(some, nodes, self.slope) for some in cells]
            excess = settled + sum(float(f.volumes.sum()) for f in found) - target * self.total
            if abs(excess) <= _MET * self.total or not bracket.narrow(excess):
                break
            kept = []
            for some, of_cells in zip(cells, found, strict=True):
                # Above the threshold the field is lower still, below it higher.
                done = of_cells.empty if excess > 0 else of_cells.full
                settled += float(of_cells.volumes[done].sum())
                kept.append(some.some(~done))
            cells = tuple(kept)
        return bracket.trial

    def nearest_threshold(
        self, target: float, high: float, field: Callable[[float], Array], guess: float
    ) -> float:
        """The same of a field that may jump, and need not fall everywhere: the nearest found."""
        bracket = Bracket(0.0, high, guess)
        best, found = np.inf, guess
        for _ in range(_FEW_TRIALS):
            excess = self.share(field(bracket.trial)) - target
            if abs(excess) < best - _NEARLY_MET:  # where nothing changes the first is as good
                best, found = abs(excess), bracket.trial
            if best <= _NEARLY_MET or not bracket.narrow(excess):
                break
        return found


def filled(cells: Cells, nodes: Array, slope: float) -> Filled:
    """The material in each element, from the levels per node."""
    lowest = nodes[cells.corners[:, 0]]
    highest = lowest
    for column in cells.corners.T[1:]:  # a column at a time: rows are too short for NumPy
        levels = nodes[column]
        lowest, highest = np.minimum(lowest, levels), np.maximum(highest, levels)
    full, empty = lowest > _UNCUT, highest < -_UNCUT
    volumes = cells.wholes.copy()
    volumes[empty] *= sharp_presences(np.array(-1.0), slope)
    cut = np.flatnonzero(~(full | empty))
    # Not by a product of matrices, whose threads would go on spinning beside the solver.
    levels = np.einsum("ec,cp->ep", nodes[cells.corners[cut]], cells.shapes)
    presences = sharp_presences(levels, slope)
    volumes[cut] = np.einsum("ep,ep->e", presences, cells.volumes[cut])
    return Filled(volumes, full, empty)


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
    own = rows[:, :corners].astype(np.int64) - 1
    return Cells(own, np.ascontiguousarray(shapes.T), volumes, volumes.sum(axis=1))
