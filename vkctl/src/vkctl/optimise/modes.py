"""With or without a factor: which mode the loop has the solver take in a step, by what it measured.

A factor costs the same in every step. Without one a step takes as many iterations as the design
asks for, which changes as material goes, and the start vector of the step before saves some.
"""

from __future__ import annotations

from collections.abc import Callable

from vkctl.directory.formats import Mode

from .history import HistoryRow

CONVERGED = 1.0  # quality of a solve that met its tolerance
_WORTH_AN_ESTIMATE = 0.5  # seconds of a step below which no factor is thought of
_LOOK_AGAIN = 10  # steps after which the mode not taken is measured anew
_OFF = 2.0  # factor by which an estimate may be too high
_WORTH_A_LOOK = 2.0  # times the better one's time that the other may have taken to be tried again


def next_mode(rows: list[HistoryRow], factor_takes_less: Callable[[float], bool]) -> Mode:
    """Mode of the step that follows finished ones, oldest first.

    The first step goes without a factor. A factor is tried once `factor_takes_less`, which
    estimates the seconds of a step with one to a factor of two, promises that it may take less than
    the latest step took. From then on the faster one is taken, and the slower one looked at again
    now and then. After a step that ended at the iteration limit all have a factor.
    """
    without = [row for row in rows if row.mode == "iterative"]
    factored = [row for row in rows if row.mode == "direct"]
    if not without:
        return "iterative"
    if without[-1].quality < CONVERGED:
        return "direct"
    if not factored:
        slow = without[-1].solving > _WORTH_AN_ESTIMATE
        promising = slow and factor_takes_less(_OFF * without[-1].solving)
        return "direct" if promising else "iterative"
    faster: Mode = "iterative" if without[-1].solving <= factored[-1].solving else "direct"
    fast, other = (without, factored) if faster == "iterative" else (factored, without)
    stale = rows[-1].step - other[-1].step >= _LOOK_AGAIN
    if stale and other[-1].solving < _WORTH_A_LOOK * fast[-1].solving:
        return "direct" if faster == "iterative" else "iterative"
    return faster
