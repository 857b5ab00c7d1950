"""What repeating a load case changes, and whether it has settled."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Literal

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.results import KEEP_QUALITY

# Numbers in files have single precision: smaller changes are its noise, and shrink no further.
FLOOR = 1e-6
WINDOW = 4  # rounds that are compared with as many before them
_SHRINKS = 0.99  # part of the least change of the rounds before

# A load case goes on, has settled, doesn't shrink its changes any more, or ends too poorly to
# leave a start vector, so that another round would begin where this one did. Or its changes have
# ended only because the solver lets no stiffness fall further: it can't carry its loads.
Verdict = Literal["open", "settled", "stalled", "poor", "collapsed"]


@dataclass(frozen=True)
class Change:
    """What a round changed in a load case, as parts of what is there; inf where nobody knows."""

    displacements: float  # largest change of a node, by the largest displacement
    state: float  # largest change of an element's state factor, by that factor
    energy: float
    elements: int = 0  # whose state factor has changed
    stiffness: float = 0.0  # largest change of a factor by that of the full material, which is 1
    poor: bool = False  # the round left no start vector

    @property
    def largest(self) -> float:
        return max(self.displacements, self.state, self.energy)


@dataclass(frozen=True)
class Solution:
    """What is compared of a load case; None where there is no such file, or an older one's."""

    energy: float
    moved: float  # largest displacement of a free component
    poor: bool
    displacements: Array | None
    state: Array | None


def read_solution(folder: PathLike, number: int) -> Solution | None:
    """Solution of a load case, None where there is none or its files are damaged."""
    try:
        return _read_solution(folder, number)
    except (FileNotFoundError, formats.FormatError):
        return None


def _read_solution(folder: PathLike, number: int) -> Solution:
    totals = formats.read_totals(folder, number)
    poor = not totals["ARQua"] > np.float32(KEEP_QUALITY)
    return Solution(
        energy=float(totals["SEner"]),
        moved=float(totals["MaxDis"]),
        poor=poor,
        displacements=None if poor else _displacements(folder, number),
        state=_state(folder, number),
    )


def _displacements(folder: PathLike, number: int) -> Array | None:
    try:
        return formats.read_displacements(folder, number)
    except FileNotFoundError:
        return None


def _state(folder: PathLike, number: int) -> Array | None:
    try:
        return formats.read_element_state(folder, number)
    except FileNotFoundError:
        return None


def change(before: Solution | None, after: Solution | None) -> Change:
    """What lies between two solutions of a load case."""
    if before is None or after is None:
        poor = after is not None and after.poor
        return Change(math.inf, math.inf, math.inf, stiffness=math.inf, poor=poor)
    state, elements, stiffness = _state_change(before.state, after.state)
    return Change(
        _displacement_change(before.displacements, after.displacements),
        state,
        _relative(before.energy, after.energy),
        elements,
        stiffness,
        after.poor,
    )


def has_vanished(before: Solution | None, after: Solution | None) -> bool:
    """Whether the solver took an exact start for an unloaded part.

    Where nothing is left over by the start vector it sets all free components to zero.
    """
    if before is None or after is None or before.displacements is None:
        return False  # without a start vector there was nothing to be exact
    return before.moved > 0 and after.moved == 0


def _relative(before: float, after: float) -> float:
    size = max(abs(before), abs(after))
    return _known(abs(after - before) / size if size != 0 else 0.0)


def _known(part: float) -> float:
    return part if math.isfinite(part) else math.inf


def _displacement_change(before: Array | None, after: Array | None) -> float:
    if before is None or after is None or before.shape != after.shape:
        return math.inf
    old, new = before.astype(np.float64), after.astype(np.float64)
    size = float(np.linalg.norm([old, new], axis=2).max(initial=0.0))
    apart = float(np.linalg.norm(new - old, axis=1).max(initial=0.0))
    return _known(apart / size if size != 0 else 0.0)


def _state_change(before: Array | None, after: Array | None) -> tuple[float, int, float]:
    """Largest change of a factor by itself, how many have changed, and the largest as it is."""
    if after is None:
        return 0.0, 0, 0.0
    old = np.ones(len(after)) if before is None else before.astype(np.float64)
    if len(old) != len(after):
        return math.inf, len(after), math.inf
    new = after.astype(np.float64)
    size = np.maximum(np.abs(old), np.abs(new))
    apart = np.abs(new - old)
    apart[~np.isfinite(apart)] = math.inf
    parts = apart / np.where(np.isfinite(size) & (size > 0), size, 1.0)
    return (
        float(parts.max(initial=0.0)),
        int((parts > FLOOR).sum()),
        float(apart.max(initial=0.0)),
    )


def left(series: Sequence[float]) -> float:
    """What all further rounds would change if each shrinks as the last one did.

    inf where the last two changes don't tell: one of them unknown, or no shrinking.
    """
    if series and series[-1] <= FLOOR:
        return series[-1]
    if len(series) < 2 or not series[-1] < series[-2] < math.inf:
        return math.inf
    ratio = series[-1] / series[-2]
    return series[-1] * ratio / (1 - ratio)


def _series(changes: Sequence[Change]) -> list[list[float]]:
    return [
        [entry.displacements for entry in changes],
        [entry.state for entry in changes],
        [entry.energy for entry in changes],
    ]


def all_left(changes: Sequence[Change]) -> float:
    """`left` of the quantity that has most."""
    return max(left(series) for series in _series(changes))


def ratio(changes: Sequence[Change]) -> float | None:
    """How the largest change of the last round compares with that of the round before."""
    if len(changes) < 2 or not 0 < changes[-2].largest < math.inf:
        return None
    return changes[-1].largest / changes[-2].largest


def verdict(changes: Sequence[Change], tolerance: float) -> Verdict:
    """How a load case stands after these rounds."""
    if not changes:
        return "open"
    if changes[-1].poor:
        return "poor"
    if changes[-1].largest <= FLOOR or (
        changes[-1].largest < tolerance and all_left(changes) < tolerance
    ):
        return "settled"
    if len(changes) >= 2 * WINDOW and not _shrinks(changes):
        return "stalled"
    return "open"


def _shrinks(changes: Sequence[Change]) -> bool:
    """Whether one of the quantities has come to a new low of late.

    While yielding spreads, factors fall in a geometric series, each by the same part of itself,
    and elements that take compression only change tenfold until the last: what shrinks is the
    change as it is, and the number of elements.
    """
    others = [
        [entry.elements if entry.state < math.inf else math.inf for entry in changes],
        [entry.stiffness for entry in changes],
    ]
    for series in _series(changes) + others:
        before, now = min(series[-2 * WINDOW : -WINDOW]), min(series[-WINDOW:])
        if now > FLOOR and now < _SHRINKS * before:
            return True
    return False
