"""Going back at a loop's end to a part that it had and lost.

A member that is as thin as the mesh can tell may be lost from one step to the next, and what hung
on it with it; the loop then goes on from what is left, and may end far from the best it had.
"""

from __future__ import annotations

from . import history
from .history import HistoryRow
from .limits.table import HELD, largest_ratios
from .standing import Loop, levels_of

_LOST = (
    0.02  # part that the objective is above that of the best step, from which it is gone back to
)
_NEAR = 0.9  # part of a limit from which the next step may break it
_NEARER = 0.01  # part that a ratio to a limit is above that of the nearest step, the same
_AT_HOME = 10  # steps at the volume that is wanted, before which the loop is still on its way
_MET = 2e-4  # of the design volume: as much has the part what it was to have


def lost_step(loop: Loop, ending: bool = False) -> int | None:
    """The step of the best part that the loop had, if much was lost since.

    Of the steps with the present settings that held all limits, at the volume that is wanted or,
    for the least mass, at any. Parts with sizes are left as they are: a better one may not have had
    them. `ending` has the loop end after one more step: where a limit was near on the way, that
    step may break it, and the best part counts as lost however little is, even if it is the last
    one; and where none held the limits, the best is the one that came nearest.
    """
    if loop.design.shape.has_sizes or has_gone_back(loop):
        return None
    rows = loop.rows[loop.state.since - 1 :]
    ratios = _ratios(loop)
    mass = loop.settings.goal == "mass"
    if not mass:
        rows = [row for row in rows if _at_home(row, loop.settings.volume)]
        if len(rows) < _AT_HOME:
            return None
    held = [row for row in rows if not ratios.get(row.step, 0.0) > HELD]
    if not held:
        return _nearest(rows, ratios) if ending else None
    best = min(held, key=lambda row: row.objective)
    last = loop.rows[-1]
    lost = last.objective > (1 + _LOST) * best.objective or last not in held
    at_risk = ending and max(ratios.get(row.step, 0.0) for row in rows) > _NEAR
    return best.step if lost or at_risk else None


def _nearest(rows: list[HistoryRow], ratios: dict[int, float]) -> int | None:
    """The step whose largest ratio to a limit is the least, if it isn't about the last one's."""
    steps = [row.step for row in rows if row.step in ratios]
    best = min(steps, key=ratios.__getitem__, default=None)
    if best is None or ratios[best] * (1 + _NEARER) > ratios[steps[-1]]:
        return None
    return best


def _at_home(row: HistoryRow, volume: float) -> bool:
    return abs(row.target - volume) <= 1e-9 and abs(row.volume - volume) <= _MET


def _ratios(loop: Loop) -> dict[int, float]:
    """Of each step with limits, the largest ratio of a value to its limit."""
    return {} if loop.steering is None else largest_ratios(loop.steering.rows)


def go_back(loop: Loop, ending: bool) -> None:
    """Have the next step solve the levels of the best one again, where that was lost."""
    state, best = loop.state, lost_step(loop, ending)
    if best is None or state.returned == state.step:
        return
    path = history.levels_file(loop.directory, state.step)
    history.save_array(path, levels_of(loop, best))
    state.returned = state.step
    history.write_state(loop.directory, state)


def has_gone_back(loop: Loop) -> bool:
    """Whether the last step solved the levels of an earlier one."""
    return 0 < loop.state.returned == loop.state.step - 1


def told_return(loop: Loop) -> list[str]:
    """A sentence on it, where the last step went back."""
    if not has_gone_back(loop) or len(loop.rows) < 2:
        return []
    before, last = loop.rows[-2:]
    mass = loop.settings.goal == "mass"
    if mass and last.volume == before.volume:  # that of the step before: nothing was lost
        return []
    if _ratios(loop).get(last.step, 0.0) > HELD:
        return [f"step {last.step} has the part again that came nearest to its limits"]
    if mass:
        return [
            f"step {last.step} has the lightest part again that held all limits: "
            f"volume {last.volume:.4g}, after {before.volume:.4g}"
        ]
    had = "held all limits" if loop.settings.limits else "the loop had"
    return [
        f"step {last.step} has the stiffest part again that {had}: "
        f"objective {last.objective:.6g}, after it had come to {before.objective:.6g}"
    ]
