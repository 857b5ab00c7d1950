"""The volume of the material inside the level field, by the law that the solver sums it with."""

from __future__ import annotations

from collections.abc import Callable, Iterator
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
# Elements at a time: products of larger matrices have threads, which spin on beside the solver.
_BLOCK = 1 << 9
MET = 1e-5  # of the design volume: a point of an element is about as much
_FEW_TRIALS = 14
NEARLY_MET = 2e-4  # of the design volume


@dataclass(frozen=True)
class Cells:
    """Elements of a type that follow the level field, at the points of the solver's finer rule."""

    corners: Array  # (c, e), 0-based nodes: NumPy is slow along short rows
    shapes: Array  # (c, p): values of the corners' functions that interpolate the level
    volumes: Array  # (m, p) that belong to the points, of these elements and others
    rows: Array  # (e,) of `volumes`
    wholes: Array  # (e,): volume of each element
    parts: Array  # (c, e): and what of it belongs to each corner

    def some(self, chosen: Array) -> Cells:
        """Those of a mask, or by their places."""
        chosen = np.flatnonzero(chosen) if chosen.dtype == np.bool_ else chosen
        return Cells(
            self.corners.take(chosen, axis=1),
            self.shapes,
            self.volumes,
            self.rows[chosen],
            self.wholes[chosen],
            self.parts.take(chosen, axis=1),
        )

    def of_corners(self, nodes: Array) -> Array:
        """Sums (e,) over the corners of small numbers, or how many are in a mask, of nodes."""
        marks: Array = nodes.view(np.int8)
        total: Array = marks.take(self.corners[0])
        for corner in self.corners[1:]:
            total += marks.take(corner)
        return total

    def levels(self, nodes: Array, places: Array) -> Array:
        """Levels (e, p) at the points of a block of elements, from those of the nodes."""
        at_corners = nodes.take(self.corners.take(places, axis=1))
        return np.asarray(at_corners.T @ self.shapes)


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
    around: Array  # (n,): volume of the elements around each node that belongs to it

    def share(self, nodes: Array) -> float:
        """Material's part of the design volume, of the levels per node."""
        volumes = (filled(cells, nodes, self.slope).volumes for cells in self.cells)
        return min(sum(float(of_cells.sum()) for of_cells in volumes) / self.total, 1.0)

    def threshold(
        self,
        target: float,
        high: float,
        field: Callable[[float], Array],
        guess: float,
        steepness: float | None = None,
        met: float = MET,
    ) -> tuple[float, float | None]:
        """Where up to `high` a field that falls with its threshold has a share, within `met`.

        `field` gives levels per node. Of an earlier search nearby comes the steepness: by how much
        the logarithm of the threshold rises for each unit that the share is to fall. Returned is
        that of this search too. Elements that are full or empty all over what is left of the range
        are summed once, so that late trials look at few of them.
        """
        settled, cells = 0.0, self.cells
        bracket = Bracket(0.0, high, guess, steepness)
        for _ in range(_MOST_TRIALS):
            nodes = field(bracket.trial)
            found = [filled(some, nodes, self.slope) for some in cells]
            excess = (settled + sum(float(f.volumes.sum()) for f in found)) / self.total - target
            if abs(excess) <= met:
                bracket.learn(excess)
                break
            if not bracket.narrow(excess):
                break
            kept = []
            for some, of_cells in zip(cells, found, strict=True):
                # Above the threshold the field is lower still, below it higher.
                done = of_cells.empty if excess > 0 else of_cells.full
                settled += float(of_cells.volumes[done].sum())
                kept.append(some.some(~done))
            cells = tuple(kept)
        return bracket.trial, bracket.learnt or steepness

    def nearest_threshold(
        self, target: float, high: float, field: Callable[[float], Array], guess: float
    ) -> float:
        """The same of a field that may jump, and need not fall everywhere: the nearest found."""
        bracket = Bracket(0.0, high, guess)
        best, found = np.inf, guess
        for _ in range(_FEW_TRIALS):
            excess = self.share(field(bracket.trial)) - target
            if abs(excess) < best - NEARLY_MET:  # where nothing changes the first is as good
                best, found = abs(excess), bracket.trial
            if best <= NEARLY_MET or not bracket.narrow(excess):
                break
        return found


def filled(cells: Cells, nodes: Array, slope: float) -> Filled:
    """The material in each element, from the levels per node."""
    sides = cells.of_corners((nodes > _UNCUT).view(np.int8) - (nodes < -_UNCUT).view(np.int8))
    full, empty = sides == len(cells.corners), sides == -len(cells.corners)
    volumes = cells.wholes.copy()
    volumes[empty] *= sharp_presences(np.array(-1.0), slope)
    cut = np.flatnonzero(~(full | empty))
    for block in blocks_of(len(cut)):
        some = cut[block]
        presences = sharp_presences(cells.levels(nodes, some), slope)
        volumes[some] = np.einsum("ep,ep->e", presences, cells.volumes[cells.rows[some]])
    return Filled(volumes, full, empty)


def blocks_of(count: int) -> Iterator[slice]:
    """So many elements, as many at a time as let what belongs to their points keep to caches."""
    for first in range(0, count, _BLOCK):
        yield slice(first, first + _BLOCK)


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
    total = sum(float(cells.wholes.sum()) for cells in found)
    around = np.zeros(len(model.nodes))
    for cells in found:
        around += np.bincount(cells.corners.ravel(), cells.parts.ravel(), len(around))
    return DesignVolume(tuple(found), total, option_of(model, "Sta.MatSlopeFactor"), around)


def _cells(nodes: Array, code: int, rows: Array) -> Cells:
    points, weights = solver_rule(code, FINE)
    corners = CORNERS_PER_TYPE[code]
    shapes = np.array([shape_values(HEX8 if code == HEX8 else TET4, point) for point in points])
    if code == TET4:  # its determinant is the same everywhere
        volumes = determinants(nodes, rows, code, points[:1]) * weights
    else:
        volumes = determinants(nodes, rows, code, points) * weights
    own = np.ascontiguousarray(rows[:, :corners].T).astype(np.intp) - 1
    shapes = np.ascontiguousarray(shapes.T)
    parts = np.einsum("ep,cp->ce", volumes, shapes)
    return Cells(own, shapes, volumes, np.arange(len(rows)), volumes.sum(axis=1), parts)
