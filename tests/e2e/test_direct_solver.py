"""A direct solver that fails in its solution or its release, seen from outside.

The program is built a second time with a substitute in front of the library, which fails in the
phase and the calls that it is told.
"""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest
from models import STEEL, part, pulled, tiny, tiny_case, written
from oracle import simulate
from program_under_test import Outcome
from runs import BAD_RUN, TIMEOUT, compare_files, lcflags, log_lines, stopped

from vkctl.directory.model import Model
from vkctl.shapes.boxes import box

SOLUTION, RELEASE, FACTOR = 33, -1, 22
AFTER_RELEASE = "Warning<Msg:SLE solver memory release phase error. Unclassified (internal) error.>"


@pytest.fixture(scope="module")
def failing(program) -> Path:
    """The program with the substitute, which the build leaves beside the program itself."""
    return Path(program).with_name("vk_rund_failing")


def run_failing(failing: Path, directory: Path, phase: int, code: int, **calls: int) -> Outcome:
    """A run whose direct solver gives the code in a phase; FAIL_FROM, FAIL_TO: in which calls."""
    told = {"FAIL_PHASE": phase, "FAIL_CODE": code, **calls}
    done = subprocess.run(
        [failing, directory],
        env=os.environ | {key: str(value) for key, value in told.items()},
        capture_output=True,
        text=True,
        timeout=TIMEOUT,
        check=False,
    )
    return Outcome(done.returncode, done.stdout, done.stderr)


def block(directory: Path, **options: float) -> Path:
    mesh = box("hex8", (8, 8, 8), (8.0, 8.0, 8.0))
    model = Model(mesh.nodes, mesh.elements, [STEEL])
    return written(directory, model, pulled(mesh), **options)


@pytest.mark.parametrize(
    ("code", "text"),
    [
        (-2, "SLE solution phase error. Not enough memory."),
        (-4, "SLE solution phase error. Zero pivot or refinement problem."),
        (-99, ""),
    ],
)
def test_a_solve_that_fails_is_warned_of_once_and_shows_as_missing_convergence(
    tmp_path, failing, code, text
):
    directory = block(tmp_path / "work", Sys_ComputationMode=2)
    outcome = run_failing(failing, directory, SOLUTION, code)
    reason = stopped(outcome, BAD_RUN)
    assert reason == "No convergence in static response analysis process."
    lines = log_lines(directory)
    assert [line for line in lines if line.startswith("Warning")] == [f"Warning<Msg:{text}>"]
    at = lines.index(f"Warning<Msg:{text}>")
    assert "EstDecMemReq" in lines[at - 1]
    assert lines[at + 1 : at + 3] == ["Info<Msg:IMode: 2>", "Info<Msg:ICount: -300>"]
    assert lines[-1] == f"Error<Msg:{reason}>"
    assert lcflags(directory)[0] == [1]
    assert not list(directory.glob("ws.*"))


def test_a_solve_that_failed_is_not_called_again_before_the_next_preparation(tmp_path, failing):
    """Only the first call fails: were there a second, it would succeed and the run converge."""
    directory = block(tmp_path / "work", Sys_ComputationMode=2)
    outcome = run_failing(failing, directory, SOLUTION, -2, FAIL_TO=1)
    stopped(outcome, BAD_RUN)
    assert "Info<Msg:ICount: -300>" in log_lines(directory)


def test_a_release_that_fails_at_the_end_is_a_warning(tmp_path, failing):
    model, mesh = part()
    directory = written(tmp_path / "work", model, pulled(mesh), Sys_ComputationMode=2)
    expected = simulate(directory)
    assert run_failing(failing, directory, RELEASE, -5) == Outcome(0, "", "")
    compare_files(directory, expected)
    lines = log_lines(directory)
    assert lines.count(AFTER_RELEASE) == 1
    at = lines.index(AFTER_RELEASE)
    assert lines[at - 1].startswith("Info<Msg:LCaseTime: ")
    assert lines[at + 1].startswith("Info<Msg:Total time: ")


def test_a_release_that_fails_before_the_next_pattern_is_a_warning(tmp_path, failing):
    cases = (tiny_case(), tiny_case(2, force=(3.0, 1.0, 2.0)))
    directory = tiny(tmp_path / "work", *cases, Sys_ComputationMode=2)
    expected = simulate(directory)
    assert run_failing(failing, directory, RELEASE, -5, FAIL_TO=1) == Outcome(0, "", "")
    compare_files(directory, expected)
    lines = log_lines(directory)
    assert lines.count(AFTER_RELEASE) == 1
    at = lines.index(AFTER_RELEASE)
    assert lines[at - 1].startswith("Info<Msg:SysConfig: ")
    assert lines[at + 1].startswith("Info<Msg:EstDecMemReq: ")


def test_a_factorisation_and_a_release_that_fail_leave_the_iterative_mode(tmp_path, failing):
    """In automatic mode; the release is the factorisation's that failed."""
    model, mesh = part()
    directory = written(tmp_path / "work", model, pulled(mesh), Sys_ComputationMode=0)
    expected = simulate(directory)
    assert run_failing(failing, directory, FACTOR, -2) == Outcome(0, "", "")
    compare_files(directory, expected)
    lines = log_lines(directory)
    at = lines.index("Warning<Msg:Stiffness matrix factorization error. Not enough memory.>")
    assert "EstDecMemReq" in lines[at - 1]
    assert lines[at + 1] == "Info<Msg:IMode: 1>"


def test_an_unknown_code_is_told_on_standard_error_alone(tmp_path, failing):
    directory = tiny(tmp_path / "work", Sys_ComputationMode=2)
    outcome = run_failing(failing, directory, FACTOR, -99)
    assert outcome.status == BAD_RUN & 0xFF
    assert outcome.err == "1010:  (the direct solver's code is -99)\n"
    assert log_lines(directory)[-2:] == ["Warning<Msg:>", "Error<Msg:>"]
