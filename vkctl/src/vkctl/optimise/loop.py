"""The loop itself: one solver run a step, resumable after a kill at any point.

Every file is replaced as a whole. A step leaves its results in this order: criterion, history,
levels of the next step, and then the state that counts the step as done. So a killed loop either
repeats the end of a step from the same inputs, or goes on with the next one.
"""

from __future__ import annotations

import time
from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.model import Model, read
from vkctl.directory.results import Results, read_results
from vkctl.prepare.case_file.read_clusters import clusters_of
from vkctl.prepare.part import Reading
from vkctl.running.progress import Progress
from vkctl.running.run import RunResult, find_vk_rund
from vkctl.spread.place import opened
from vkctl.spread.where import parse_where

from . import history
from .begun import start
from .following.criteria import criteria_of
from .growing import grow
from .history import HistoryRow, LockedError
from .limits.steering import (
    begin_steering,
    has_settled,
    needs_steering,
    note_limits,
    steer,
    told_limits,
)
from .pieces import Pieces
from .returning import go_back, has_gone_back, lost_step, told_return
from .settings import Settings, read_settings
from .sizing import follow_sizes, read_sizes, told_sizes, write_sizes
from .solving import give_back_mode, solve_somehow
from .standing import Loop, OptimiseError, Workers, free_of, levels_of, write_design
from .teeth import cut_share
from .wishes.measure import Sizes, measured_sizes

_WINDOW = 5  # steps whose mean objective is compared with that of as many before


@dataclass(frozen=True)
class StepShown:
    """What a caller is shown after each step."""

    row: HistoryRow
    steps: int
    run: RunResult
    broken: tuple[str, ...] = ()  # a sentence for each load that nothing joins to a support
    told: tuple[str, ...] = ()  # on the part before as a body


@dataclass
class Optimised:
    """The end of a loop."""

    directory: Path
    rows: list[HistoryRow]
    converged: bool  # else the step limit ended it
    levels: Array  # per design point, of the last step solved
    pieces: Pieces  # that these leave
    cut: float  # part of the elements that the surface goes through
    told: list[str] = field(default_factory=list)  # a sentence on a return, and for each limit
    sizes: Sizes | None = None  # measured, where sizes were wished
    told_sizes: list[str] = field(default_factory=list)  # a sentence for each of them
    body_steps: int = 0  # of all steps the last ones, which added material


def optimise(
    cases: PathLike,
    directory: PathLike,
    *,
    volume: float | None = None,
    steps: int | None = None,
    vk_rund: PathLike | None = None,
    reading: Reading | None = None,
    on_step: Callable[[StepShown], None] | None = None,
    on_progress: Callable[[int, Progress], None] | None = None,
    on: str | None = None,
    on_line: Callable[[str], None] | None = None,
) -> Optimised:
    """Optimise the part of a case file in a working directory.

    The directory is made from the case file's part if it isn't prepared. `volume` and `steps`
    override the case file's, and of several volumes there one has to be given; `reading` is as for
    `new`. A loop that was begun there goes on where it stopped, whatever stopped it, with the
    settings that it is given now; more steps than before carry a finished one further. `on_step`
    is called after each step, `on_progress` with the step's number while the solver runs. `on` and
    `on_line` are those of `run_on`: workers solve the constraint patterns of each step then, and
    keep what doesn't change. Raises CaseFileError and PartError for mistakes in the inputs,
    OptimiseError if the loop can't go on, BusyError and NotFoundError as `run` does, WhereError as
    `run_on`.
    """
    settings = _overridden(read_settings(cases), volume, steps)
    where = None if on is None else parse_where(on, clusters_of(cases))
    try:
        with history.locked(directory):
            loop = start(cases, Path(directory), settings, reading)
            loop.vk_rund, loop.on_progress, loop.reading = vk_rund, on_progress, reading
            try:
                if where is None:
                    return _run_steps(loop, on_step)
                with opened(where) as place, ExitStack() as ending:
                    loop.workers = Workers(place, ending, on_line)
                    return _run_steps(loop, on_step)
            finally:
                give_back_mode(loop)
    except LockedError as error:
        raise OptimiseError(str(error)) from None


def _overridden(settings: Settings, volume: float | None, steps: int | None) -> Settings:
    if volume is not None:
        if settings.goal == "mass":
            raise ValueError("no volume can be given with goal = 'mass', which looks for the least")
        if not 0 < volume <= 1:
            raise ValueError(f"the volume must be above 0 and at most 1, not {volume:g}")
        settings = replace(settings, volume=volume, volumes=())
    if settings.volumes:
        raise ValueError("the case file asks for several volumes: give the one to optimise for")
    if steps is not None:
        if steps < 1:
            raise ValueError(f"there must be at least one step, not {steps}")
        settings = replace(settings, steps=steps)
    return settings


def _run_steps(loop: Loop, on_step: Callable[[StepShown], None] | None) -> Optimised:
    if loop.settings.body_steps:
        find_vk_rund(loop.vk_rund)  # bodies are solved on this machine, wherever the loop is
    read_sizes(loop)
    loop.steering = begin_steering(loop) if needs_steering(loop) else None
    if not loop.state.grown_from:
        _run_until_settled(loop, on_step)
    own = loop.state.grown_from or loop.state.step  # first step that isn't the loop's own
    told = told_return(loop) if loop.state.step == own else []
    if loop.state.grown_from or loop.settings.body_steps:
        grew = grow(loop, _has_converged(loop), partial(_grown_step, loop, on_step))
        told = grew if loop.state.step > own else told + grew
    last = max(loop.state.step - 1, 1)
    levels = levels_of(loop, last)
    if loop.steering is not None:
        told += told_limits(loop.steering.rows)
    pieces = _pieces(loop, levels)
    cut = cut_share(loop.design.space, loop.design.levels_of_nodes(levels))
    done = Optimised(loop.directory, loop.rows, _has_converged(loop), levels, pieces, cut, told)
    done.body_steps = loop.state.step - own
    if (wished := loop.settings.wishes.sizes) is not None:
        done.sizes = measured_sizes(model_at(loop.directory, last), wished.thickest)
        done.told_sizes = told_sizes(wished, done.sizes, loop.rows[-1])
    return done


def _run_until_settled(loop: Loop, on_step: Callable[[StepShown], None] | None) -> None:
    """Steps until the part has come to rest, or as many as are wanted."""
    while (left := loop.settings.steps - loop.state.step) >= 0:
        settled = _has_converged(loop)
        if settled and lost_step(loop) is None:
            break
        if settled or left == 0:
            go_back(loop, ending=left == 0)
        shown = _step(loop)
        if on_step is not None:
            on_step(shown)


def _has_converged(loop: Loop) -> bool:
    if loop.state.grown_from:
        return loop.state.grown_at == 0
    return not _waits_for_sizes(loop) and _is_settled(loop)


def _waits_for_sizes(loop: Loop) -> bool:
    return loop.design.shape.sized is not None and not loop.state.sized


def _is_settled(loop: Loop) -> bool:
    last = loop.state.step - 1 - has_gone_back(loop)
    if loop.steering is not None and not has_settled(loop, last):
        return False
    rows = loop.rows[loop.state.since - 1 : last]
    return loop.settings.goal == "mass" or has_converged(rows, loop.settings)


def _pieces(loop: Loop, levels: Array) -> Pieces:
    return loop.design.pieces(loop.design.levels_of_nodes(levels))


# --- one step --------------------------------------------------------------------------------


@dataclass(frozen=True)
class _Solved:
    """The present design, solved."""

    begun: float  # seconds of the clock
    outcome: RunResult
    mode: formats.Mode
    levels: Array
    broken: tuple[str, ...]
    results: list[Results]


def _solved(loop: Loop) -> _Solved:
    begun = time.monotonic()
    outcome, mode = solve_somehow(loop)
    levels = levels_of(loop, loop.state.step)
    broken = _pieces(loop, levels).broken  # while they are the latest looked at
    results = [read_results(loop.directory, number) for number in loop.state.load_cases]
    _require_loaded(loop, results)
    return _Solved(begun, outcome, mode, levels, broken, results)


def _step(loop: Loop) -> StepShown:
    """Solve the present design, note it, and leave the next one."""
    solved = _solved(loop)
    state, settings, levels = loop.state, loop.settings, solved.levels
    criteria = criteria_of(loop, solved.results, levels, solved.mode)
    criterion = combined(criteria, state.weights)
    volume = loop.design.volume(levels)
    target = volume if state.target is None else state.target
    next_target = settings.next_target(target)
    if loop.steering is not None:
        steered = steer(loop, solved.results, criteria, levels, target, solved.mode)
        criterion, next_target = steered.criterion, steered.next_target
    criterion = _settled(loop, criterion)
    before = free_of(loop, state.step)
    follow_sizes(loop, levels, before, next_target, _is_settled(loop))
    following, _ = loop.design.next_levels(before, criterion, next_target, settings.move)
    change = float(np.abs(following - before).mean())
    row = _noted(loop, solved, volume, target, change)
    _leave(loop, row, following, next_target)
    return StepShown(row, settings.steps, solved.outcome, solved.broken)


def _grown_step(
    loop: Loop,
    on_step: Callable[[StepShown], None] | None,
    told: tuple[str, ...],
    seconds: float,
) -> None:
    """Solve a design that material was added to; the next one is what its body wants."""
    solved = _solved(loop)
    solved = replace(solved, begun=solved.begun - seconds)  # its body's belong to it
    state, levels = loop.state, solved.levels
    note_limits(loop, solved.results, levels)
    paths = [history.criterion_file(loop.directory, step) for step in (state.step - 1, state.step)]
    history.save_array(paths[1], history.load_array(paths[0], len(levels)))
    volume = loop.design.volume(levels)
    change = float(np.abs(levels - levels_of(loop, state.step - 1)).mean())
    row = _noted(loop, solved, volume, volume, change)
    _leave(loop, row, levels, None)
    if on_step is not None:
        planned = state.grown_from - 1 + loop.settings.body_steps
        on_step(StepShown(row, max(planned, row.step), solved.outcome, solved.broken, told))


def _noted(loop: Loop, solved: _Solved, volume: float, target: float, change: float) -> HistoryRow:
    state, settings, results = loop.state, loop.settings, solved.results
    energies = {r.number: r.strain_energy for r in results}
    return HistoryRow(
        step=state.step,
        objective=volume
        if settings.goal == "mass"
        else objective(list(energies.values()), state.weights, settings),
        volume=volume,
        target=target,
        change=change,
        quality=min(r.quality for r in results),
        seconds=round(time.monotonic() - solved.begun, 3),
        energies=energies,
        mode=solved.mode,
        iterations=sum(case.iterations or 0 for case in solved.outcome.log.load_cases),
        solving=solved.outcome.seconds,
    )


def _leave(loop: Loop, row: HistoryRow, following: Array, target: float | None) -> None:
    """Leave the step's row, the next levels with their target, and last the state."""
    directory, state = loop.directory, loop.state
    loop.rows.append(row)
    history.write_history(directory, loop.rows)
    write_design(loop, state.step + 1, following)
    write_sizes(loop, state.step + 1)
    state.step, state.running, state.target = state.step + 1, 0, target
    state.ratio, state.steepness = loop.design.sought.ratio, loop.design.sought.steepness
    history.write_state(directory, state)
    history.forget(directory, state.step - 2)


def _require_loaded(loop: Loop, results: list[Results]) -> None:
    criteria = np.array([r.criterion for r in results], np.float64)
    criterion = combined(criteria, loop.state.weights)
    if not np.isfinite(criterion).all() or criterion.max() <= 0:
        raise OptimiseError(
            f"step {loop.state.step}: the criterion isn't positive and finite; do the load cases "
            f"load the part? See vkctl check {loop.directory}"
        )


def _settled(loop: Loop, criterion: Array) -> Array:
    """The smoothed criterion, averaged with that of the step before, which calms the loop.

    X. Huang, Y. M. Xie, Finite Elem. Anal. Des. 43 (2007) 1039-1049.
    """
    step = loop.state.step
    smooth: Array = loop.design.smoothing @ criterion
    if step > 1:
        path = history.criterion_file(loop.directory, step - 1)
        before = history.load_array(path, len(criterion))
        smooth = 0.5 * (smooth + before)
    history.save_array(history.criterion_file(loop.directory, step), smooth)
    return smooth


def combined(criteria: Array, weights: list[float]) -> Array:
    """Criterion of all load cases at each design point, from (cases, points)."""
    # Not by a product of matrices, whose threads would go on spinning beside the solver.
    total: Array = np.einsum("c,cp->p", np.array(weights), criteria)
    return total


def objective(energies: list[float], weights: list[float], settings: Settings) -> float:
    """Weighted mean of the load cases' strain energies, or the largest weighted one."""
    weighted = np.array(energies) * np.array(weights)
    if settings.combine == "weighted":
        return float(weighted.sum() / np.sum(weights))
    return float(weighted.max())


def has_converged(rows: list[HistoryRow], settings: Settings) -> bool:
    """Whether the objective has settled since the target volume was met."""
    latest = rows[-2 * _WINDOW :]
    met = [abs(row.target - settings.volume) <= 1e-9 for row in latest]
    if len(latest) < 2 * _WINDOW or not all(met):
        return False
    values = np.array([row.objective for row in latest])
    before, now = values[:_WINDOW].mean(), values[_WINDOW:].mean()
    return bool(abs(now - before) <= settings.tolerance * abs(now))


def model_at(directory: PathLike, step: int) -> Model:
    """The model of a directory with the levels of a step."""
    model = read(directory)
    levels = history.load_array(history.levels_file(directory, step), len(model.tp))
    model.tp = levels.astype(np.float32)
    return model
