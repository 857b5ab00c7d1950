"""What follows a loop for the least mass where its part is to hold the limits as a body of its own.

The mesh of a loop is too coarse for notches, and may carry what a body doesn't. So its part is
meshed as a body and solved, and material added where that breaks a limit (`growth.py`), step by
step, until it holds them, or nothing helps any more; the loop then ends with the part that came
nearest. The next levels are there before a body is noted: killed in between, it is looked at again.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

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
_NEARER = 0.01  # part that the largest ratio to a limit falls by, where a step came nearer


def grow(loop: Loop, converged: bool, solve: Callable[[tuple[str, ...]], None]) -> list[str]:
    """Add material until the body of the loop's part holds the limits; sentences on what became.

    `converged` is how the loop had ended. `solve` solves the next step's levels and notes it, and
    is told what there is to tell of the body before.
    """
    state = loop.state
    if not state.grown_from:
        state.grown_from = state.step
        state.grown_at = 0 if converged else loop.settings.steps
        history.write_state(loop.directory, state)
    rows = read_on_body(loop.directory, state.grown_from - 1, state.step)
    while _goes_on(loop, rows):
        last = state.step - 1
        if last not in _ratios(rows):
            try:
                rows += _look(loop, rows)
            except (BodyError, PartError, CaseFileError, ValueError) as error:
                return _go_back(loop, rows, solve, _reason(error))
            continue
        solve(tuple(row.told() for row in rows if row.step == last))
    return _go_back(loop, rows, solve)


def _ratios(rows: list[OnBody]) -> dict[int, float]:
    """The largest of each step, in order."""
    found: dict[int, float] = {}
    for row in rows:
        found[row.step] = max(found.get(row.step, 0.0), row.ratio)
    return dict(sorted(found.items()))


def _holds(rows: list[OnBody], step: int) -> bool:
    own = [row.held for row in rows if row.step == step]
    return bool(own) and all(own)


def _goes_on(loop: Loop, rows: list[OnBody]) -> bool:
    """Whether the last step is to be looked at, or another one to be solved."""
    last, ratios = loop.state.step - 1, _ratios(rows)
    latest = list(ratios.values())
    left = loop.settings.body_steps - (loop.state.step - loop.state.grown_from)
    ended = 0 < loop.state.grown_most >= loop.settings.body_steps
    if ended or _holds(rows, last) or left < 0:
        return False
    least = min(latest[:-_PATIENCE], default=float("inf"))
    if len(latest) > _PATIENCE and min(latest[-_PATIENCE:]) > (1 - _NEARER) * least:
        return False
    return left > 0 or last not in ratios


def _is_back(loop: Loop) -> bool:
    return loop.state.returned == loop.state.step - 1


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
            whole = body.prepared.model
            results = {number: results_of(body.folder, number) for number in state.load_cases}
            seen = look_at(whole, body.limits, body.reach, results, steering.terms, state.step - 1)
    except BodyError as error:
        if error.run is not None and error.run.outcome != "stopped":
            raise OptimiseError(str(error), error.run) from None
        raise
    levels, edge = levels_of(loop, state.step - 1), mean_edge(steering.model)
    following = grown(loop.design, levels, seen.places, seen.ratios, seen.others, edge)
    write_design(loop, state.step, following)
    write_on_body(loop.directory, [*rows, *seen.rows])
    return seen.rows


def _reason(error: Exception) -> str:
    return str(error).replace("\n", "; ")


def _go_back(
    loop: Loop, rows: list[OnBody], solve: Callable[[tuple[str, ...]], None], why: str = ""
) -> list[str]:
    """End with the part that came nearest, where that isn't the last one."""
    state, ratios = loop.state, _ratios(rows)
    best = min(ratios, key=ratios.__getitem__, default=None)
    if best is not None and best != state.step - 1 and not _is_back(loop):
        path = history.levels_file(loop.directory, state.step)
        history.save_array(path, levels_of(loop, best))
        state.returned = state.step
        history.write_state(loop.directory, state)
        solve(())
    if best is not None:
        state.grown_most = max(state.grown_most, loop.settings.body_steps)
        history.write_state(loop.directory, state)
    return _told(loop, rows, best, why)


def _told(loop: Loop, rows: list[OnBody], best: int | None, why: str) -> list[str]:
    last, first = loop.state.step - 1, loop.state.grown_from - 1
    told = [f"the part can't be looked at as a body: {why}"] if why else []
    if best is None:
        return told
    if _holds(rows, best):
        volume, before = loop.rows[best - 1].volume, loop.rows[first - 1].volume
        if best > first:
            told.append(
                f"with material added where a body needs it, the part holds its limits as one: "
                f"volume {volume:.4g}, after {before:.4g}"
            )
    elif best != last:
        told.append(f"step {last} has the part again that came nearest to its limits as a body")
    return told + [row.told() for row in rows if row.step == best]
