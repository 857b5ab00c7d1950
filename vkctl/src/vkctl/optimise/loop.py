"""The loop itself: one solver run a step, resumable after a kill at any point."""

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np

from .. import formats
from ..formats import Array, PathLike
from ..model import Model, read, set_flags
from ..new.build import Prepared, build, new
from ..new.cases import read_cases
from ..results import read_results
from ..run import RunResult, run
from . import history
from .design import Design, make_design
from .history import HistoryRow, State
from .settings import Settings, read_settings

_WINDOW = 5  # steps whose mean objective is compared with that of as many before


class OptimiseError(Exception):
    """The loop can't go on; the message says why. What was finished stays for a restart."""


@dataclass(frozen=True)
class StepShown:
    """What a caller is shown after each step."""

    row: HistoryRow
    steps: int
    energies: tuple[float, ...]  # strain energy per load case
    run: RunResult


@dataclass
class Optimised:
    """The end of a loop."""

    directory: Path
    rows: list[HistoryRow]
    converged: bool  # else the step limit ended it
    levels: Array  # per design point, of the last step solved


def optimise(
    cases: PathLike,
    directory: PathLike,
    *,
    volume: float | None = None,
    steps: int | None = None,
    vk_rund: PathLike | None = None,
    on_step: Callable[[StepShown], None] | None = None,
) -> Optimised:
    """Optimise the part of a case file in a working directory.

    The directory is made from the case file's part if it isn't prepared. `volume` and `steps`
    override the case file's. A loop that was begun there goes on where it stopped, whatever
    stopped it; more steps than before carry a finished one further. Raises CaseFileError and
    PartError for mistakes in the inputs, OptimiseError if the solver fails.
    """
    settings = read_settings(cases)
    settings = replace(
        settings, volume=volume or settings.volume, steps=steps or settings.steps
    )
    state = history.read_state(directory) or _begin(cases, directory, settings)
    model = read(directory)
    design = make_design(model, settings.radius, np.array(state.keep, np.int64))
    rows = history.read_history(directory)[: state.step - 1]
    while state.step <= settings.steps and not state.converged:
        shown = _step(directory, settings, state, design, rows, vk_rund)
        if on_step is not None:
            on_step(shown)
    levels = np.load(history.levels_file(directory, max(state.step - 1, 1)))
    return Optimised(Path(directory), rows, state.converged, levels)


def _begin(cases: PathLike, directory: PathLike, settings: Settings) -> State:
    """Prepare the directory where needed and write the first state: everything is material."""
    prepared: Prepared | None = None
    if not Path(directory, "mx.nodes").exists():
        prepared = new(None, cases, directory)
    elif settings.keep:
        prepared = build(None, cases)
    keep = [] if prepared is None else _kept_nodes(prepared, settings)
    model = read(directory)
    if not len(model.tp):
        model.set_level(1.0)
        formats.write_tp_index(directory, model.node_tp_index)
        formats.write_tp(directory, model.tp)
    taking_part = [
        number
        for number, case in enumerate(model.load_cases, 1)
        if case.kind == formats.LOADCASE_STATIC and case.requested and not case.excluded
    ]
    if not taking_part:
        raise OptimiseError(f"no load case of {directory} is requested")
    names = [entry.name for entry in read_cases(cases).load_cases]
    weights = [_weight(settings, names, number) for number in taking_part]
    history.folder_of(directory).mkdir(exist_ok=True)
    history.save_array(history.levels_file(directory, 1), np.ones(len(model.tp)))
    state = State(1, 0, False, keep, weights, taking_part)
    history.write_state(directory, state)
    return state


def _kept_nodes(prepared: Prepared, settings: Settings) -> list[int]:
    found = [prepared.sets.nodes(name, ("optimise", "keep")) for name in settings.keep]
    prepared.sets.report.finish()
    return sorted({int(node) for nodes in found for node in nodes})


def _weight(settings: Settings, names: list[str], number: int) -> float:
    return settings.weights.get(names[number - 1], 1.0) if number <= len(names) else 1.0


def _step(
    directory: PathLike,
    settings: Settings,
    state: State,
    design: Design,
    rows: list[HistoryRow],
    vk_rund: PathLike | None,
) -> StepShown:
    """Solve the present design, note it, and leave the next one."""
    begun = time.monotonic()
    levels = np.load(history.levels_file(directory, state.step))
    outcome = _solve(directory, state, levels, vk_rund)
    results = [read_results(directory, number) for number in state.cases]
    energies = tuple(r.strain_energy for r in results)
    criteria = np.array([r.criterion for r in results], np.float64)
    criterion = _settled(directory, state, design, combined(criteria, state.weights, settings))

    target = max(settings.volume, 1.0 - settings.step_reduction() * state.step)
    following, _ = design.next_levels(levels, criterion, target, settings.move)
    row = HistoryRow(
        state.step,
        objective(energies, state.weights, settings),
        design.volume(levels),
        max(settings.volume, 1.0 - settings.step_reduction() * (state.step - 1)),
        float(np.abs(following - levels).mean()),
        time.monotonic() - begun,
    )
    rows.append(row)
    history.write_history(directory, rows)
    history.save_array(history.levels_file(directory, state.step + 1), following)
    state.step, state.running = state.step + 1, 0
    state.converged = has_converged(rows, settings)
    history.write_state(directory, state)
    return StepShown(row, settings.steps, energies, outcome)


def _solve(
    directory: PathLike, state: State, levels: Array, vk_rund: PathLike | None
) -> RunResult:
    """All load cases at these levels. A run that was cut off is finished, not repeated."""
    if state.running != state.step:
        formats.write_tp(directory, levels)
        set_flags(
            directory, {n: formats.LOADCASE_REQUESTED for n in state.cases}, clear_done=True
        )
        state.running = state.step
        history.write_state(directory, state)
    outcome = run(directory, vk_rund=vk_rund)
    if not outcome.ok:
        hint = f" {outcome.advice.hint}" if outcome.advice.hint else ""
        raise OptimiseError(f"step {state.step}: {outcome.advice.sentence}{hint}")
    return outcome


def _settled(directory: PathLike, state: State, design: Design, criterion: Array) -> Array:
    """The smoothed criterion, averaged with that of the step before, which calms the loop.

    X. Huang, Y. M. Xie, Finite Elem. Anal. Des. 43 (2007) 1039-1049.
    """
    smooth: Array = design.smoothing @ criterion
    before = history.criterion_file(directory, state.step - 1)
    if state.step > 1 and before.exists():
        smooth = 0.5 * (smooth + np.load(before))
    history.save_array(history.criterion_file(directory, state.step), smooth)
    history.criterion_file(directory, state.step - 2).unlink(missing_ok=True)
    return smooth


def combined(criteria: Array, weights: list[float], settings: Settings) -> Array:
    """Criterion of all load cases at each design point, from (cases, points)."""
    weighted = criteria * np.array(weights)[:, None]
    if settings.combine == "weighted":
        total: Array = weighted.sum(axis=0)
        return total
    means = criteria.mean(axis=1, keepdims=True)
    worst: Array = (weighted / np.where(means > 0, means, 1.0)).max(axis=0)
    return worst


def objective(
    energies: tuple[float, ...], weights: list[float], settings: Settings
) -> float:
    """Weighted mean of the load cases' strain energies, or the largest weighted one."""
    weighted = np.array(energies) * np.array(weights)
    if settings.combine == "weighted":
        return float(weighted.sum() / np.sum(weights))
    return float(weighted.max())


def has_converged(rows: list[HistoryRow], settings: Settings) -> bool:
    """Whether the objective has settled since the target volume was met."""
    held = [row for row in rows if row.target <= settings.volume * (1 + 1e-9)]
    if len(held) < 2 * _WINDOW:
        return False
    values = np.array([row.objective for row in held[-2 * _WINDOW :]])
    before, now = values[:_WINDOW].mean(), values[_WINDOW:].mean()
    return bool(abs(now - before) <= settings.tolerance * abs(now))


def model_at(directory: PathLike, step: int) -> Model:
    """The model of a directory with the levels of a step."""
    model = read(directory)
    model.tp = np.load(history.levels_file(directory, step)).astype(np.float32)
    return model
