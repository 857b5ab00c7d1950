"""The solver's run of a step: in which mode, and what is tried where it fails."""

from __future__ import annotations

import re
import time
from functools import partial

import numpy as np

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.model import set_flags
from vkctl.directory.results import KEEP_QUALITY, read_results
from vkctl.running import processes
from vkctl.running.run import RunResult, set_run_options

from . import history
from .following.weights import write_weights
from .modes import next_mode
from .runs import run_in
from .standing import Loop, OptimiseError, free_of, levels_of, write_design
from .starting import set_start_vectors

_MOST_SHORTENED = 2  # times that a step's move is halved where it can't be solved
_MODE = "Sys.ComputationMode"
_POLL = 0.1  # seconds between two looks at a solver that an earlier loop has left behind
# Errors of a run that another mode or another design may not have.
_OF_THE_SOLVE = re.compile(
    r"No convergence|Stiffness matrix |SLE |Error allocating|Unexpected end|No progress in"
)


def solve_somehow(loop: Loop) -> tuple[RunResult, formats.Mode]:
    """The step's run, in whatever mode; where both fail, of a design that moved less.

    Iterations that ended too far from a solution count as failed as long as there may be a factor.
    OptimiseError with the first failure where none of it helps, or where it isn't the solve's.
    """
    mode, first = _mode(loop), None
    others: tuple[formats.Mode, ...] = ("direct", "iterative")
    for attempt in range(_MOST_SHORTENED + 1):
        if attempt and not _shorten(loop, attempt):
            break
        factored, poor = True, False
        for taken in (mode, *(other for other in others if other != mode)):
            outcome = _solve(loop, taken)
            if outcome.ok and (taken == "direct" or not factored or not _is_poor(loop)):
                return outcome, taken
            if outcome.ok:
                poor, loop.state.running = True, 0  # to be solved once more
                continue
            factored = factored and taken != "direct"
            first = first or outcome
            if not solve_failed(outcome):
                raise _failure(loop, outcome)
        if poor and (outcome := _solve(loop, "iterative")).ok:
            return outcome, "iterative"
    assert first is not None
    raise _failure(loop, first)


def _is_poor(loop: Loop) -> bool:
    """Whether a load case of the step has no displacements worth keeping."""
    found = (read_results(loop.directory, number) for number in loop.state.load_cases)
    return any(results.quality <= KEEP_QUALITY for results in found)


def _failure(loop: Loop, outcome: RunResult) -> OptimiseError:
    hint = f" {outcome.advice.hint}" if outcome.advice.hint else ""
    return OptimiseError(f"step {loop.state.step}: {outcome.advice.sentence}{hint}", outcome)


def _mode(loop: Loop) -> formats.Mode:
    """What the case file says, else the options file, else what has shown to be faster."""
    if loop.settings.mode != "measured":
        return loop.settings.mode
    if loop.state.mode != "automatic":
        return loop.state.mode
    return next_mode(loop.rows, loop.factor_takes_less)


def _shorten(loop: Loop, attempt: int) -> bool:
    """Move this step's design less from that before, half as much with every attempt."""
    state, step = loop.state, loop.state.step
    if step == 1 or state.target is None:
        return False
    before = free_of(loop, step - 1)
    criterion = history.load_array(history.criterion_file(loop.directory, step - 1), len(before))
    move = loop.settings.move * 0.5**attempt
    following, _ = loop.design.next_levels(before, criterion, state.target, move)
    write_design(loop, step, following)
    return True


def _solve(loop: Loop, mode: formats.Mode) -> RunResult:
    """All load cases at the step's levels. A run that was cut off is finished, not repeated."""
    state, directory = loop.state, loop.directory
    wanted = levels_of(loop, state.step).astype(np.float32)
    if state.running != state.step or not np.array_equal(formats.read_tp(directory), wanted):
        with processes.alone_on(directory):
            if mode == "iterative":
                set_start_vectors(directory, state.step, state.load_cases)
            write_weights(directory, loop.weights, loop.design.levels_of_nodes(wanted))
            formats.write_tp(directory, wanted)
            requested = dict.fromkeys(state.load_cases, formats.LOADCASE_REQUESTED)
            set_flags(directory, requested, clear_done=True)
            state.running = state.step
            history.write_state(directory, state)
    else:
        while processes.worker_on(directory) is not None:  # outlived the loop that started it
            time.sleep(_POLL)
    _set_mode(directory, mode)
    return _run(loop)


def _set_mode(directory: PathLike, mode: formats.Mode) -> None:
    """Change the options file where it says otherwise."""
    if formats.read_options(directory).get(_MODE, 0) != formats.MODES[mode]:
        set_run_options(directory, mode=mode)


def _run(loop: Loop) -> RunResult:
    step, show = loop.state.step, loop.on_progress
    return run_in(loop, loop.directory, None if show is None else partial(show, step))


def solve_failed(outcome: RunResult) -> bool:
    """Whether a run ended for a reason that lies in its equations or their memory."""
    error = outcome.log.error
    return outcome.outcome == "stopped" and error is not None and bool(_OF_THE_SOLVE.match(error))


def give_back_mode(loop: Loop) -> None:
    """Leave the options file with the mode that it had."""
    _set_mode(loop.directory, loop.state.mode)
