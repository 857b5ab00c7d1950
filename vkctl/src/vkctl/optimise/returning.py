"""Going back at a loop's end to a part that it had and lost.

A member that is as thin as the mesh can tell may be lost from one step to the next, and what hung
on it with it; the loop then goes on from what is left, and may end far from the best it had.
"""

from __future__ import annotations

import numpy as np

from . import history
from .history import HistoryRow
from .limits.table import HELD, ratios_of
from .standing import Loop, levels_of

_LOST = (
    0.02  # part that the objective is above that of the best step, from which it is gone back to
)
_NEAR = 0.9  # part of a limit from which the next step may break it
_LATEST = 3  # steps looked at for that beside a volume that is given
_NEARER = 0.01  # part that a ratio to a limit is above that of the nearest step, the same
_AT_HOME = 10  # steps at the volume that is wanted, before which the loop is still on its way
_MET = 2e-4  # of the design volume: as much has the part what it was to have


def lost_step(loop: Loop, ending: bool = False) -> int | None:
    """The step of the best part that the loop had, if much was lost since.

    Of the steps with the present settings that held all limits, at the volume that is wanted or,
    for the least mass, at any. Parts with sizes are left as they are: a better one may not have had
    them. `ending` has the loop end after one more step: where a limit was near, that step may break
    it, and the best part counts as lost however little is, even if it is the last one; and where
    none held the limits, the best is the one that came nearest.
    """
    if loop.design.shape.has_sizes or has_gone_back(loop):
        return None
    ratios = _largest_ratios(loop)
    rows = loop.rows[loop.state.since - 1 :]
    if loop.settings.limits:
        rows = [row for row in rows if row.step in ratios]
    if not (mass := loop.settings.goal == "mass"):
        rows = [row for row in rows if _at_home(row, loop.settings.volume)]
        if len(rows) < _AT_HOME:
            return None
    held = [row for row in rows if ratios.get(row.step, 0.0) <= HELD]
    if not held:
        return _nearest(rows, ratios) if ending else None
    best = min(held, key=lambda row: row.objective)
    last = loop.rows[-1]
    broken = ratios.get(last.step, 0.0) > HELD
    lost = broken or last.objective > (1 + _LOST) * best.objective
    looked_at = rows if mass else rows[-_LATEST:]
    at_risk = ending and max(ratios.get(row.step, 0.0) for row in looked_at) > _NEAR
    return best.step if lost or at_risk else None


def _nearest(rows: list[HistoryRow], ratios: dict[int, float]) -> int | None:
    """The step whose largest ratio to a limit is the least, if it isn't about the last one's."""
    best = min((row.step for row in rows), key=ratios.__getitem__, default=None)
    if best is None or ratios[best] * (1 + _NEARER) > ratios[rows[-1].step]:
        return None
    return best


def _at_home(row: HistoryRow, volume: float) -> bool:
    return abs(row.target - volume) <= 1e-9 and abs(row.volume - volume) <= _MET


def _largest_ratios(loop: Loop) -> dict[int, float]:
    """Of each step with the present settings, the largest ratio of a value to its limit."""
    if loop.steering is None:
        return {}
    found = ratios_of(loop.steering.rows, loop.state.since)
    return {step: max(ratios) for step, ratios in found.items()}


def go_back(loop: Loop, ending: bool) -> None:
    """Have the next step solve the levels of the best one again, where that was lost."""
    state, best = loop.state, lost_step(loop, ending)
    if best is None or state.returned == state.step:
        return
    path = history.levels_file(loop.directory, state.step)
    history.save_array(path, levels_of(loop, best))
    state.returned = state.step
    if loop.settings.goal == "mass":
        state.target = None  # a further step goes on from the volume that it has
    history.write_state(loop.directory, state)


def has_gone_back(loop: Loop) -> bool:
    """Whether the last step solved the levels of an earlier one."""
    return 0 < loop.state.returned == loop.state.step - 1


def told_return(loop: Loop) -> list[str]:
    """A sentence on it, where the last step went back further than to the one before."""
    if not has_gone_back(loop) or len(loop.rows) < 2:
        return []
    before, last = loop.rows[-2:]
    if np.array_equal(levels_of(loop, before.step), levels_of(loop, last.step)):
        return []
    earlier = [ratio for step, ratio in _largest_ratios(loop).items() if step < last.step]
    if earlier and min(earlier) > HELD:
        return [f"step {last.step} has the part again that came nearest to its limits"]
    if loop.settings.goal == "mass":
        return [
            f"step {last.step} has the lightest part again that held all limits: "
            f"volume {last.volume:.4g}, after {before.volume:.4g}"
        ]
    had = "held all limits" if loop.settings.limits else "the loop had"
    return [
        f"step {last.step} has the stiffest part again that {had}: "
        f"objective {last.objective:.6g}, after it had come to {before.objective:.6g}"
    ]
