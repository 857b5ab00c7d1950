"""The lock of a working directory: who holds it, who is turned away, who goes on without."""

import errno
import fcntl
import os
import threading

import program_under_test
import pytest
from check.faults import sound
from fake_solver import small_box
from other_holder import other_holder
from small_loops import write_small
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats, lock, model
from vkctl.prepare.build import new
from vkctl.running import processes
from vkctl.running.run import BusyError, set_run_options

runner = CliRunner()


def _content(directory):
    return {path.name: path.read_bytes() for path in directory.iterdir() if path.is_file()}


def test_a_held_directory_is_told_with_its_process(tmp_path):
    with other_holder(tmp_path) as pid:
        assert lock.holder_of(tmp_path) == pid
        with pytest.raises(BusyError, match=f"Process {pid} is running on") as raised:
            with lock.holding(tmp_path):
                pass
        assert raised.value.pid == pid
    assert lock.holder_of(tmp_path) is None
    with lock.holding(tmp_path) as held:
        assert held and lock.holder_of(tmp_path) == os.getpid()


def test_a_thread_may_hold_a_directory_again_and_another_may_not(tmp_path):
    troubles = []

    def try_it():
        try:
            with lock.holding(tmp_path):
                pass
        except BusyError as error:
            troubles.append(error.pid)

    with lock.holding(tmp_path), lock.holding(tmp_path):
        thread = threading.Thread(target=try_it)
        thread.start()
        thread.join()
    assert troubles == [os.getpid()]
    try_it()
    assert troubles == [os.getpid()]


def test_the_lock_is_dropped_when_the_block_fails_and_when_a_child_lives_on(tmp_path):
    child = 0
    waiting, go_on = os.pipe()
    try:
        with pytest.raises(RuntimeError), lock.holding(tmp_path):
            child = os.fork()
            if child == 0:
                os.close(go_on)
                os.read(waiting, 1)
                os._exit(0)
            raise RuntimeError
        assert lock.holder_of(tmp_path) is None
        with other_holder(tmp_path):
            pass
    finally:
        os.close(go_on)
        os.waitpid(child, 0)
        os.close(waiting)


def test_without_locks_there_is_none_and_the_open_log_tells(tmp_path, monkeypatch):
    def refuse(descriptor, operation):
        raise OSError(errno.ENOLCK, "No locks available")

    small_box(tmp_path)
    monkeypatch.setattr(fcntl, "flock", refuse)
    with lock.holding(tmp_path) as held:
        assert not held
    assert not lock.is_told(tmp_path / "mx.nodes")
    model.set_flags(tmp_path, clear_done=True)
    with open(tmp_path / formats.LOG_FILE, "w"):
        with pytest.raises(BusyError, match=str(os.getpid())), processes.alone_on(tmp_path):
            pass
    with processes.alone_on(tmp_path):
        pass


def test_another_failure_of_the_system_is_not_taken_for_having_no_locks(tmp_path, monkeypatch):
    def refuse(descriptor, operation):
        raise OSError(errno.EIO, "Input/output error")

    monkeypatch.setattr(fcntl, "flock", refuse)
    with pytest.raises(OSError, match="Input/output error"), lock.holding(tmp_path):
        pass


def test_without_a_table_of_locks_nobody_is_told(tmp_path, monkeypatch):
    monkeypatch.setattr(lock, "_TABLE", tmp_path / "nowhere")
    (tmp_path / "file").touch()
    with other_holder(tmp_path):
        assert lock.holder_of(tmp_path) is None and not lock.is_told(tmp_path / "file")
        with pytest.raises(BusyError, match="Another process"), lock.holding(tmp_path):
            pass


@pytest.mark.parametrize(
    "rewrite",
    [
        lambda d: model.write(sound()[0], d),
        lambda d: model.write_load_cases(sound()[0].load_cases, d),
        lambda d: model.set_flags(d, clear_done=True),
        lambda d: set_run_options(d, threads=3),
        lambda d: new(None, write_small(d.parent / "small"), d),
    ],
)
def test_a_directory_that_is_worked_on_is_not_rewritten(tmp_path, rewrite):
    directory = tmp_path / "part"
    small_box(directory)
    before = _content(directory)
    with other_holder(directory), pytest.raises(BusyError):
        rewrite(directory)
    assert _content(directory) == before
    rewrite(directory)
    assert _content(directory) != before or rewrite.__code__.co_names[1] == "set_flags"


@pytest.mark.parametrize("command", ["new", "box", "demo", "run", "optimise"])
def test_commands_refuse_a_directory_that_is_worked_on(tmp_path, command):
    directory = tmp_path / "part"
    cases = write_small(tmp_path / "small", "steps = 1\n")
    arguments = {
        "new": [str(cases.parent / "part.vtu"), str(cases), str(directory)],
        "optimise": [str(cases), str(directory)],
    }.get(command, [str(directory)])
    new(None, cases, directory)
    before = _content(directory)
    with other_holder(directory) as pid:
        shown = runner.invoke(app, [command, *arguments])
    assert shown.exit_code == 2, shown.output
    assert shown.stderr == f"Process {pid} is running on {directory} already.\n"
    assert _content(directory) == before


def test_the_solver_finds_a_directory_free_that_was_held(tmp_path):
    small_box(tmp_path)
    with lock.holding(tmp_path):
        outcome = program_under_test.start(tmp_path, timeout=300)
        assert outcome.status == 1005 & 0xFF and str(os.getpid()) in outcome.err
        assert not (tmp_path / formats.LOG_FILE).exists()
    assert program_under_test.start(tmp_path, timeout=300).status == 0


def test_a_run_that_another_one_is_ahead_of_says_so(tmp_path, monkeypatch):
    """The lock is free between vkctl and the solver that it starts."""
    small_box(tmp_path)
    solver = tmp_path.parent / "late"
    words = '1005: another run holds the directory \\"d\\" (process 4711)'
    solver.write_text(f'#!/bin/sh\necho "{words}" >&2\nexit 237\n')
    solver.chmod(0o755)
    shown = runner.invoke(app, ["run", str(tmp_path), "--vk-rund", str(solver)])
    assert shown.exit_code == 2
    assert shown.stderr == f"Process 4711 is running on {tmp_path} already.\n"
