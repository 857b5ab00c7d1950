"""One run at a time works on a directory; a second one ends at once and touches nothing."""

from __future__ import annotations

import errno
import fcntl
import os
import re
import shutil
import signal
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from interference import (
    DONE,
    check_whole,
    copies,
    fresh,
    interfered,
    prepared,
    recorded,
    results,
    stopping,
)
from models import tiny
from program_under_test import Outcome
from runs import BAD_LOG, LOG, TIMEOUT, clear_done, lcflags, log_lines, run, start, stopped

FIRST_OF_THE_RUN = 4  # operations: enter the directory, open it, lock it, then the log


@contextmanager
def holding(directory: Path, how: int = fcntl.LOCK_EX) -> Iterator[None]:
    """The directory's lock, held by this process."""
    descriptor = os.open(directory, os.O_RDONLY)
    fcntl.flock(descriptor, how | fcntl.LOCK_NB)
    try:
        yield
    finally:
        os.close(descriptor)


def snapshot(directory: Path) -> dict[str, tuple[bytes, int]]:
    """Content and time of change of every file."""
    return {p.name: (p.read_bytes(), p.stat().st_mtime_ns) for p in directory.iterdir()}


def refused(directory: Path, process: int) -> None:
    """A run that another keeps out: told in one line, nothing touched."""
    before = snapshot(directory)
    reason = stopped(start(directory), BAD_LOG)
    told = rf'another run holds the directory "{re.escape(str(directory))}"( \(process (\d+)\))?'
    match = re.fullmatch(told, reason)
    assert match, reason
    assert match[2] in (None, str(process))  # a container may hide it
    assert snapshot(directory) == before


@pytest.mark.parametrize("how", [fcntl.LOCK_EX, fcntl.LOCK_SH])
def test_a_directory_that_another_process_holds_is_refused_untouched(tmp_path, how):
    directory = tiny(tmp_path)
    Path(directory, LOG).write_text("of another run\n")
    Path(directory, "ws.tcval.0001~0123456789abcdef").write_text("being written")
    with holding(directory, how):
        refused(directory, os.getpid())
    run(directory)


def test_the_lock_is_the_directory_s_whatever_name_leads_to_it(tmp_path):
    directory = tiny(tmp_path / "work")
    Path(tmp_path, "link").symlink_to("work")
    with holding(tmp_path / "link"):
        stopped(start(".", cwd=directory), BAD_LOG)
        stopped(start(tmp_path / "link"), BAD_LOG)
    with holding(tmp_path):
        run(directory)


def test_a_run_holds_its_directory_at_every_operation(tmp_path, preload):
    case = prepared(tmp_path, fresh)
    directory = tmp_path / "work"
    places = 0
    while True:
        shutil.copytree(case.first, directory)
        first = stopping(directory, preload, FIRST_OF_THE_RUN + places)
        if first is None:
            break
        try:
            refused(directory, first.pid)
        finally:
            os.kill(first.pid, signal.SIGCONT)
        assert first.communicate(timeout=TIMEOUT) == ("", "")
        assert first.returncode == 0
        assert lcflags(directory)[0] == [DONE, DONE]
        assert log_lines(directory)[-1] == "Info<Msg:Tool.vk_rund.End >"
        assert results(directory) == case.after
        shutil.rmtree(directory)
        places += 5
    assert places > 100


@pytest.mark.parametrize("place", range(1, FIRST_OF_THE_RUN))
def test_a_run_that_comes_to_the_lock_second_waits_for_nothing(tmp_path, preload, place):
    directory = tiny(tmp_path)
    early = stopping(directory, preload, place)
    assert early is not None
    run(directory)
    os.kill(early.pid, signal.SIGCONT)
    assert early.communicate(timeout=TIMEOUT) == ("", "")
    assert early.returncode == 0
    assert not any("LCaseId" in line for line in log_lines(directory))


def test_runs_at_once_leave_one_whole_set_of_results(tmp_path, program):
    case = prepared(tmp_path, fresh)
    directory = tmp_path / "work"
    statuses = []
    for _ in range(40):
        shutil.copytree(case.first, directory)
        runs = [
            subprocess.Popen([program, directory], stderr=subprocess.PIPE, text=True)
            for _ in range(4)
        ]
        ends = [(run.communicate(timeout=TIMEOUT)[1], run.returncode) for run in runs]
        for told, status in ends:
            assert status in (0, BAD_LOG & 0xFF), told
            assert told == "" or "another run holds the directory" in told
        statuses += [status for _, status in ends]
        assert results(directory) == case.after
        assert lcflags(directory)[0] == [DONE, DONE]
        assert set(os.listdir(directory)) == set(os.listdir(case.reference))
        shutil.rmtree(directory)
    assert statuses.count(0) >= 40


def test_a_killed_run_leaves_no_lock(tmp_path, preload):
    directory = tiny(tmp_path)
    for place in range(FIRST_OF_THE_RUN, 80, 15):
        clear_done(directory)
        process = stopping(directory, preload, place)
        assert process is not None
        process.kill()
        process.communicate()
        run(directory)


def test_a_stopped_run_leaves_no_lock(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mx.nodes").rename(tmp_path / "nodes")
    assert start(directory).status != 0
    Path(tmp_path, "nodes").rename(directory / "mx.nodes")
    run(directory)


WITHOUT_LOCKS = [errno.ENOLCK, errno.EOPNOTSUPP, errno.EINVAL, errno.EBADF, errno.ENOSYS]


@pytest.mark.parametrize("number", WITHOUT_LOCKS)
def test_a_file_system_without_locks_is_worked_on_but_not_cleared(tmp_path, preload, number):
    directory = tiny(tmp_path)
    other = Path(directory, "ws.tcval.0001~0123456789abcdef")
    other.write_text("perhaps another run is writing it")
    assert interfered(directory, preload, FAULT_CALL="flock", FAULT_WITH=number) == Outcome(
        0, "", ""
    )
    assert lcflags(directory)[0] == [DONE]
    assert other.exists()


def test_runs_that_meet_where_there_are_no_locks_leave_whole_files(tmp_path, preload):
    case = prepared(tmp_path, fresh)
    unlocked: dict[str, int | str] = {"FAULT_CALL": "flock", "FAULT_WITH": errno.ENOLCK}
    for place, directory in copies(case, tmp_path / "work"):
        if place % 3:
            continue
        first = stopping(directory, preload, place, **unlocked)
        if first is None:
            break
        assert interfered(directory, preload, **unlocked) == Outcome(0, "", "")
        check_whole(directory, case)
        os.kill(first.pid, signal.SIGCONT)
        assert first.communicate(timeout=TIMEOUT) == ("", "")
        assert first.returncode == 0
        assert check_whole(directory, case) == [DONE, DONE]
        assert set(os.listdir(directory)) == set(os.listdir(case.reference))
    assert place > 100


@pytest.mark.parametrize(("call", "name"), [("open", "."), ("flock", ".")])
@pytest.mark.parametrize("number", [errno.EIO, errno.EMFILE])
def test_a_lock_that_fails_is_not_done_without(tmp_path, preload, call, name, number):
    directory = tiny(tmp_path)
    before = snapshot(directory)
    fault: dict[str, int | str] = {"FAULT_CALL": call, "FAULT_NAME": name, "FAULT_WITH": number}
    told = stopped(interfered(directory, preload, **fault), BAD_LOG)
    assert told == f'cannot lock the directory "{directory}" ({os.strerror(number)})'
    assert snapshot(directory) == before


def test_a_directory_that_may_be_entered_but_not_read_is_worked_on(tmp_path, preload):
    directory = tiny(tmp_path / "work")
    unreadable: dict[str, int | str] = {
        "FAULT_CALL": "open",
        "FAULT_NAME": ".",
        "FAULT_WITH": errno.EACCES,
    }
    record = tmp_path / "operations"
    outcome = interfered(directory, preload, RECORD=str(record), **unreadable)
    assert outcome == Outcome(0, "", "")
    # The folder has no descriptor to sync: all of the file system is, before the flags and behind.
    calls = [line.split(b"\t")[0] for line in record.read_bytes().split(b"\n")]
    order = [call for call in calls if call in (b"rename", b"syncfs")]
    assert order == [b"rename"] * 5 + [b"syncfs", b"rename", b"syncfs"]


def test_the_lock_is_taken_before_the_log_is_opened(tmp_path, preload):
    operations = recorded(tiny(tmp_path / "work"), preload, tmp_path / "operations")
    order = [operation.call for operation in operations if operation.name in (".", LOG)]
    assert order[:2] == ["open", "flock"]
