"""File operations that fail, each in turn: the run ends with its reason, or its results are right.

VK_EVERY_FAULT=1 has each operation fail with each error number; otherwise two of them a piece.
"""

from __future__ import annotations

import errno
import os
import re
import shutil
from pathlib import Path

import numpy as np
import pytest
from interference import (
    DONE,
    PREPARED,
    check_whole,
    copies,
    interfered,
    is_unfinished,
    prepared,
    recorded,
    rerun,
    results,
)
from program_under_test import Outcome
from runs import BAD_LOG, BAD_RUN, LOG, comval, lcflags, log_lines, run, solves, stopped

EVERY = bool(os.environ.get("VK_EVERY_FAULT"))
HALF = 0  # in place of an error number: reads and writes transfer half of the bytes
ONCE = (
    errno.EIO,
    errno.EACCES,
    errno.ENOSPC,
    errno.EMFILE,
    errno.ENOMEM,
    errno.ESTALE,
    errno.EINTR,
    errno.EINVAL,
    HALF,
)
# An interruption that never ends is none.
FOR_EVER = tuple(number for number in ONCE if number != errno.EINTR)


def reason(number: int) -> str:
    return os.strerror(number)


# --- saved state that is there and can't be had ---------------------------------------------------


@pytest.mark.parametrize("number", [errno.EACCES, errno.EIO, errno.EMFILE, errno.ELOOP])
@pytest.mark.parametrize("name", ["ws.mstate.0001", "ws.sstate.0001", "ws.tcval.0001"])
def test_a_saved_file_that_cannot_be_opened_ends_the_run_and_stays(tmp_path, preload, name, number):
    directory = rerun(tmp_path)
    before, flags = results(directory), lcflags(directory)
    outcome = interfered(directory, preload, FAULT_CALL="open", FAULT_NAME=name, FAULT_WITH=number)
    assert stopped(outcome, BAD_RUN) == f"Error opening file: {name} ({reason(number)})"
    assert log_lines(directory)[-1] == f"Error<Msg:Error opening file: {name}>"
    assert results(directory) == before
    assert lcflags(directory) == flags


@pytest.mark.parametrize("number", [errno.EACCES, errno.EIO, errno.ENOMEM, errno.EOVERFLOW])
@pytest.mark.parametrize("name", ["ws.mstate.0001", "ws.sstate.0001", "ws.tcval.0001"])
def test_a_saved_file_that_cannot_be_looked_at_is_opened_and_used(tmp_path, preload, name, number):
    directory = rerun(tmp_path)
    shutil.copytree(directory, tmp_path / "reference")
    run(tmp_path / "reference")
    outcome = interfered(directory, preload, FAULT_CALL="stat", FAULT_NAME=name, FAULT_WITH=number)
    assert outcome == Outcome(0, "", "")
    assert results(directory) == results(tmp_path / "reference")


@pytest.mark.parametrize("number", [errno.ENOENT, errno.ENOTDIR])
def test_a_saved_file_that_the_system_calls_missing_is_missing(tmp_path, preload, number):
    directory = rerun(tmp_path)
    shutil.copytree(directory, tmp_path / "reference")
    Path(tmp_path, "reference", "ws.mstate.0001").unlink()
    run(tmp_path / "reference")
    fault: dict[str, int | str] = {"FAULT_NAME": "ws.mstate.0001", "FAULT_WITH": number}
    assert interfered(directory, preload, FAULT_CALL="stat", **fault) == Outcome(0, "", "")
    assert results(directory) == results(tmp_path / "reference")


def test_a_saved_state_behind_links_in_a_circle_ends_the_run(tmp_path):
    directory = rerun(tmp_path)
    place = Path(directory, "ws.mstate.0001")
    place.unlink()
    place.symlink_to(place.name)
    outcome = interfered(directory, "")
    told = f"Error opening file: ws.mstate.0001 ({reason(errno.ELOOP)})"
    assert stopped(outcome, BAD_RUN) == told
    assert lcflags(directory)[0] == [1, 1]


@pytest.mark.parametrize("name", ["nowhere", "vk_rund_log.txt/inside"])
def test_a_saved_state_behind_a_link_to_nothing_is_missing(tmp_path, name):
    directory = rerun(tmp_path)
    Path(directory, "ws.sstate.0001").unlink()
    Path(directory, "ws.sstate.0001").symlink_to(name)
    if name == "nowhere":
        solves(directory)
        assert Path(directory, name).stat().st_size == 8 + 3 * 8 * 4
    else:  # and can't be made
        told = f"Error opening file: ws.sstate.0001 ({reason(errno.ENOTDIR)})"
        assert stopped(interfered(directory, ""), BAD_RUN) == told


# --- the reason on standard error -----------------------------------------------------------------

SPACE = reason(errno.ENOSPC)


@pytest.mark.parametrize(
    ("call", "name", "number", "message", "told"),
    [
        ("open", "mx.nodes", errno.EACCES, "Error opening file: mx.nodes", reason(errno.EACCES)),
        ("open", "mxs.sadr", errno.EMFILE, "Error opening file: mxs.sadr", reason(errno.EMFILE)),
        ("open", "vk_rund_cmd.txt", errno.EIO, "Error opening file: vk_rund_cmd.txt",
         reason(errno.EIO)),
        ("read", "vk_rund_cmd.txt", errno.EIO, "Error opening file: vk_rund_cmd.txt",
         reason(errno.EIO)),
        ("close", "vk_rund_cmd.txt", errno.EIO, "Error closing file: vk_rund_cmd.txt",
         reason(errno.EIO)),
        ("read", "ws.mstate.0001", errno.EIO, "Error reading file: ws.mstate.0001",
         reason(errno.EIO)),
        ("close", "mx.elems", errno.EIO, "Error closing fileunit: 200",
         f"mx.elems: {reason(errno.EIO)}"),
        ("fdatasync", "", errno.ENOSPC, "Error flushing file unit: 400", f"ws.tcval.0001: {SPACE}"),
        ("rename", "", errno.EDQUOT, "Error closing file unit: 400",
         f"ws.tcval.0001: {reason(errno.EDQUOT)}"),
        ("fsync", ".", errno.EIO, "Error flushing file unit: 400",
         f"the folder of ws.tcval.0001: {reason(errno.EIO)}"),
    ],
)  # fmt: skip
def test_the_log_has_the_message_and_standard_error_the_reason_too(
    tmp_path, preload, call, name, number, message, told
):
    directory = rerun(tmp_path)
    fault = {"FAULT_CALL": call, "FAULT_WITH": number} | ({"FAULT_NAME": name} if name else {})
    outcome = interfered(directory, preload, **fault)
    assert stopped(outcome, BAD_RUN) == f"{message} ({told})"
    assert log_lines(directory)[-1] == f"Error<Msg:{message}>"
    assert lcflags(directory)[0] == [1, 1]


@pytest.mark.parametrize(
    ("call", "what"), [("open", "open"), ("write", "write"), ("close", "close")]
)
def test_the_reason_for_a_log_that_cannot_be_had_is_told(tmp_path, preload, call, what):
    directory = rerun(tmp_path)
    fault: dict[str, int | str] = {"FAULT_NAME": LOG, "FAULT_WITH": errno.ENOSPC}
    outcome = interfered(directory, preload, FAULT_CALL=call, **fault)
    assert stopped(outcome, BAD_LOG) == f'cannot {what} the log "{LOG}" ({SPACE})'


@pytest.mark.parametrize("number", [errno.EINVAL, errno.EOPNOTSUPP, errno.EBADF])
def test_a_file_system_that_cannot_sync_folders_is_worked_on(tmp_path, preload, number):
    directory = rerun(tmp_path)
    outcome = interfered(directory, preload, FAULT_CALL="fsync", FAULT_WITH=number)
    assert outcome == Outcome(0, "", "")
    assert lcflags(directory)[0] == [DONE, DONE]


def test_a_mark_whose_folder_cannot_be_synced_is_not_announced(tmp_path, preload):
    directory = rerun(tmp_path)
    operations = recorded(shutil.copytree(directory, tmp_path / "copy"), preload, tmp_path / "list")
    syncs = [i for i, operation in enumerate(operations, 1) if operation.call == "fsync"]
    assert len(syncs) == 4  # before the flags and behind them, twice
    outcome = interfered(directory, preload, FAULT_AT=syncs[1], FAULT_WITH=errno.EIO)
    told = f"(the folder of mxs.lcflags: {reason(errno.EIO)})"
    assert stopped(outcome, BAD_RUN) == f"Error flushing file unit: 400 {told}"
    assert not any("LCaseTime" in line for line in log_lines(directory))


# --- each operation in turn -----------------------------------------------------------------------


def ends_well(directory: Path, outcome: Outcome, case) -> bool:
    """Right results, or a stop with a line that says why; either way nothing lost. True for a stop
    that leaves something to do."""
    flags = check_whole(directory, case)
    if outcome == Outcome(0, "", ""):
        assert flags == [DONE, DONE]
        return False
    assert outcome.out == ""
    match = re.fullmatch(r"(1004|1005|1010): (\S[^\n]*) \([^\n]*\)\n", outcome.err)
    assert match, outcome
    assert outcome.status == int(match[1]) & 0xFF
    if match[1] == "1010":
        assert log_lines(directory)[-1] == f"Error<Msg:{match[2]}>"
    return True


def faults(place: int) -> list[dict[str, int]]:
    once = ONCE if EVERY else ONCE[place % len(ONCE) :][:1]
    ever = FOR_EVER if EVERY else FOR_EVER[place % len(FOR_EVER) :][:1]
    return [{"FAULT_AT": place, "FAULT_WITH": number} for number in once] + [
        {"FAULT_FROM": place, "FAULT_WITH": number} for number in ever
    ]


@pytest.mark.parametrize("prepare", PREPARED)
def test_whichever_operation_fails_the_run_ends_told_or_with_right_results(
    tmp_path, preload, prepare
):
    case = prepared(tmp_path, prepare)
    shutil.copytree(case.first, tmp_path / "copy", symlinks=True)
    operations = recorded(tmp_path / "copy", preload, tmp_path / "operations")
    first = tmp_path / "work"
    stops = 0
    for place, directory in copies(case, first):
        if place > len(operations):
            break
        for fault in faults(place):
            shutil.rmtree(directory)
            shutil.copytree(case.first, directory, symlinks=True)
            if ends_well(directory, interfered(directory, preload, **fault), case):
                stops += 1
        if place % 5 and not EVERY:
            continue
        # A disk that came back: the rest is done, and nothing is left lying about.
        solves(directory)
        assert lcflags(directory)[0] == [DONE, DONE]
        assert not [path for path in directory.iterdir() if is_unfinished(path.name)]
    assert stops > len(operations) / 2
    calls = {operation.call for operation in operations}
    assert calls >= {"chdir", "open", "flock", "stat", "lstat", "fstat", "read", "write"}
    assert calls >= {"fdatasync", "fsync", "close", "rename", "opendir", "readdir"}


def test_the_energy_of_a_run_does_not_depend_on_a_fault_that_it_survived(tmp_path, preload):
    case = prepared(tmp_path, rerun)
    energies = [comval(case.reference, number)[1] for number in (1, 2)]
    survived = 0
    for place, directory in copies(case, tmp_path / "work"):
        if place > 120:
            break
        outcome = interfered(directory, preload, FAULT_AT=place, FAULT_WITH=errno.EACCES)
        if outcome.status == 0:
            survived += 1
            now = [comval(directory, number)[1] for number in (1, 2)]
            np.testing.assert_allclose(now, energies, rtol=1e-4)
    assert survived > 0
