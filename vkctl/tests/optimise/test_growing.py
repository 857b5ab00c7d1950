"""A loop for the least mass that goes on until its part holds the limits as a body."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import replace
from pathlib import Path
from types import SimpleNamespace

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.optimise import (
    Optimised,
    OptimiseError,
    StepShown,
    growing,
    history,
    optimise,
    read_settings,
    solving,
)
from vkctl.optimise.as_body import BodyError, verify_part
from vkctl.optimise.body_limits import Looked
from vkctl.optimise.limits.on_body import OnBody, read_on_body, write_on_body
from vkctl.optimise.standing import Loop
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.part import PartError
from vkctl.running.run import RunResult

Patch = pytest.MonkeyPatch
LIMIT = "stress = {{ at_most = {limit}, away_from = ['tip', 'wall'], distance = 1.6 }}\n"
LEAST = "goal = 'mass'\nsteps = {steps}\nreduction = 0.1\nkeep = ['tip']\nbody_steps = {most}\n"
STEPS = 8  # of the loops below before their bodies are looked at


def cases_of(folder: Path, limit: float = 5.0, steps: int = STEPS, most: int = 6) -> Path:
    settings = LEAST.format(steps=steps, most=most) + "[optimise.limits]\n"
    return write_small(folder, settings + LIMIT.format(limit=limit))


def run(cases: Path, **more: object) -> Optimised:
    return optimise(cases, cases.parent / "d", vk_rund=VK_RUND, **more)  # type: ignore[arg-type]


class Bodies:
    """Bodies whose stresses are said beforehand: ratios to the limit, one for each look."""

    def __init__(self, patch: Patch, ratios: list[float]) -> None:
        self.ratios, self.looks, self.fails = ratios, 0, ""
        patch.setattr(growing, "solved_body", self._body)
        patch.setattr(growing, "look_at", self._look)
        patch.setattr(growing, "results_of", lambda folder, number: None)
        self.place = (6.0, 3.0, 0.5)

    @contextmanager
    def _body(self, directory: Path, cases: str, **_: object) -> Iterator[object]:
        if self.fails:
            raise PartError(self.fails)
        limits = read_settings(cases).limits
        yield SimpleNamespace(
            folder=directory, limits=limits, reach=1.0, prepared=SimpleNamespace(model=None)
        )

    def _look(self, body: object, limits: object, reach: float, *rest: object) -> Looked:
        step, terms = rest[-1], rest[-2]
        assert isinstance(step, int) and isinstance(terms, list)
        ratio = self.ratios[min(self.looks, len(self.ratios) - 1)]
        self.looks += 1
        (term,) = terms
        at_most = term.limit.at_most
        row = OnBody(step, term.name, ratio * at_most, at_most, *self.place)
        return Looked([row], np.array([self.place]), np.array([ratio]), 0.0)


def test_a_part_is_grown_until_its_body_holds_the_limits(tmp_path: Path) -> None:
    cases = cases_of(tmp_path, limit=4.0, steps=14)
    told: list[StepShown] = []
    done = run(cases, on_step=told.append)
    looked = read_on_body(done.directory, 1, 99)
    assert looked[0].step == 14 and not looked[0].held and looked[-1].held
    assert len(done.rows) == looked[-1].step > 14
    volumes = [row.volume for row in done.rows[13:]]
    assert volumes == sorted(volumes) and volumes[-1] < 1.25 * volumes[0]
    assert told[14].told == (looked[0].told(),) and told[14].steps == 20
    grew, as_body, in_loop = done.told
    assert grew.startswith("with material added where a body needs it, the part holds its limits")
    assert as_body == looked[-1].told() and in_loop.startswith("stress in down")
    (own,) = verify_part(done.directory, vk_rund=VK_RUND).limits
    assert own.held and own.body == pytest.approx(looked[-1].value, rel=1e-6)
    again = run(cases)
    assert again.rows == done.rows and again.told == done.told


def test_a_body_that_holds_the_limits_has_nothing_added(tmp_path: Path, monkeypatch: Patch) -> None:
    bodies = Bodies(monkeypatch, [1.004])
    cases = cases_of(tmp_path)
    done = run(cases)
    assert len(done.rows) == STEPS and bodies.looks == 1
    assert [line.split(":")[0] for line in done.told] == [
        "step 8 has the lightest part again that held all limits",
        "as a body, stress in down",
        "stress in down",
    ]
    assert run(cases).told == done.told and bodies.looks == 1


def test_steps_that_come_no_nearer_end_it_with_the_nearest_part(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [3.0, 1.2, 1.19, 1.21, 1.22, 1.195])
    cases = cases_of(tmp_path, most=20)
    done = run(cases)
    # Looked at: the loop's own part and five more. The third had the least, and is solved again.
    assert bodies.looks == 6 and len(done.rows) == STEPS + 6
    nearest = history.load_array(history.levels_file(done.directory, STEPS + 2))
    assert np.array_equal(done.levels, nearest)
    assert done.rows[-1].volume == done.rows[STEPS + 1].volume
    back, as_body, _ = done.told
    assert back == f"step {STEPS + 6} has the part again that came nearest to its limits as a body"
    assert "5.95 of at most 5 at (6, 3, 0.5): the limit isn't met" in as_body
    again = run(cases)
    assert again.rows == done.rows and again.told == done.told and bodies.looks == 6


def test_more_body_steps_carry_it_further(tmp_path: Path, monkeypatch: Patch) -> None:
    bodies = Bodies(monkeypatch, [2.0, 1.8, 1.6, 1.4, 1.2, 0.9])
    done = run(cases_of(tmp_path, most=2))
    assert len(done.rows) == STEPS + 2 and bodies.looks == 3
    assert "isn't met" in done.told[0]
    done = run(cases_of(tmp_path, most=9))
    assert len(done.rows) == STEPS + 5 and bodies.looks == 6
    assert done.told[0].startswith("with material added where a body needs it")


@pytest.mark.parametrize("place", ["body", "step"])
def test_cut_off_anywhere_it_goes_on(tmp_path: Path, monkeypatch: Patch, place: str) -> None:
    ratios = [1.5, 1.3, 0.9]
    with monkeypatch.context() as patch:
        Bodies(patch, ratios)
        whole = run(cases_of(tmp_path / "whole"))
    cases = cases_of(tmp_path / "cut")
    bodies = Bodies(monkeypatch, ratios)
    if place == "body":
        with monkeypatch.context() as patch:

            def cut_off(directory: Path, rows: list[OnBody]) -> None:
                if len(rows) == 2:
                    raise KeyboardInterrupt
                write_on_body(directory, rows)

            patch.setattr(growing, "write_on_body", cut_off)
            with pytest.raises(KeyboardInterrupt):
                run(cases)
        bodies.looks -= 1
    else:

        def stop(step: int, progress: object) -> None:
            if step == STEPS + 2:
                raise KeyboardInterrupt

        with pytest.raises(KeyboardInterrupt):
            run(cases, on_progress=stop)
    done = run(cases)
    assert [row.volume for row in done.rows] == [row.volume for row in whole.rows]
    assert np.array_equal(done.levels, whole.levels) and done.told[:2] == whole.told[:2]


def test_other_limits_take_the_loop_up_again(tmp_path: Path, monkeypatch: Patch) -> None:
    bodies = Bodies(monkeypatch, [1.5, 0.9, 0.9])
    first = run(cases_of(tmp_path))
    assert len(first.rows) == STEPS + 1
    done = run(cases_of(tmp_path, limit=4.5, steps=STEPS + 5))
    state = history.read_state(done.directory)
    assert state is not None and state.since == STEPS + 2 and state.grown_from == STEPS + 6
    assert len(done.rows) == STEPS + 5 and bodies.looks == 3
    # Its first step is the one that was left, and its volume the one to go on from.
    assert done.rows[STEPS + 1].target == done.rows[STEPS + 1].volume


def test_more_steps_take_the_loop_up_again(tmp_path: Path, monkeypatch: Patch) -> None:
    Bodies(monkeypatch, [1.5, 0.9])
    assert len(run(cases_of(tmp_path)).rows) == STEPS + 1
    done = run(cases_of(tmp_path, steps=STEPS + 4))
    state = history.read_state(done.directory)
    assert state is not None and state.grown_from == STEPS + 5 == state.step


def test_other_limits_without_steps_left_have_the_body_looked_at_again(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [1.5, 0.9, 1.7, 0.9])
    assert len(run(cases_of(tmp_path)).rows) == STEPS + 1
    done = run(cases_of(tmp_path, limit=3.0))
    assert bodies.looks == 4 and len(done.rows) == STEPS + 2
    assert "2.7 of at most 3" in done.told[1]


def test_a_few_more_steps_than_before_leave_a_grown_part_as_it_is(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [1.5, 1.4, 0.9])
    first = run(cases_of(tmp_path))
    assert len(first.rows) == STEPS + 2
    done = run(cases_of(tmp_path, steps=STEPS + 1))
    assert done.rows == first.rows and done.told == first.told and bodies.looks == 3


def test_where_there_is_no_room_it_ends_at_once(tmp_path: Path, monkeypatch: Patch) -> None:
    bodies = Bodies(monkeypatch, [1.5])
    bodies.place = (60.0, 3.0, 0.5)
    done = run(cases_of(tmp_path))
    assert bodies.looks == 1 and len(done.rows) == STEPS
    assert done.told[1] == "there is no room for material where the body needs it"
    assert run(cases_of(tmp_path)).told == done.told and bodies.looks == 1


def test_a_grown_part_that_cannot_be_solved_ends_the_loop(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    """It isn't moved less instead: that would be another part, which the loop has left behind."""
    Bodies(monkeypatch, [1.5, 0.9])
    solve = solving._solve

    def failing(loop: Loop, mode: formats.Mode) -> RunResult:
        outcome = solve(loop, mode)
        if loop.state.step > STEPS:
            log = replace(outcome.log, error="No convergence")
            return replace(outcome, outcome="stopped", log=log)
        return outcome

    with monkeypatch.context() as patch:
        patch.setattr(solving, "_solve", failing)
        with pytest.raises(OptimiseError, match=f"step {STEPS + 1}"):
            run(cases_of(tmp_path))
    done = run(cases_of(tmp_path))
    assert len(done.rows) == STEPS + 1 and done.rows[-1].volume > done.rows[-2].volume


def test_a_step_that_was_cut_off_is_ended_whatever_the_settings_are_then(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    Bodies(monkeypatch, [1.5, 1.4, 1.3, 1.2])

    def stop(step: int, progress: object) -> None:
        if step == STEPS + 2:
            raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        run(cases_of(tmp_path), on_progress=stop)
    done = run(cases_of(tmp_path, most=1))
    state = history.read_state(done.directory)
    assert state is not None and state.running == 0 and state.step == len(done.rows) + 1
    # The part that was cut off isn't known as a body, and the nearest that is comes last.
    assert np.array_equal(
        done.levels, history.load_array(history.levels_file(done.directory, STEPS + 1))
    )


def test_a_loop_that_is_cut_off_on_its_way_back_ends_the_same(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    ratios = [1.5, 1.1, 1.2, 1.3]
    with monkeypatch.context() as patch:
        Bodies(patch, ratios)
        whole = run(cases_of(tmp_path / "whole", most=3))
    assert len(whole.rows) == STEPS + 4
    bodies = Bodies(monkeypatch, ratios)

    def on_step(step: StepShown) -> None:
        if step.row.step == STEPS + 4:
            raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        run(cases_of(tmp_path / "cut", most=3), on_step=on_step)
    done = run(cases_of(tmp_path / "cut", most=3))
    assert done.told[:2] == whole.told[:2] and len(done.rows) == len(whole.rows)
    assert bodies.looks == 4 and np.array_equal(done.levels, whole.levels)


def test_what_is_carried_further_goes_on_from_the_part_that_was_gone_back_to(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [1.5, 1.1, 1.2, 1.3, 1.1, 0.9])
    assert len(run(cases_of(tmp_path, most=3)).rows) == STEPS + 4
    done = run(cases_of(tmp_path, most=9))
    assert bodies.looks == 6 and len(done.rows) == STEPS + 5
    assert done.rows[-1].volume > done.rows[-2].volume == done.rows[STEPS].volume
    assert done.told[0].startswith("with material added where a body needs it")


def test_without_body_steps_no_body_is_looked_at(tmp_path: Path, monkeypatch: Patch) -> None:
    bodies = Bodies(monkeypatch, [1.5])

    def cut_off(*_: object) -> None:
        raise KeyboardInterrupt

    with monkeypatch.context() as patch:
        patch.setattr(growing, "_look", cut_off)
        with pytest.raises(KeyboardInterrupt):
            run(cases_of(tmp_path))
    done = run(cases_of(tmp_path, most=0))
    assert bodies.looks == 0 and len(done.rows) == STEPS and done.body_steps == 0


@pytest.mark.parametrize("begun", [1, 99])
def test_a_state_that_tells_of_steps_that_are_not_there_is_refused(
    tmp_path: Path, monkeypatch: Patch, begun: int
) -> None:
    Bodies(monkeypatch, [1.5, 0.9])
    cases = cases_of(tmp_path)
    path = history.folder_of(run(cases).directory) / history.STATE
    path.write_text(path.read_text().replace('"grown_from": 9', f'"grown_from": {begun}'))
    with pytest.raises(formats.FormatError, match="no state of an optimisation"):
        run(cases)


def test_a_part_that_is_no_body_is_told_and_left_as_it_is(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [1.5])
    bodies.fails = "its surface\ncan't be meshed"
    done = run(cases_of(tmp_path))
    assert len(done.rows) == STEPS
    assert done.told[1] == "the part can't be looked at as a body: its surface; can't be meshed"


def test_where_a_later_part_is_no_body_the_nearest_is_gone_back_to(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    bodies = Bodies(monkeypatch, [1.5, 1.4])

    def on_step(step: StepShown) -> None:
        if step.row.step == STEPS + 2:
            bodies.fails = "torn"

    done = run(cases_of(tmp_path), on_step=on_step)
    assert len(done.rows) == STEPS + 3
    assert run(cases_of(tmp_path)).told == done.told
    why, back, as_body, _ = done.told
    assert why == "the part can't be looked at as a body: torn" and "step 11 has the part" in back
    assert as_body.startswith("as a body, stress in down: 7 of at most 5")


def test_a_run_of_the_body_that_is_interrupted_ends_the_loop(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    Bodies(monkeypatch, [1.5, 0.9])

    def interrupted(*_: object) -> None:
        run = SimpleNamespace(outcome="interrupted", status=130)
        raise BodyError("the body can't be solved: interrupted", run)  # type: ignore[arg-type]

    with monkeypatch.context() as patch:
        patch.setattr(growing, "results_of", interrupted)
        with pytest.raises(OptimiseError, match="interrupted") as caught:
            run(cases_of(tmp_path))
        assert caught.value.run is not None and caught.value.run.status == 130
    assert len(run(cases_of(tmp_path)).rows) == STEPS + 1


def test_sets_that_no_body_has_are_told(tmp_path: Path) -> None:
    cases = cases_of(tmp_path, steps=2)
    text = cases.read_text().replace("['tip', 'wall']", "['inner', 'wall']")
    text = text.replace("keep = ['tip']", "keep = ['tip']\nvoid = ['inner']")
    inner = 'where = "abs(x - 6) + abs(y - 3) + z < 0.1"'
    cases.write_text(f"{text}\n[node_sets.inner]\n{inner}\n")
    done = run(cases)
    assert done.told[0].startswith("the part can't be looked at as a body: the limits can't be")


@pytest.mark.parametrize(
    ("settings", "told"),
    [
        ("body_steps = 5\n", "body_steps in [optimise] adds to the volume, which is given"),
        (
            LEAST.format(steps=5, most=-1) + "[optimise.limits]\ncompliance = { at_most = 9.0 }\n",
            "-1",
        ),
        (
            LEAST.format(steps=5, most=3)
            + "sizes = { member = 3.0 }\n[optimise.limits]\ncompliance = { at_most = 9.0 }\n",
            "body_steps in [optimise] adds material where sizes may not be kept",
        ),
    ],
)
def test_what_it_has_no_meaning_with_is_refused(tmp_path: Path, settings: str, told: str) -> None:
    with pytest.raises(CaseFileError) as caught:
        run(write_small(tmp_path, settings))
    assert told in str(caught.value)


def test_the_command_tells_each_body_before_the_step_that_follows(
    tmp_path: Path, monkeypatch: Patch
) -> None:
    Bodies(monkeypatch, [1.5, 0.9])
    words = ["optimise", str(cases_of(tmp_path)), str(tmp_path / "d"), "--no-pictures"]
    result = CliRunner().invoke(app, [*words, "--vk-rund", str(VK_RUND)])
    assert result.exit_code == 0, result.output
    lines = result.stdout.splitlines()
    told = lines.index(
        "as a body, stress in down: 7.5 of at most 5 at (6, 3, 0.5): the limit isn't met"
    )
    assert lines[told + 1].startswith(f"step {STEPS + 1} of {STEPS + 6}")
    assert f"ended at the step limit after {STEPS} steps and 1 that added material" in result.stdout
