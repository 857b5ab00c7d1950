"""Going back at a loop's end to a part that it had and lost.

A member that is as thin as the mesh can tell may be lost from one step to the next, and what hung
on it with it; the loop then goes on from what is left, and may end far from the best it had.
"""

from __future__ import annotations

from . import history
from .standing import Loop, levels_of

_LOST = (
    0.02  # part that the objective is above that of the best step, from which it is gone back to
)
_AT_HOME = 10  # steps at the volume that is wanted, before which the loop is still on its way
_MET = 2e-4  # of the design volume: as much has the part what it was to have


def lost_step(loop: Loop) -> int | None:
    """The step of the best part at the volume that is wanted, if much was lost since.

    Of the steps with the present settings. Parts with limits or sizes are left as they are: a
    stiffer one may not have had them.
    """
    if loop.steering is not None or loop.design.shape.has_sizes:
        return None
    volume = loop.settings.volume
    rows = [
        row
        for row in loop.rows[loop.state.since - 1 :]
        if abs(row.target - volume) <= 1e-9 and abs(row.volume - volume) <= _MET
    ]
    if len(rows) < _AT_HOME:
        return None
    best = min(rows, key=lambda row: row.objective)
    return best.step if loop.rows[-1].objective > (1 + _LOST) * best.objective else None


def go_back(loop: Loop) -> None:
    """Have the next step solve the levels of the best one again, where that was lost."""
    state, best = loop.state, lost_step(loop)
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
    return [
        f"step {last.step} has the stiffest part again that the loop had: "
        f"objective {last.objective:.6g}, after it had come to {before.objective:.6g}"
    ]
