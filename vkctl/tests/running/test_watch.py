"""Following runs that something else started: ended, killed, replaced, or still going on."""

import fcntl
import os
import subprocess
import threading
import time

import pytest
from fake_solver import HEAD, TAIL, begun, fake_solver, finished, small_box, write_log

from vkctl.directory import formats, lock
from vkctl.running import processes
from vkctl.running.run import run
from vkctl.running.watch import watch


@pytest.fixture(autouse=True)
def short_grace(monkeypatch):
    monkeypatch.setattr("vkctl.running.watch._GRACE", 0.05)


def follow(directory, **options):
    return watch(directory, poll=0.01, **options)


def test_the_log_of_a_finished_run_gives_its_result_at_once(tmp_path):
    small_box(tmp_path)
    run(tmp_path)
    result = follow(tmp_path)
    assert result.ok and result.status == 0
    assert [case.number for case in result.log.load_cases] == [1, 2]


def test_a_log_with_an_error_is_a_stopped_run(tmp_path):
    write_log(tmp_path, [*HEAD, *begun(1), "Error<Msg:Error opening file: mxs.sadr>"])
    result = follow(tmp_path)
    assert result.outcome == "stopped" and result.status == 242
    assert result.advice.sentence == "The file mxs.sadr is missing or can't be read."


def test_a_log_without_end_and_writer_is_a_killed_run(tmp_path):
    small_box(tmp_path, 3)
    formats.write_loadcase_flags(tmp_path, [1 | 2, 1, 1])
    write_log(tmp_path, HEAD + finished(1) + begun(2))
    result = follow(tmp_path)
    assert result.outcome == "killed" and result.status is None
    assert "broke off in load case 2" in result.advice.sentence
    assert result.planned == [1, 2, 3] and result.open == [2, 3]


def test_a_killed_solver_is_told_apart_from_one_that_is_slow(tmp_path):
    small_box(tmp_path)
    script = fake_solver(tmp_path / "s", HEAD + begun(1), "exec sleep 600")
    solver = subprocess.Popen([script, tmp_path])
    seen = []

    def kill_after_a_while(progress):
        seen.append(progress)
        # Well beyond the grace, and looked at several times however busy the machine is.
        if progress.elapsed > 0.3 and len(seen) > 3 and progress.memory_gb:
            solver.kill()
            solver.wait()

    try:
        while processes.worker_on(tmp_path) is None or not (tmp_path / formats.LOG_FILE).exists():
            time.sleep(0.01)
        result = follow(tmp_path, on_progress=kill_after_a_while)
    finally:
        solver.kill()
        solver.wait()
    assert result.outcome == "killed"
    assert result.seconds > 0.3
    assert result.peak_memory_gb > 0


def test_a_growing_log_is_followed_to_its_end(tmp_path):
    small_box(tmp_path)
    progress_seen = []
    with lock.holding(tmp_path), open(tmp_path / formats.LOG_FILE, "w", buffering=1) as log:

        def feed(progress):
            progress_seen.append((progress.stage, list(progress.finished)))
            if lines:
                log.write(lines.pop(0) + "\n")

        lines = HEAD + finished(1) + finished(2) + TAIL
        result = follow(tmp_path, on_progress=feed)
    assert result.ok and result.planned == [1, 2] and result.open == []
    assert ("response", []) in progress_seen and ("solving", [1]) in progress_seen


def test_a_restart_that_replaces_the_log_is_followed_too(tmp_path):
    small_box(tmp_path)
    with lock.holding(tmp_path):
        write_log(tmp_path, HEAD + begun(1))
        steps = [
            lambda: None,
            lambda: formats.write_loadcase_flags(tmp_path, [1 | 2, 1]),
            lambda: write_log(tmp_path, HEAD + begun(2)),
            lambda: None,
            lambda: write_log(tmp_path, HEAD + finished(2) + TAIL),
        ]
        result = follow(tmp_path, on_progress=lambda progress: steps.pop(0)() if steps else None)
    assert result.ok
    assert [case.number for case in result.log.load_cases] == [2]
    assert result.planned == [2]


def test_a_solver_of_another_user_is_given_the_benefit_of_the_doubt(tmp_path, monkeypatch):
    write_log(tmp_path, HEAD + begun(1))
    answers = [[4711], [4711], []]
    monkeypatch.setattr(lock, "is_told", lambda path: False)
    monkeypatch.setattr(processes, "hidden_solvers", lambda: answers.pop(0))
    assert follow(tmp_path).outcome == "killed"
    assert answers == []


def test_without_a_process_table_only_patience_ends_the_watching(tmp_path, monkeypatch):
    write_log(tmp_path, HEAD + begun(1))
    monkeypatch.setattr(lock, "is_told", lambda path: False)
    monkeypatch.setattr(processes, "is_known", lambda: False)
    monkeypatch.setattr(processes, "writer_of", lambda directory: None)
    looks = []

    def end_it(progress):
        looks.append(progress.elapsed)
        if progress.elapsed > 0.3:
            write_log(tmp_path, HEAD + begun(1) + TAIL)

    assert follow(tmp_path, on_progress=end_it).ok
    write_log(tmp_path, HEAD + begun(1))
    assert follow(tmp_path, patience=0.1).outcome == "killed"


def test_an_editor_of_the_log_is_not_a_run(tmp_path):
    write_log(tmp_path, HEAD)
    with open(tmp_path / formats.LOG_FILE, "a"):
        assert processes.worker_on(tmp_path) is None
        assert follow(tmp_path).outcome == "killed"


def test_without_locks_a_run_is_who_has_the_log_open_for_writing(tmp_path, monkeypatch):
    write_log(tmp_path, HEAD)
    monkeypatch.setattr(lock, "is_told", lambda path: False)
    with open(tmp_path / formats.LOG_FILE):
        assert processes.worker_on(tmp_path) is None
        assert follow(tmp_path).outcome == "killed"
    with open(tmp_path / formats.LOG_FILE, "a"):
        assert processes.worker_on(tmp_path) is not None


def test_watching_never_takes_the_lock(tmp_path, monkeypatch):
    """A solver that starts while somebody watches must find the directory free."""
    write_log(tmp_path, HEAD)
    taken = []
    flock = fcntl.flock

    def noted(descriptor, operation):
        taken.append(os.fstat(descriptor).st_ino)
        return flock(descriptor, operation)

    monkeypatch.setattr(fcntl, "flock", noted)
    assert follow(tmp_path).outcome == "killed"
    assert follow(tmp_path, patience=0.1).outcome == "killed"
    assert processes.worker_on(tmp_path) is None
    assert taken and os.stat(tmp_path).st_ino not in taken


def test_a_log_may_take_a_while_to_appear(tmp_path):
    with pytest.raises(FileNotFoundError, match="no run has been started"):
        follow(tmp_path)
    (tmp_path / "elsewhere").mkdir()
    write_log(tmp_path / "elsewhere", HEAD + TAIL)
    log = tmp_path / "elsewhere" / formats.LOG_FILE
    late = threading.Timer(0.1, log.rename, (tmp_path / formats.LOG_FILE,))  # whole at once
    late.start()
    assert follow(tmp_path, wait=300.0).ok
    late.join()
