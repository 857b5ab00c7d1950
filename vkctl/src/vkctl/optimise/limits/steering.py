"""Which way a step goes when several values count: the criterion, and the volume to go to.

What each value gains by material at a place is brought to one scale, as a part of the value, and
added up with weights that follow the values (`weights.py`). For the least mass the volume follows
too (`mass.py`).
"""

from __future__ import annotations

from dataclasses import dataclass, replace
from functools import partial

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, name_of
from vkctl.directory.model import read
from vkctl.directory.results import Results
from vkctl.stress.solution import Solution, solution_of

from .. import history
from ..design import reach_of
from ..following.weights import set_weights
from ..history import HistoryRow
from ..runs import run_in
from ..settings import Settings
from ..standing import Loop, OptimiseError
from .adjoint import FOLDER, AdjointError, Pull, solve_adjoint
from .aggregates import Value
from .mass import next_volume
from .sensitivity import sensitivity
from .table import Weighed, ratios_of, read_weighed, write_weighed
from .terms import Steering, Term, make_terms
from .weights import multipliers, shares

_INSIDE = 0.995  # part of a limit that is gone to, so that it holds in the end
_SPOKEN = 0.01  # weight from which a term's adjoint load case is worth solving
_DAMPING = 0.5  # of the correction of stresses from step to step
_MASS_REDUCTION = 1.2  # of the volume over all steps, at most, while all limits hold
_EVEN = 0.005  # part that the largest energy may be above the weighted mean of all
_BESIDE = 0.4  # weight of stresses beside other values, for the least mass
_WINDOW = 5  # steps whose values are compared with those of as many before
_FULL = 0.9985  # part of all material that counts as all


@dataclass(frozen=True)
class Steered:
    """What a step goes by."""

    criterion: Array
    next_target: float


def needs_steering(loop: Loop) -> bool:
    return bool(loop.settings.limits) or loop.settings.combine == "worst"


def begin_steering(loop: Loop) -> Steering:
    """Of a loop at its next step; OptimiseError for limits that can't be set on its model."""
    model = read(loop.directory)
    try:
        reach = reach_of(model, loop.settings.radius, loop.settings.wishes.sizes)
        terms = make_terms(model, loop.settings.limits, loop.state.load_cases, reach)
    except ValueError as error:
        raise OptimiseError(str(error)) from None
    return Steering(model, terms, read_weighed(loop.directory, loop.state.step))


def steer(
    loop: Loop,
    results: list[Results],
    criteria: Array,
    levels: Array,
    target: float,
    mode: formats.Mode,
) -> Steered:
    """Weigh a solved step, whose load cases have criteria (cases, points), and note it."""
    steering = loop.steering
    assert steering is not None
    solutions, values, limited = _valued(loop, steering, results, levels)
    cases, criterion = _weighed_cases(loop, steering, results, criteria)
    chosen = [k for k, row in enumerate(limited) if row.weight > _SPOKEN and values[k].smooth > 0]
    adjoints = _adjoints(loop, steering, values, chosen, mode)
    for k in chosen:
        solution = solutions[steering.terms[k].case]
        adjoint = adjoints.get(k, solution.displacements)
        found = sensitivity(steering.model, solution, adjoint, values[k].gain).criterion
        if (weight := loop.weights.get(steering.terms[k].case)) is not None:
            found -= weight.work(adjoint + values[k].along(solution.displacements))
        criterion += limited[k].weight / values[k].smooth * found
    steering.rows += cases + limited
    write_weighed(loop.directory, steering.rows)
    if loop.settings.goal == "mass":
        volume = loop.design.volume(levels)
        fullest = loop.design.fullest()
        _require_reachable(limited, steering.terms, volume, fullest)
        # Wishes may leave less than the target, from which nothing would come down in time.
        next_target = _next_volume(loop, min(target, volume), volume, fullest)
        return Steered(criterion, next_target)
    return Steered(criterion, loop.settings.next_target(target))


def _valued(
    loop: Loop, steering: Steering, results: list[Results], levels: Array
) -> tuple[dict[int, Solution], list[Value], list[Weighed]]:
    """Solutions of a step's load cases, and what its limits come to."""
    steering.model.tp = levels.astype(np.float32)
    set_weights(steering.model.load_cases, loop.weights, loop.design.levels_of_nodes(levels))
    steering.rows = [row for row in steering.rows if row.step < loop.state.step]
    solutions = {r.number: solution_of(steering.model, r) for r in results if steering.terms}
    values = [term.value(steering.model, solutions[term.case]) for term in steering.terms]
    return solutions, values, _weighed_limits(loop, steering, values)


def note_limits(loop: Loop, results: list[Results], levels: Array) -> None:
    """Note what the limits come to in a step that nothing is steered by."""
    assert loop.steering is not None
    *_, limited = _valued(loop, loop.steering, results, levels)
    loop.steering.rows += limited
    write_weighed(loop.directory, loop.steering.rows)


def _before(steering: Steering, name: str) -> Weighed | None:
    """What was weighed of a term in the latest step that had it."""
    return next((row for row in reversed(steering.rows) if row.term == name), None)


def _steered_ratio(value: Value, row: Weighed) -> float:
    return row.correction * value.smooth / (_INSIDE * row.at_most)


def _weighed_limits(loop: Loop, steering: Steering, values: list[Value]) -> list[Weighed]:
    """Limits with their weights."""
    rows = []
    for term, value in zip(steering.terms, values, strict=True):
        before = _before(steering, term.name)
        now = value.measured / value.smooth if value.smooth > 0 else 1.0
        if before is not None and term.limit.kind == "stress":
            now = _DAMPING * before.correction + (1 - _DAMPING) * now
        start = 1.0 if _is_shared(loop.settings, term) else 0.0
        rows.append(
            Weighed(
                loop.state.step,
                term.name,
                value.measured,
                term.limit.at_most,
                start if before is None else before.weight,
                now,
            )
        )
    ratios = np.array([_steered_ratio(v, row) for v, row in zip(values, rows, strict=True)])
    weights = np.array([row.weight for row in rows])
    shared = np.array([_is_shared(loop.settings, term) for term in steering.terms], np.bool_)
    stresses = np.array([term.limit.kind == "stress" for term in steering.terms], np.bool_)
    weights[~shared] = multipliers(weights[~shared], ratios[~shared])
    if shared.any():
        weights[shared] = shares(
            weights[shared] / weights[shared].sum(), ratios[shared], loop.state.step
        )
    if loop.settings.goal == "mass" and stresses.any():
        even = np.full(int(stresses.sum()), 1.0 / stresses.sum())
        weights[stresses] = _BESIDE * shares(even, ratios[stresses], 1)
    return [replace(row, weight=float(w)) for row, w in zip(rows, weights, strict=True)]


def _is_shared(settings: Settings, term: Term) -> bool:
    """Whether a term is of those that are to be equally close to their limits."""
    return settings.goal == "mass" and term.limit.kind != "stress"


def _weighed_cases(
    loop: Loop, steering: Steering, results: list[Results], criteria: Array
) -> tuple[list[Weighed], Array]:
    """Load cases by their energies, and the criterion that they have together."""
    if any(_is_shared(loop.settings, term) for term in steering.terms):
        return [], np.zeros(criteria.shape[1])
    given = np.array(loop.state.weights)
    energies = given * [r.strain_energy for r in results]
    if loop.settings.combine == "weighted":
        return [], given @ criteria / energies.sum()
    names = case_names(steering.model)
    called = [f"energy of {name_of(r.number, names) or r.number}" for r in results]
    before = [_before(steering, name) for name in called]
    start = np.array([1.0 / len(called) if row is None else row.weight for row in before])
    weights = shares(start / start.sum(), energies, loop.state.step)
    rows = [
        Weighed(loop.state.step, name, float(energy), float("nan"), float(weight))
        for name, energy, weight in zip(called, energies, weights, strict=True)
    ]
    return rows, (weights * given / energies) @ criteria


def _adjoints(
    loop: Loop, steering: Steering, values: list[Value], chosen: list[int], mode: formats.Mode
) -> dict[int, Array]:
    """Adjoint displacements of the chosen terms that need them solved, by place."""
    solved = [k for k in chosen if not steering.terms[k].own_adjoint]
    if not solved:
        return {}
    pulls = [Pull(steering.terms[k].case, values[k].pull) for k in solved]
    folder = history.folder_of(loop.directory) / FOLDER
    try:
        found = solve_adjoint(
            folder, steering.model, loop.state.model, pulls, mode, partial(run_in, loop)
        )
    except AdjointError as error:
        raise OptimiseError(f"step {loop.state.step}: {error}", error.run) from None
    return dict(zip(solved, found, strict=True))


def _require_reachable(
    rows: list[Weighed], terms: list[Term], volume: float, fullest: float
) -> None:
    """OptimiseError where all material isn't enough; for stresses less of it may be."""
    if volume < _FULL * fullest:
        return
    left = "" if fullest >= _FULL else f" that the wishes leave, {100 * fullest:.3g} %,"
    for row, term in zip(rows, terms, strict=True):
        if row.ratio > 1.0 and term.limit.kind != "stress":
            raise OptimiseError(
                f"the limit can't be met: with all material{left} the {row.term} is "
                f"{row.value:.4g}, and at most {row.at_most:g} is asked for"
            )


def _next_volume(loop: Loop, target: float, volume: float, fullest: float) -> float:
    steering = loop.steering
    assert steering is not None
    by_step = {
        step: ratios
        for step, ratios in ratios_of(steering.rows, loop.state.since).items()
        if len(ratios) == len(steering.terms)
    }
    first = min(by_step)
    start = loop.rows[first - 1].volume if first < loop.state.step else volume
    ratios = np.array(list(by_step.values())) / _INSIDE
    most = loop.settings.reduction or _MASS_REDUCTION / loop.settings.steps
    return next_volume(ratios, target, most, start >= _FULL * fullest)


def has_settled(loop: Loop, last: int) -> bool:
    """Whether after step `last` the limits hold, and for the least mass the volume is at rest."""
    assert loop.steering is not None
    latest = [row for row in loop.steering.rows if last - _WINDOW < row.step <= last]
    if any(row.broken for row in latest) or not _is_even(loop, last):
        return False
    if loop.settings.goal == "stiffness":
        return True
    rows: list[HistoryRow] = loop.rows[loop.state.since - 1 : last][-2 * _WINDOW :]
    volumes = [row.volume for row in rows]
    change = abs(sum(volumes[_WINDOW:]) - sum(volumes[:_WINDOW]))
    settled = change <= loop.settings.tolerance * sum(volumes[_WINDOW:])
    return len(volumes) == 2 * _WINDOW and settled


def _is_even(loop: Loop, last: int) -> bool:
    """Whether all load cases that have a weight have the largest energy, after step `last`."""
    assert loop.steering is not None
    rows = [r for r in loop.steering.rows if r.step == last]
    cases = [row for row in rows if not np.isfinite(row.at_most)]
    mean = sum(row.weight * row.value for row in cases)
    return bool(max((row.value for row in cases), default=0.0) <= (1 + _EVEN) * mean)


def told_limits(rows: list[Weighed]) -> list[str]:
    """A sentence for each limit of the last step."""
    last = max((row.step for row in rows), default=0)
    told = []
    for row in rows:
        if row.step == last and np.isfinite(row.at_most):
            text = f"{row.term}: {row.value:.4g} of at most {row.at_most:g}"
            told.append(f"{text}: the limit isn't met" if row.broken else text)
    return told
