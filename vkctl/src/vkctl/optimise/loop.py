"""The loop itself: one solver run a step, resumable after a kill at any point.

Every file is replaced as a whole. A step leaves its results in this order: criterion, history,
levels of the next step, and then the state that counts the step as done. So a killed loop either
repeats the end of a step from the same inputs, or goes on with the next one.
"""

from __future__ import annotations

import hashlib
import json
import time
import tomllib
from collections.abc import Callable
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.model import Model, read, set_flags
from vkctl.directory.results import Results, read_results
from vkctl.prepare.build import Prepared, build, new
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.part import Reading
from vkctl.running import processes
from vkctl.running.progress import Progress
from vkctl.running.run import RunResult, run
from vkctl.spread.place import Place, opened
from vkctl.spread.run import run_at
from vkctl.spread.sending import Sender
from vkctl.spread.where import parse_where

from . import history
from .design import Design, make_design
from .history import HistoryRow, LockedError, State
from .settings import Settings, read_settings

_WINDOW = 5  # steps whose mean objective is compared with that of as many before
_POLL = 0.1  # seconds between two looks at a solver that an earlier loop has left behind
_FIXED_FILES = (
    "mx.*",
    file_names.NODE_FLAGS,
    file_names.TP_INDEX,
    file_names.ELEMENT_FLAGS,
    file_names.LOAD_CASES,
    f"{file_names.LOAD_CASE_MAP_STEM}.*",
)


class OptimiseError(Exception):
    """The loop can't go on; the message says why. What was finished stays for a restart.

    `run` is the solver's run that failed, if that was the reason.
    """

    def __init__(self, text: str, run: RunResult | None = None) -> None:
        super().__init__(text)
        self.run = run


@dataclass(frozen=True)
class StepShown:
    """What a caller is shown after each step."""

    row: HistoryRow
    steps: int
    run: RunResult


@dataclass
class Optimised:
    """The end of a loop."""

    directory: Path
    rows: list[HistoryRow]
    converged: bool  # else the step limit ended it
    levels: Array  # per design point, of the last step solved


@dataclass
class _Loop:
    """Everything that a step needs."""

    directory: Path
    settings: Settings
    state: State
    design: Design
    rows: list[HistoryRow]
    vk_rund: PathLike | None
    on_progress: Callable[[int, Progress], None] | None
    workers: Workers | None = None  # that solve the load cases; else this process's own run


@dataclass
class Workers:
    """Where the load cases of all steps are solved, open as long as the loop goes on."""

    place: Place
    sender: Sender
    on_line: Callable[[str], None] | None


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
    override the case file's; `reading` is as for `new`. A loop that was begun there goes on where
    it stopped, whatever stopped it, with the settings that it is given now; more steps than before
    carry a finished one further. `on_step` is called after each step, `on_progress` with the step's
    number while the solver runs. `on` and `on_line` are those of `run_on`: workers solve the
    constraint patterns of each step then, and keep what doesn't change. Raises CaseFileError and
    PartError for mistakes in the inputs, OptimiseError if the loop can't go on, BusyError and
    NotFoundError as `run` does, WhereError as `run_on`.
    """
    settings = _overridden(read_settings(cases), volume, steps)
    where = None if on is None else parse_where(on)
    try:
        with history.locked(directory):
            loop = _start(cases, Path(directory), settings, reading)
            loop.vk_rund, loop.on_progress = vk_rund, on_progress
            if where is None:
                return _run_steps(loop, on_step)
            with opened(where) as place, Sender(loop.directory.absolute(), place) as sender:
                loop.workers = Workers(place, sender, on_line)
                return _run_steps(loop, on_step)
    except LockedError as error:
        raise OptimiseError(str(error)) from None


def _overridden(settings: Settings, volume: float | None, steps: int | None) -> Settings:
    if volume is not None:
        if not 0 < volume <= 1:
            raise ValueError(f"the volume must be above 0 and at most 1, not {volume:g}")
        settings = replace(settings, volume=volume)
    if steps is not None:
        if steps < 1:
            raise ValueError(f"there must be at least one step, not {steps}")
        settings = replace(settings, steps=steps)
    return settings


def _run_steps(loop: _Loop, on_step: Callable[[StepShown], None] | None) -> Optimised:
    def converged() -> bool:
        return has_converged(loop.rows[loop.state.since - 1 :], loop.settings)

    while loop.state.step <= loop.settings.steps and not converged():
        shown = _step(loop)
        if on_step is not None:
            on_step(shown)
    last = max(loop.state.step - 1, 1)
    levels = _levels(loop, last)
    return Optimised(loop.directory, loop.rows, converged(), levels)


def _levels(loop: _Loop, step: int) -> Array:
    """Levels of a step, one for each design point."""
    return history.load_array(history.levels_file(loop.directory, step), len(loop.design.points))


# --- begin and resume ------------------------------------------------------------------------


def _start(cases: PathLike, directory: Path, settings: Settings, reading: Reading | None) -> _Loop:
    """A loop that was begun goes on with the present settings; otherwise one begins."""
    state = history.read_state(directory)
    if state is None:
        state, model = _begin(cases, directory, settings, reading)
    else:
        model = read(directory)
        _refuse_other_inputs(cases, directory, state)
        _take_settings(cases, directory, settings, state, model, reading)
    if state.kept and max(state.kept) > len(model.nodes):
        path = history.folder_of(directory) / history.STATE
        raise formats.FormatError(path, f"it keeps node {max(state.kept)} of {len(model.nodes)}")
    try:
        design = make_design(model, settings.radius, np.array(state.kept, np.int64))
    except ValueError as error:
        raise OptimiseError(str(error)) from None
    rows = history.read_history(directory)[: state.step - 1]
    if len(rows) != state.step - 1:
        raise OptimiseError(f"{directory} holds only {len(rows)} of {state.step - 1} steps")
    return _Loop(directory, settings, state, design, rows, None, None)


def _begin(
    cases: PathLike, directory: Path, settings: Settings, reading: Reading | None
) -> tuple[State, Model]:
    """Prepare the directory where needed, write the first levels and the first state."""
    prepared: Prepared | None = None
    if history.is_half_prepared(directory) or not Path(directory, file_names.NODES).exists():
        history.begin_preparing(directory)
        prepared = new(None, cases, directory, reading)
        history.end_preparing(directory)
    model = read(directory)
    if not len(model.tp):
        model.set_level(1.0)
        assert model.node_tp_index is not None
        with processes.alone_on(directory):
            formats.write_tp_index(directory, model.node_tp_index)
            formats.write_tp(directory, model.tp)
    taking_part = _requested(model)
    if not taking_part:
        raise OptimiseError(f"no load case of {directory} is requested")
    state = State(
        step=1,
        running=0,
        model=_model_digest(directory),
        cases=_cases_digest(cases),
        load_cases=taking_part,
        keep=list(settings.keep),
        kept=_kept_nodes(cases, settings, model, prepared, reading),
        combine=settings.combine,
        weights=_weights(cases, settings, taking_part),
        since=1,
        target=None,
    )
    largest = float(np.abs(model.tp).max())
    history.save_array(history.levels_file(directory, 1), model.tp / (largest or 1.0))
    history.write_state(directory, state)
    return state, model


def _requested(model: Model) -> list[int]:
    return [
        number
        for number, case in enumerate(model.load_cases, 1)
        if formats.is_wanted(case.kind, case.flags)
    ]


def _model_digest(directory: Path) -> str:
    """Of all input files but levels, flags and options."""
    total = hashlib.sha256()
    for path in sorted(p for pattern in _FIXED_FILES for p in directory.glob(pattern)):
        total.update(path.name.encode())
        with open(path, "rb") as stream:
            total.update(hashlib.file_digest(stream, "sha256").digest())
    return total.hexdigest()


def _cases_digest(cases: PathLike) -> str:
    """Of what the case file says about the model."""
    said = tomllib.loads(Path(cases).read_text(encoding="utf-8-sig"))
    said.pop("optimise", None)
    return hashlib.sha256(json.dumps(said, sort_keys=True, default=str).encode()).hexdigest()


def _refuse_other_inputs(cases: PathLike, directory: Path, state: State) -> None:
    if _cases_digest(cases) != state.cases:
        raise OptimiseError(
            f"{cases} has changed outside [optimise] since {directory} was prepared from it: "
            f"take the changes back, or remove {directory} to begin anew"
        )
    if _model_digest(directory) != state.model:
        raise OptimiseError(
            f"the model in {directory} has changed since its optimisation began: remove "
            f"{history.folder_of(directory)} to begin anew"
        )


def _take_settings(
    cases: PathLike,
    directory: Path,
    settings: Settings,
    state: State,
    model: Model,
    reading: Reading | None,
) -> None:
    """Note changed settings; objectives of before and after aren't compared with each other."""
    if list(settings.keep) != state.keep:
        state.kept = _kept_nodes(cases, settings, model, None, reading)
        state.keep = list(settings.keep)
    weights = _weights(cases, settings, state.load_cases)
    if (settings.combine, weights) != (state.combine, state.weights):
        state.combine, state.weights, state.since = settings.combine, weights, state.step
    history.write_state(directory, state)


def _kept_nodes(
    cases: PathLike,
    settings: Settings,
    model: Model,
    prepared: Prepared | None,
    reading: Reading | None,
) -> list[int]:
    if not settings.keep:
        return []
    prepared = prepared or build(None, cases, reading)
    if len(prepared.mesh.nodes) != len(model.nodes):
        raise OptimiseError(
            f"the part of {cases} has {len(prepared.mesh.nodes)} nodes, the directory "
            f"{len(model.nodes)}: the sets to keep can't be found"
        )
    found = [prepared.sets.nodes(name, ("optimise", "keep")) for name in settings.keep]
    prepared.sets.report.finish()
    number_of = _numbers_in(model, prepared.mesh.nodes)
    if number_of is None:
        raise OptimiseError(
            f"the part of {cases} has its nodes elsewhere than the directory: the sets to keep "
            "can't be found"
        )
    return sorted({int(number_of[node - 1]) for nodes in found for node in nodes})


def _numbers_in(model: Model, points: Array) -> Array | None:
    """Number in the model of the node at each point, None if a point has no node of its own.

    A directory that was prepared by others, or by an earlier version, may number them otherwise.
    """
    ours, theirs = points.astype(np.float32), model.nodes.astype(np.float32)
    if np.array_equal(ours, theirs):
        return np.arange(1, len(ours) + 1)
    order, their_order = np.lexsort(ours.T), np.lexsort(theirs.T)
    if not np.array_equal(ours[order], theirs[their_order]):
        return None
    numbers = np.empty(len(ours), np.int64)
    numbers[order] = their_order + 1
    return numbers


def _weights(cases: PathLike, settings: Settings, numbers: list[int]) -> list[float]:
    names = dict(enumerate((entry.name for entry in read_cases(cases).load_cases), 1))
    return [settings.weights.get(names.get(number, ""), 1.0) for number in numbers]


# --- one step --------------------------------------------------------------------------------


def _step(loop: _Loop) -> StepShown:
    """Solve the present design, note it, and leave the next one."""
    begun = time.monotonic()
    state, settings, directory = loop.state, loop.settings, loop.directory
    levels = _levels(loop, state.step)
    outcome = _solve(loop, levels)
    results = [read_results(directory, number) for number in state.load_cases]
    criterion = _settled(loop, _combined_or_fail(loop, results))
    volume = loop.design.volume(levels)
    target = volume if state.target is None else state.target
    next_target = settings.next_target(target)
    following, _ = loop.design.next_levels(levels, criterion, next_target, settings.move)
    energies = {r.number: r.strain_energy for r in results}
    row = HistoryRow(
        step=state.step,
        objective=objective(list(energies.values()), state.weights, settings),
        volume=volume,
        target=target,
        change=float(np.abs(following - levels).mean()),
        quality=min(r.quality for r in results),
        seconds=round(time.monotonic() - begun, 3),
        energies=energies,
    )
    loop.rows.append(row)
    history.write_history(directory, loop.rows)
    history.save_array(history.levels_file(directory, state.step + 1), following)
    state.step, state.running, state.target = state.step + 1, 0, next_target
    history.write_state(directory, state)
    history.criterion_file(directory, state.step - 2).unlink(missing_ok=True)
    return StepShown(row, settings.steps, outcome)


def _solve(loop: _Loop, levels: Array) -> RunResult:
    """All load cases at these levels. A run that was cut off is finished, not repeated."""
    state, directory = loop.state, loop.directory
    wanted = levels.astype(np.float32)
    if state.running != state.step or not np.array_equal(formats.read_tp(directory), wanted):
        with processes.alone_on(directory):
            formats.write_tp(directory, wanted)
            requested = dict.fromkeys(state.load_cases, formats.LOADCASE_REQUESTED)
            set_flags(directory, requested, clear_done=True)
            state.running = state.step
            history.write_state(directory, state)
    while processes.worker_on(directory) is not None:  # outlived the loop that started it
        time.sleep(_POLL)
    outcome = _run(loop)
    if not outcome.ok:
        hint = f" {outcome.advice.hint}" if outcome.advice.hint else ""
        raise OptimiseError(f"step {state.step}: {outcome.advice.sentence}{hint}", outcome)
    return outcome


def _run(loop: _Loop) -> RunResult:
    step, workers = loop.state.step, loop.workers
    show = loop.on_progress or (lambda step, progress: None)
    if workers is None:
        return run(
            loop.directory,
            vk_rund=loop.vk_rund,
            on_progress=lambda progress: show(step, progress),
        )
    return run_at(
        loop.directory.absolute(),
        workers.place,
        workers.sender,
        vk_rund=loop.vk_rund,
        on_progress=lambda progress: show(step, progress.run),
        on_line=workers.on_line,
    )


def _combined_or_fail(loop: _Loop, results: list[Results]) -> Array:
    criteria = np.array([r.criterion for r in results], np.float64)
    criterion = combined(criteria, loop.state.weights, loop.settings)
    if not np.isfinite(criterion).all() or criterion.max() <= 0:
        raise OptimiseError(
            f"step {loop.state.step}: the criterion isn't positive and finite; do the load cases "
            f"load the part? See vkctl check {loop.directory}"
        )
    return criterion


def _settled(loop: _Loop, criterion: Array) -> Array:
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


def combined(criteria: Array, weights: list[float], settings: Settings) -> Array:
    """Criterion of all load cases at each design point, from (cases, points)."""
    weighted: Array = criteria * np.array(weights)[:, None]
    if settings.combine == "weighted":
        total: Array = weighted.sum(axis=0)
        return total
    worst: Array = weighted.max(axis=0)
    return worst


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
