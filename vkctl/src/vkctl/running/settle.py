"""Repeat load cases until nothing changes any more, resumable after a kill at any point.

A round keeps the results, asks for the load cases anew, notes that it has begun, and runs the
solver; then it notes what has changed. Each file is replaced as a whole. So a killed round either
begins again from the same results, or is finished from where its run was cut off.
"""

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass, replace
from functools import partial
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.plan import plan, wanted

from . import processes, rounds
from .changes import (
    FLOOR,
    Change,
    Verdict,
    all_left,
    change,
    has_vanished,
    ratio,
    read_solution,
    verdict,
)
from .collapse import spent_elements
from .enough import MOST_ROUNDS, TOLERANCE
from .progress import Progress
from .rounds import State
from .run import RunResult, find_vk_rund, reopen, run, set_run_options

UNSETTLED = 3  # exit status where load cases haven't settled
_POLL = 0.1  # seconds between two looks at a solver that an earlier process has left behind


class SettleError(Exception):
    """There is nothing that can be settled."""


@dataclass(frozen=True)
class Standing:
    """How a load case stands."""

    load_case: int
    verdict: Verdict
    changes: list[Change]  # one for each round in which it took part
    spent: int = 0  # yielding elements without stiffness, where it has collapsed

    @property
    def ratio(self) -> float | None:
        """The last round's largest change by that of the round before, where there are two."""
        return ratio(self.changes)

    @property
    def left(self) -> float:
        """What further rounds would change if they shrink as the last; inf if nobody knows."""
        return all_left(self.changes)


@dataclass
class Settled:
    """The end of the rounds."""

    directory: Path
    tolerance: float
    rounds: int
    standings: list[Standing]
    run: RunResult | None  # the last one; None if an earlier process had ended the rounds' runs

    @property
    def failed(self) -> bool:
        """Whether a run has failed; started again, its round is finished."""
        return self.run is not None and not self.run.ok

    @property
    def ok(self) -> bool:
        return not self.failed and all(s.verdict == "settled" for s in self.standings)

    @property
    def status(self) -> int:
        if self.run is not None and self.failed:
            return self.run.status or 1
        return 0 if self.ok else UNSETTLED


@dataclass(frozen=True)
class RoundShown:
    """What a caller is shown after each round: the load cases that took part."""

    number: int
    standings: list[Standing]


def settle(
    directory: PathLike,
    tolerance: float = TOLERANCE,
    *,
    most_rounds: int = MOST_ROUNDS,
    threads: int | None = None,
    mode: formats.Mode | None = None,
    vk_rund: PathLike | None = None,
    on_round: Callable[[RoundShown], None] | None = None,
    on_progress: Callable[[Progress], None] | None = None,
    solve: Callable[[], RunResult] | None = None,
) -> Settled:
    """Run the requested load cases again and again, each until it has settled.

    A load case has settled when its last round changed the displacements, the element state and
    the strain energy by less than `tolerance`, and all further rounds would, each shrinking as the
    last; it has collapsed where that came only of the least stiffness that elements keep. One
    whose changes don't shrink any more, or that ends too poorly to leave a start vector, is left
    alone. `most_rounds` are done at most; called again, it goes on. `solve` runs what the directory
    asks for instead of `run`, which `vk_rund` and `on_progress` are for. Errors as of `run`,
    SettleError where no load case is requested.
    """
    target = Path(directory)
    if solve is None:
        program = find_vk_rund(vk_rund)
        solve = partial(run, target, vk_rund=program, on_progress=on_progress)
    numbers = to_settle(target, tolerance, most_rounds)
    with rounds.locked(target):
        state = _begun(target, numbers)
        if state.running:
            _await_worker(target)
        set_run_options(target, threads, mode)
        return _rounds(target, state, tolerance, most_rounds, solve, on_round)


def to_settle(target: Path, tolerance: float, most_rounds: int) -> list[int]:
    """Load cases that `settle` would repeat; its errors where it can't."""
    if not FLOOR <= tolerance < 1:
        raise ValueError(f"the tolerance must be at least {FLOOR:g} and below 1, not {tolerance:g}")
    if most_rounds < 1:
        raise ValueError(f"there must be at least one round, not {most_rounds}")
    if not target.is_dir():
        raise NotADirectoryError(f"There is no directory {target}.")
    numbers = wanted(target)
    if not numbers:
        raise SettleError(f"No load case of {target} is requested: there is nothing to settle.")
    if numbers[-1] > formats.LARGEST_NUMBER:
        raise SettleError(f"Load cases beyond {formats.LARGEST_NUMBER} share their files.")
    return numbers


def _begun(directory: Path, numbers: list[int]) -> State:
    """The state of rounds that were cut off, where they were of the same inputs; else a new one."""
    digest = rounds.inputs_digest(directory, numbers)
    state = rounds.read_state(directory)
    if state is None or state.ended or state.inputs != digest:
        return State(digest, numbers)
    return state


def _await_worker(directory: Path) -> None:
    """A solver may have outlived the process that started it."""
    while processes.worker_on(directory) is not None:
        time.sleep(_POLL)


def _rounds(
    directory: Path,
    state: State,
    tolerance: float,
    most_rounds: int,
    solve: Callable[[], RunResult],
    on_round: Callable[[RoundShown], None] | None,
) -> Settled:
    result: RunResult | None = None
    done = 0
    while done < most_rounds:
        if not state.running:
            to_run = [s.load_case for s in standings(state, tolerance) if s.verdict == "open"]
            if not to_run:
                break
            _begin_round(directory, state, to_run)
        if plan(directory):
            result = solve()
            if not result.ok:
                break
        _end_round(directory, state)
        done += 1
        if on_round is not None:
            latest = state.rounds[-1]
            took_part = [s for s in standings(state, tolerance) if s.load_case in latest]
            on_round(RoundShown(len(state.rounds), took_part))
    found = [_carried(directory, s) for s in standings(state, tolerance)]
    if not state.running and all(s.verdict != "open" for s in found):
        state.ended = True
        rounds.write_state(directory, state)
        rounds.forget_results(directory)
    return Settled(directory, tolerance, len(state.rounds), found, result)


def standings(state: State, tolerance: float) -> list[Standing]:
    """How each load case stands."""
    found = []
    for number in state.load_cases:
        changes = state.changes(number)
        found.append(Standing(number, verdict(changes, tolerance), changes))
    return found


def _carried(directory: Path, standing: Standing) -> Standing:
    """A load case that has settled, or collapsed where it yields without end."""
    spent = spent_elements(directory, standing.load_case) if standing.verdict == "settled" else 0
    return replace(standing, verdict="collapsed", spent=spent) if spent else standing


def _begin_round(directory: Path, state: State, numbers: list[int]) -> None:
    """The note that the round has begun comes last: until then it begins again."""
    with processes.alone_on(directory):
        for number in numbers:
            rounds.keep_results(directory, number)
        reopen(directory, numbers)
        state.running = numbers
        rounds.write_state(directory, state)


def _end_round(directory: Path, state: State) -> None:
    with processes.alone_on(directory):
        state.rounds.append({n: _changed(directory, n) for n in state.running})
        state.running = []
        rounds.write_state(directory, state)


def _changed(directory: Path, number: int) -> Change:
    """What the round has changed in a load case; an exact solution is put back."""
    before = read_solution(rounds.folder_of(directory), number)
    after = read_solution(directory, number)
    if has_vanished(before, after):
        rounds.put_back(directory, number)
        return Change(0.0, 0.0, 0.0)
    return change(before, after)
