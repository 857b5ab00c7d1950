"""Beginning a loop from a case file, or taking it up where it was left."""

from __future__ import annotations

import hashlib
import json
import tomllib
from collections.abc import Sequence
from pathlib import Path

import numpy as np

from vkctl.basics.ahead import load_ahead
from vkctl.basics.types import Array, PathLike
from vkctl.check.estimates import factored_time
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.model import Model, read
from vkctl.prepare.build import Prepared, build, new
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.part import Reading
from vkctl.running import processes
from vkctl.stress.solution import option_of

from . import history
from .design import Design, Sought, make_design, reach_of
from .following.kinds import heated_cases, refuse_unknown
from .following.weights import keep_bodies, read_weights
from .history import State
from .settings import Settings
from .sizing import refuse_overfull
from .standing import Loop, OptimiseError
from .wishes.regions import nodes_around

_FIXED_FILES = (
    "mx.*",
    file_names.NODE_FLAGS,
    file_names.TP_INDEX,
    file_names.ELEMENT_FLAGS,
    file_names.LOAD_CASES,
    f"{file_names.LOAD_CASE_MAP_STEM}.*",
)


def start(cases: PathLike, directory: Path, settings: Settings, reading: Reading | None) -> Loop:
    """A loop that was begun goes on with the present settings; otherwise one begins."""
    state = history.read_state(directory)
    if state is None:
        state, model = _begin(cases, directory, settings, reading)
    else:
        model = read(directory)
        _refuse_other_inputs(cases, directory, state)
        _refuse_lost_levels(directory, model)
        _take_settings(cases, directory, settings, state, model, reading)
    if (highest := max(state.kept + state.void, default=0)) > len(model.nodes):
        path = history.folder_of(directory) / history.STATE
        raise formats.FormatError(path, f"it keeps node {highest} of {len(model.nodes)}")
    try:
        kept, void = (np.array(nodes, np.int64) for nodes in (state.kept, state.void))
        reach = reach_of(model, settings.radius, settings.wishes.sizes)
        radius = state.widened * reach
        # With limits, parts came out heavier with smoothed levels: a printed one twice as heavy.
        design = make_design(
            model, radius, kept, void, settings.wishes, state.load_cases, not settings.limits
        )
        refuse_overfull(design, settings)
    except ValueError as error:
        raise OptimiseError(str(error)) from None
    design.sought = Sought(state.ratio, state.steepness)
    _take_wishes(directory, settings, state, design)
    rows = history.read_history(directory)[: state.step - 1]
    if len(rows) != state.step - 1:
        raise OptimiseError(f"{directory} holds only {len(rows)} of {state.step - 1} steps")
    heated = heated_cases(model, state.load_cases)
    try:
        refuse_unknown(model, heated, state.following)
    except ValueError as error:
        raise OptimiseError(str(error)) from None
    return Loop(
        directory,
        settings,
        state,
        design,
        reach,
        rows,
        factored_time(directory).is_below,
        weights=read_weights(directory, model, state.following),
        heated=heated,
    )


def _refuse_lost_levels(directory: Path, model: Model) -> None:
    assert model.node_tp_index is not None
    highest = int(model.node_tp_index.max(initial=0))
    if highest > len(model.tp):
        told = f"it holds {len(model.tp)} levels, and nodes have level {highest}"
        raise formats.FormatError(directory / file_names.TP, told)


def _begin(
    cases: PathLike, directory: Path, settings: Settings, reading: Reading | None
) -> tuple[State, Model]:
    """Prepare the directory where needed, write the first levels and the first state."""
    prepared: Prepared | None = None
    if history.is_half_prepared(directory) or not Path(directory, file_names.NODES).exists():
        load_ahead("scipy.spatial")  # while another process reads the part
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
    kept, void = _set_nodes(cases, settings, model, prepared, reading)
    following = _following(cases, directory, model, prepared, reading, taking_part)
    state = State(
        step=1,
        running=0,
        model=_model_digest(directory, following),
        cases=cases_digest(cases),
        load_cases=taking_part,
        keep=list(settings.keep),
        kept=kept,
        combine=settings.combine,
        weights=_weights(cases, settings, taking_part),
        since=1,
        target=None,
        mode=_mode_of_options(model),
        void=void,
        case_file=str(Path(cases).absolute()),
        following=following,
        aims=settings.aims(),
    )
    largest = float(np.abs(model.tp).max())
    history.save_array(history.levels_file(directory, 1), model.tp / (largest or 1.0))
    history.write_state(directory, state)
    return state, model


def _mode_of_options(model: Model) -> formats.Mode:
    number = int(option_of(model, "Sys.ComputationMode"))
    return next(mode for mode, value in formats.MODES.items() if value == number)


def _requested(model: Model) -> list[int]:
    return [
        number
        for number, case in enumerate(model.load_cases, 1)
        if formats.is_wanted(case.kind, case.flags)
    ]


def _following(
    cases: PathLike,
    directory: Path,
    model: Model,
    prepared: Prepared | None,
    reading: Reading | None,
    taking_part: list[int],
) -> list[int]:
    """Load cases whose weight follows the design; their body forces are kept for the loop."""
    if not any(load.follows for load in read_cases(cases).loads.values()):
        return []
    prepared = prepared or build(None, cases, reading)
    ours, theirs = prepared.mesh.nodes.astype(np.float32), model.nodes.astype(np.float32)
    same_elements = len(prepared.mesh.elements) == len(model.elements)
    if not same_elements or not np.array_equal(ours, theirs):
        raise OptimiseError(
            f"the part of {cases} has its nodes elsewhere than {directory}, or other elements: "
            "what follows the design can't be found; begin in a new directory"
        )
    bodies = {n: body for n, body in prepared.bodies.items() if n in taking_part}
    keep_bodies(directory, bodies)
    return sorted(bodies)


def _model_digest(directory: Path, following: Sequence[int]) -> str:
    """Of all input files but levels, flags and options, and weights that follow the design."""
    total = hashlib.sha256()
    changing = {formats.numbered(file_names.LOAD_CASE_MAP_STEM, n): n for n in following}
    for path in sorted(p for pattern in _FIXED_FILES for p in directory.glob(pattern)):
        total.update(path.name.encode())
        if number := changing.get(path.name):
            sections = formats.read_loadcase_map(directory, number)
            for rows in (sections.constraints, sections.forces2, sections.scalars):
                total.update(rows.tobytes())
            continue
        with open(path, "rb") as stream:
            total.update(hashlib.file_digest(stream, "sha256").digest())
    return total.hexdigest()


def cases_digest(cases: PathLike) -> str:
    """Of what the case file says about the model."""
    said = tomllib.loads(Path(cases).read_text(encoding="utf-8-sig"))
    said.pop("optimise", None)
    return hashlib.sha256(json.dumps(said, sort_keys=True, default=str).encode()).hexdigest()


def _refuse_other_inputs(cases: PathLike, directory: Path, state: State) -> None:
    if cases_digest(cases) != state.cases:
        raise OptimiseError(
            f"{cases} has changed outside [optimise] since {directory} was prepared from it: "
            f"take the changes back, or remove {directory} to begin anew"
        )
    if _model_digest(directory, state.following) != state.model:
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
    if (list(settings.keep), settings.wishes.told()) != (state.keep, state.wishes):
        state.kept, state.void = _set_nodes(cases, settings, model, None, reading)
        state.keep = list(settings.keep)
    weights = _weights(cases, settings, state.load_cases)
    if (settings.combine, weights) != (state.combine, state.weights):
        state.combine, state.weights, state.since = settings.combine, weights, state.step
    if (aims := settings.aims()) != state.aims:
        if state.aims:  # else of an earlier version, which didn't note them
            state.since, state.returned = state.step, min(state.returned, state.step - 1)
            _leave_growth(state)
        state.aims = aims
    if 0 < state.grown_at < settings.steps and state.step <= settings.steps:
        _leave_growth(state)
    state.case_file = str(Path(cases).absolute())
    history.write_state(directory, state)


def _leave_growth(state: State) -> None:
    """Have the next steps go on from a part that material was added to."""
    if state.grown_from:
        state.grown_from = state.grown_at = state.grown_most = 0
        state.grown_why = ""
        state.since, state.returned = state.step, min(state.returned, state.step - 1)


def _take_wishes(directory: Path, settings: Settings, state: State, design: Design) -> None:
    """Have the next step's levels fulfil wishes that are new; the state tells last that they do."""
    told = settings.wishes.told()
    if told == state.wishes:
        return
    path = history.levels_file(directory, state.step)
    history.save_array(path, design.shape.begun(history.load_array(path, len(design.points))))
    for name in (history.free_file, history.taken_file):
        name(directory, state.step).unlink(missing_ok=True)
    state.wishes, state.since, state.sized = told, state.step, 0
    state.widened, state.returned = 1.0, min(state.returned, state.step - 1)
    _leave_growth(state)
    history.write_state(directory, state)


def _set_nodes(
    cases: PathLike,
    settings: Settings,
    model: Model,
    prepared: Prepared | None,
    reading: Reading | None,
) -> tuple[list[int], list[int]]:
    """Numbers of the nodes to keep, and of those to leave void."""
    if not settings.keep and not settings.wishes.void:
        return [], []
    prepared = prepared or build(None, cases, reading)
    if len(prepared.mesh.nodes) != len(model.nodes):
        raise OptimiseError(
            f"the part of {cases} has {len(prepared.mesh.nodes)} nodes, the directory "
            f"{len(model.nodes)}: the sets to keep or leave void can't be found"
        )
    thickness = settings.wishes.thickness
    found = [
        [nodes_around(prepared.sets, name, key, thickness.get(name)) for name in names]
        for key, names in (("keep", settings.keep), ("void", settings.wishes.void))
    ]
    prepared.sets.report.finish()
    number_of = _numbers_in(model, prepared.mesh.nodes)
    if number_of is None:
        raise OptimiseError(
            f"the part of {cases} has its nodes elsewhere than the directory: the sets to keep "
            "or leave void can't be found"
        )
    kept, void = (sorted({int(number_of[n - 1]) for some in sets for n in some}) for sets in found)
    return kept, void


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
