"""Running the solver: results, live progress, and every way a run can end badly."""

import importlib.metadata
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest
from fake_solver import HEAD, TAIL, begun, fake_solver, finished, small_box, write_log
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.model import Material
from vkctl.directory.results import solved
from vkctl.running import processes
from vkctl.running.run import BusyError, NotFoundError, find_vk_rund, run
from vkctl.terminal import display

runner = CliRunner()


def test_a_run_solves_every_load_case_and_tells_what_it_did(directory):
    seen = []
    result = run(directory, on_progress=lambda progress: seen.append(progress.stage))
    assert result.ok and result.outcome == "finished" and result.status == 0
    assert (result.planned, result.open, result.poor) == ([1, 2], [], [])
    assert solved(directory) == [1, 2]
    assert [case.number for case in result.log.load_cases] == [1, 2]
    assert seen[-1] == "ended"


def test_a_second_run_finds_nothing_to_do_and_says_so(directory):
    run(directory)
    result = runner.invoke(app, ["run", str(directory)])
    assert result.exit_code == 0
    assert "Nothing was to be run" in result.output


def test_threads_and_mode_are_written_to_the_options_file_and_take_effect(directory):
    Path(directory, formats.OPTIONS_FILE).write_text("* mine\nSta.BStressExp=6\n")
    result = run(directory, threads=1, mode="iterative")
    assert {case.mode for case in result.log.load_cases} == {1}
    assert Path(directory, formats.OPTIONS_FILE).read_text() == (
        "* mine\nSta.BStressExp=6\nSys.MaxNumCompThreads=1\nSys.ComputationMode=1\n"
    )


def test_a_matrix_that_is_not_positive_definite_is_told_with_the_node_of_the_equation(tmp_path):
    negative_shear = Material.orthotropic((1e3,) * 3, (0.2,) * 3, (-400.0, 400.0, 400.0))
    small_box(tmp_path, 1, negative_shear)
    result = run(tmp_path, mode="direct")
    assert result.outcome == "stopped" and result.status == 242
    assert "singular or not positive definite" in result.advice.sentence
    # The open libraries don't tell the equation.
    version = subprocess.check_output([find_vk_rund(), "--version"], text=True)
    assert ("The trouble shows at node" in result.advice.hint) == ("oneMKL" in version)
    assert result.open == [1]


def test_a_missing_file_is_told_by_name(directory):
    Path(directory, "mxs.lcmap.0002").unlink()
    result = run(directory)
    assert result.status == 242
    assert result.advice.sentence == "The file mxs.lcmap.0002 is missing or can't be read."
    assert "vkctl check" in result.advice.hint
    assert result.open == [2] and result.log.load_cases[0].seconds is not None


def test_a_crash_is_told_as_such_with_what_is_left_to_do(directory, tmp_path):
    solver = fake_solver(tmp_path / "s", HEAD + finished(1) + begun(2), "kill -SEGV $$")
    result = run(directory, vk_rund=solver)
    assert result.outcome == "crashed" and result.status == 128 + signal.SIGSEGV
    assert "crashed (SIGSEGV)" in result.advice.sentence
    assert result.open == [2]


def test_a_kill_from_outside_hints_at_memory(directory, tmp_path):
    solver = fake_solver(tmp_path / "s", HEAD + begun(1), "kill -KILL $$")
    result = run(directory, vk_rund=solver)
    assert result.outcome == "killed" and result.status == 128 + signal.SIGKILL
    assert "out of memory" in result.advice.hint
    assert result.open == [1, 2]


def test_poor_convergence_is_a_warning_with_a_hint_and_the_load_cases(directory, tmp_path):
    warning = "Convergence problems in static response analysis process."
    lines = finished(1, quality=0.7, iterations=-300, warnings=[warning])
    solver = fake_solver(tmp_path / "s", HEAD + lines + finished(2) + TAIL)
    result = run(directory, vk_rund=solver)
    assert result.ok and result.poor == [1]
    assert [advice.original for advice in result.warnings] == [warning]
    shown = "\n".join(display.closing_lines(result))
    assert "quality is below 0.9" in shown and "Poor quality: 1 load case (1)." in shown
    assert display.case_line(result.log.load_cases[0]).startswith(
        "load case 1: direct, 300 (limit) iterations, quality 0.700"
    )


def test_no_convergence_is_the_end_of_the_run(directory, tmp_path):
    error = "Error<Msg:No convergence in static response analysis process.>"
    quality = "Data<Key:ARQua><Value:4.000000E-01>"
    solver = fake_solver(tmp_path / "s", [*HEAD, *begun(1), quality, error], "exit 242")
    result = run(directory, vk_rund=solver)
    assert result.outcome == "stopped" and result.status == 242
    assert "did not converge" in result.advice.sentence
    assert result.open == [1, 2]


def test_status_0_without_a_log_is_no_success(directory, tmp_path):
    solver = tmp_path / "s"
    solver.write_text("#!/bin/sh\nexit 0\n")
    solver.chmod(0o755)
    result = run(directory, vk_rund=solver)
    assert not result.ok and "no complete log" in result.advice.sentence
    assert runner.invoke(app, ["run", str(directory), "--vk-rund", str(solver)]).exit_code == 1


def test_an_older_log_is_not_taken_for_that_of_this_run(directory, tmp_path):
    write_log(directory, HEAD + finished(1) + TAIL)
    solver = tmp_path / "s"
    solver.write_text("#!/bin/sh\necho 'cannot write' >&2\nexit 237\n")
    solver.chmod(0o755)
    result = run(directory, vk_rund=solver)
    assert result.status == 237 and result.log.load_cases == []
    assert "can't write its log" in result.advice.sentence
    assert result.printed == "cannot write"


def test_a_directory_that_another_process_runs_on_is_left_alone(directory, tmp_path):
    solver = fake_solver(tmp_path / "s", HEAD, "exec sleep 600")
    other = subprocess.Popen([solver, directory])
    try:
        _until(lambda: processes.worker_on(directory) is not None)
        with pytest.raises(BusyError, match=r"is running on .* already"):
            run(directory, threads=7)
        assert "Sys.MaxNumCompThreads" not in formats.read_options(directory)
    finally:
        other.kill()
        other.wait()


def test_no_directory_is_told_before_anything_is_started(tmp_path):
    result = runner.invoke(app, ["run", str(tmp_path / "nowhere")])
    assert result.exit_code == 2 and "There is no directory" in result.stderr


def test_a_failing_progress_function_does_not_leave_the_solver_behind(directory, tmp_path):
    noted = 'echo $$ >"$1/new"\nmv "$1/new" "$1/pid"\nexec sleep 600'
    solver = fake_solver(tmp_path / "s", HEAD, noted)

    def fail(progress):
        if Path(directory, "pid").exists():
            raise RuntimeError("mine")

    with pytest.raises(RuntimeError, match="mine"):
        run(directory, vk_rund=solver, on_progress=fail)
    pid = int(Path(directory, "pid").read_text())
    assert processes.memory_gb(pid) is None


def test_a_run_in_another_thread_works_without_signal_handlers(directory):
    results = []
    thread = threading.Thread(target=lambda: results.append(run(directory)))
    thread.start()
    thread.join()
    assert results[0].ok


def _until(condition, seconds=300.0):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "nothing happened"
        time.sleep(0.01)


def _takes_signals():
    """In the child: what a background shell ignores is not left ignored."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_DFL)


def _started(directory, solver):
    command = [sys.executable, "-m", "vkctl", "run", str(directory), "--vk-rund", str(solver)]
    return subprocess.Popen(command, stdout=subprocess.PIPE, text=True, preexec_fn=_takes_signals)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signals_reach_the_solver_and_make_the_exit_status(directory, tmp_path, number):
    solver = fake_solver(tmp_path / "s", HEAD + begun(1), 'touch "$1/ready"\nexec sleep 600')
    process = _started(directory, solver)
    _until(Path(directory, "ready").exists)
    _until(lambda: processes.worker_on(directory) is not None)
    process.send_signal(number)
    output, _ = process.communicate(timeout=300)
    assert process.returncode == 128 + number
    assert number.name in output and "load cases that are done stay done" in output
    assert processes.worker_on(directory) is None


def test_a_solver_that_ends_in_its_own_way_on_a_signal_is_believed(directory, tmp_path):
    ending = "trap 'exit 237' TERM\ntouch \"$1/ready\"\nwhile :; do sleep 0.05; done"
    process = _started(directory, fake_solver(tmp_path / "s", HEAD, ending))
    _until(Path(directory, "ready").exists)
    process.terminate()
    output, _ = process.communicate(timeout=300)
    assert process.returncode == 237 and "can't write its log" in output


def _program(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("#!/bin/sh\n")
    path.chmod(0o755)
    return path


def test_the_program_is_found_by_argument_then_environment_then_path(tmp_path, monkeypatch):
    first, second = _program(tmp_path / "a" / "x"), _program(tmp_path / "b" / "y")
    third = _program(tmp_path / "c" / "vk_rund")
    monkeypatch.setenv("VK_RUND", str(second))
    monkeypatch.setenv("PATH", str(third.parent))
    assert find_vk_rund(first) == first
    assert find_vk_rund() == second
    monkeypatch.delenv("VK_RUND")
    assert find_vk_rund() == third


def test_the_program_that_came_with_vkctl_goes_before_the_search_path(tmp_path, monkeypatch):
    """An environment as a wheel leaves it: the program listed among the distribution's files."""
    own = _program(tmp_path / "bin" / "vk_rund")
    listed = [importlib.metadata.PackagePath(name) for name in ("share/vk_rund.1", "bin/vk_rund")]
    for path in listed:
        path.dist = importlib.metadata.PathDistribution(tmp_path / "vkctl.dist-info")
    monkeypatch.setattr(importlib.metadata, "files", lambda name: listed)
    monkeypatch.delenv("VK_RUND", raising=False)
    monkeypatch.setenv("PATH", str(_program(tmp_path / "other" / "vk_rund").parent))
    assert find_vk_rund() == own
    monkeypatch.setattr(importlib.metadata, "files", lambda name: None)
    assert find_vk_rund() == tmp_path / "other" / "vk_rund"


def test_the_build_of_the_checkout_is_found_last(tmp_path, monkeypatch):
    built = _program(tmp_path / "build" / "release" / "vk_rund")
    monkeypatch.delenv("VK_RUND", raising=False)
    monkeypatch.setenv("PATH", str(tmp_path))
    monkeypatch.setattr(
        "vkctl.running.run.__file__", str(tmp_path / "vkctl/src/vkctl/running/run.py")
    )
    assert find_vk_rund() == built
    built.unlink()
    with pytest.raises(NotFoundError, match="VK_RUND"):
        find_vk_rund()


def test_a_missing_or_unusable_program_is_told_with_the_status_of_a_shell(directory, tmp_path):
    missing = runner.invoke(app, ["run", str(directory), "--vk-rund", str(tmp_path / "none")])
    assert missing.exit_code == 127 and "There is no program" in missing.stderr
    text = tmp_path / "text"
    text.write_text("no program")
    locked = runner.invoke(app, ["run", str(directory), "--vk-rund", str(text)])
    assert locked.exit_code == 126 and "can't be executed" in locked.stderr
    text.chmod(0o755)
    broken = runner.invoke(app, ["run", str(directory), "--vk-rund", str(text)])
    assert broken.exit_code == 126 and "can't be started" in broken.stderr
