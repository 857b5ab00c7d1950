"""What follows a loop for the least mass where its part is to hold the limits as a body of its own.

The mesh of a loop is too coarse for notches, and may carry what a body doesn't. So its part is
meshed as a body and solved, and material added where that breaks a limit (`growth.py`), step by
step, until it holds them, or nothing helps any more; the loop then ends with the part that came
nearest. The next levels are there before a body is noted: killed in between, it is looked at again.
"""

from __future__ import annotations

import time
from collections.abc import Callable
from functools import partial

import numpy as np

from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.part import PartError

from . import history
from .as_body import BodyError, solved_body
from .body_compared import results_of
from .body_limits import look_at
from .growth import grown
from .limits.on_body import OnBody, read_on_body, write_on_body
from .standing import Loop, OptimiseError, levels_of, write_design
from .wishes.sampling import mean_edge

_PATIENCE = 4  # steps that come no nearer to the limits, after which nothing is thought to help
_SAME = 1e-6  # change of levels that adds nothing
_NO_ROOM = "there is no room for material where the body needs it"
_NEARER = 0.01  # part that the largest ratio to a limit falls by, where a step came nearer


Solve = Callable[[tuple[str, ...], float], None]


def grow(loop: Loop, converged: bool, solve: Solve) -> list[str]:
    """Add material until the body of the loop's part holds the limits; sentences on what became.

    `converged` is how the loop had ended. `solve` solves the next step's levels and notes it, and
    is given what there is to tell of the body before, and the seconds that it took.
    """
    state = loop.state
    if not state.grown_from:
        state.grown_from, state.target = state.step, None
        state.grown_at = 0 if converged else loop.settings.steps
        history.write_state(loop.directory, state)
    rows, begun = _known(loop), time.monotonic()
    while _goes_on(loop, rows):
        last = state.step - 1
        if state.running or last in _ratios(rows):
            seconds = time.monotonic() - begun
            solve(tuple(row.told() for row in rows if row.step == last), seconds)
            begun = time.monotonic()
            continue
        try:
            rows += _look(loop, rows)
        except (BodyError, PartError, CaseFileError, ValueError) as error:
            why = str(error).replace("\n", "; ")
            return _end(loop, rows, solve, f"the part can't be looked at as a body: {why}")
    return _end(loop, rows, solve)


def _known(loop: Loop) -> list[OnBody]:
    """Bodies looked at, of the limits that there are; up to the one that was gone back to."""
    state, steering = loop.state, loop.steering
    assert steering is not None
    limits = {(term.name, term.limit.at_most) for term in steering.terms}
    rows = read_on_body(loop.directory, state.grown_from - 1, state.step)
    steps = {row.step for row in rows}
    own = {step: {(r.term, r.at_most) for r in rows if r.step == step} for step in steps}
    rows = [row for row in rows if own[row.step] == limits]
    if _is_back(loop) and not _has_ended(loop) and (best := _nearest(rows)) is not None:
        rows = [row for row in rows if row.step <= best]
    return rows


def _ratios(rows: list[OnBody]) -> dict[int, float]:
    """The largest of each step, in order."""
    found: dict[int, float] = {}
    for row in rows:
        found[row.step] = max(found.get(row.step, 0.0), row.ratio)
    return dict(sorted(found.items()))


def _nearest(rows: list[OnBody]) -> int | None:
    ratios = _ratios(rows)
    return min(ratios, key=ratios.__getitem__, default=None)


def _holds(rows: list[OnBody], step: int) -> bool:
    own = [row.held for row in rows if row.step == step]
    return bool(own) and all(own)


def _goes_on(loop: Loop, rows: list[OnBody]) -> bool:
    """Whether the last step is to be looked at, or another one to be solved."""
    state = loop.state
    last, ratios = state.step - 1, _ratios(rows)
    if state.running and not state.returned == state.step:
        return True  # begun with other settings: what was solved must be what is there
    if _has_ended(loop) or _holds(rows, last) or not loop.settings.body_steps:
        return False
    left = loop.settings.body_steps - (state.step - state.grown_from)
    if last not in ratios:
        return left >= 0
    return left > 0 and not _comes_no_nearer(ratios) and not _adds_nothing(loop)


def _has_ended(loop: Loop) -> bool:
    return 0 < loop.state.grown_most >= loop.settings.body_steps


def _is_back(loop: Loop) -> bool:
    return loop.state.returned == loop.state.step - 1


def _comes_no_nearer(ratios: dict[int, float]) -> bool:
    found = list(ratios.values())
    if len(found) <= _PATIENCE:
        return False
    return min(found[-_PATIENCE:]) > (1 - _NEARER) * min(found[:-_PATIENCE])


def _adds_nothing(loop: Loop) -> bool:
    """Whether the next part is the last one: there is no room for more."""
    step = loop.state.step
    return np.allclose(levels_of(loop, step), levels_of(loop, step - 1), rtol=0.0, atol=_SAME)


def _look(loop: Loop, rows: list[OnBody]) -> list[OnBody]:
    """What the limits are on the body of the last step's part; leaves the levels it asks for."""
    state, steering = loop.state, loop.steering
    assert steering is not None
    show = None if loop.on_progress is None else partial(loop.on_progress, state.step - 1)
    try:
        with solved_body(
            loop.directory,
            state.case_file,
            vk_rund=loop.vk_rund,
            reading=loop.reading,
            on_progress=show,
        ) as body:
            if not body.limits:
                raise BodyError(body.prepared.notes[-1])
            if body.limits != loop.settings.limits:
                raise BodyError("[optimise.limits] have changed meanwhile")
            whole = body.prepared.model
            results = {number: results_of(body.folder, number) for number in state.load_cases}
            seen = look_at(whole, body.limits, body.reach, results, steering.terms, state.step - 1)
    except BodyError as error:
        if error.run is not None and error.run.outcome != "stopped":
            raise OptimiseError(str(error), error.run) from None
        raise
    if not all(row.held for row in seen.rows):
        levels, edge = levels_of(loop, state.step - 1), mean_edge(steering.model)
        following = grown(loop.design, levels, seen.places, seen.ratios, seen.others, edge)
        write_design(loop, state.step, following)
    write_on_body(loop.directory, [*rows, *seen.rows])
    return seen.rows


def _end(loop: Loop, rows: list[OnBody], solve: Solve, why: str = "") -> list[str]:
    """End with the part that came nearest, where that isn't the last one."""
    state, best = loop.state, _nearest(rows)
    if best is None:
        return [why] if why else []
    last = state.step - 1
    back = not _is_back(loop) and best != last
    if not _has_ended(loop):
        if not why and last in _ratios(rows) and not _holds(rows, last) and _adds_nothing(loop):
            why = _NO_ROOM
        state.grown_most, state.grown_why = max(loop.settings.body_steps, 1), why
    if back:
        history.save_array(history.levels_file(loop.directory, state.step), levels_of(loop, best))
        state.returned = state.step
    history.write_state(loop.directory, state)
    if back:
        solve(tuple(row.told() for row in rows if row.step == last), 0.0)
    return _told(loop, rows, best)


def _told(loop: Loop, rows: list[OnBody], best: int) -> list[str]:
    last, first = loop.state.step - 1, loop.state.grown_from - 1
    told = [loop.state.grown_why] if loop.state.grown_why else []
    if best > first and _holds(rows, best):
        volume, before = loop.rows[best - 1].volume, loop.rows[first - 1].volume
        told.append(
            "with material added where a body needs it, the part holds its limits as one: "
            f"volume {volume:.4g}, after {before:.4g}"
        )
    elif best != last:
        told.append(f"step {last} has the part again that came nearest to its limits as a body")
    return told + [row.told() for row in rows if row.step == best]
