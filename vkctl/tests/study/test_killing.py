"""Kills from outside: of the processes that make variants, and of the study itself."""

from __future__ import annotations

import os
import random
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest
from cluster_work import awaited
from small_loops import VK_RUND, script

from vkctl.study import local, study
from vkctl.study.journal import read_journal

from .small_studies import RESULTS, rows, write_study

pytestmark = pytest.mark.thorough

FORCES = '[parameters.force]\nkey = "loads.down.value.y"\nrange = [-12.0, -1.0, 12]\n' + RESULTS


def below(pid: int) -> list[int]:
    """Processes that a process has started, and those that they have."""
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rpartition(")")[2].split()
        except OSError:
            continue
        if int(fields[1]) == pid and fields[0] != "Z":
            child = int(path.parent.name)
            found += [child, *below(child)]
    return found


def running_below(folder: Path) -> list[int]:
    """Processes that work inside of a folder or name it."""
    found = []
    for path in Path("/proc").glob("[0-9]*"):
        try:
            words = (path / "cmdline").read_bytes().decode("utf-8", "replace")
        except OSError:
            continue
        if str(folder) in words and int(path.name) != os.getpid():
            found.append(int(path.name))
    return found


def command(path: Path, out: Path) -> list[str]:
    program = [sys.executable, "-m", "vkctl", "study", str(path), str(out)]
    return [*program, "--jobs", "2", "--vk-rund", str(VK_RUND), "--no-pictures"]


@pytest.fixture(scope="module")
def expected(tmp_path_factory: pytest.TempPathFactory) -> list[tuple[str, str]]:
    folder = tmp_path_factory.mktemp("undisturbed")
    study(write_study(folder, FORCES), folder / "out", vk_rund=VK_RUND, jobs=2)
    return results(folder / "out")


def results(out: Path) -> list[tuple[str, str]]:
    return [(row["variant"], row["energy"]) for row in rows(out) if row["status"] == "done"]


def test_processes_that_are_killed_are_replaced(
    tmp_path: Path, expected: list[tuple[str, str]]
) -> None:
    """One whenever two more variants are done, whatever it is at then."""
    path, out = write_study(tmp_path, FORCES), tmp_path / "out"
    chance = random.Random(1)
    killed = 0

    def kill(progress) -> None:
        nonlocal killed
        victims = [pid for pid in below(os.getpid()) if is_at_work(pid)]
        if victims and killed < min(4, progress.finished // 2):
            os.kill(chance.choice(victims), signal.SIGKILL)
            killed += 1

    study(path, out, vk_rund=VK_RUND, jobs=2, on_progress=kill)
    assert killed > 0
    assert results(out) == expected
    awaited(lambda: running_below(tmp_path) == [])


def is_at_work(pid: int) -> bool:
    """Whether it is a process that makes variants, or its solver."""
    try:
        words = Path(f"/proc/{pid}/cmdline").read_bytes()
    except OSError:
        return False
    return b"vkctl.study.worker" in words or b"vk_rund" in words.partition(b"\0")[0]


def test_a_study_that_is_killed_at_any_moment_goes_on(
    tmp_path: Path, expected: list[tuple[str, str]]
) -> None:
    path, out = write_study(tmp_path, FORCES), tmp_path / "out"
    chance = random.Random(2)
    kills, finished = 0, set[int]()
    while True:
        process = subprocess.Popen(command(path, out), stdout=subprocess.DEVNULL)
        wait = chance.uniform(0.2, 1.0 + kills)
        if kills == 0:  # in its middle for once, however fast the machine is
            awaited(lambda process=process: process.poll() is not None or read_journal(out))
            wait = 0.0
        try:
            process.wait(wait)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            kills += 1
        journal = set(read_journal(out)) if out.exists() else set()
        assert finished <= journal  # what was done stays done
        finished = journal
        if process.returncode == 0:
            break
        assert process.returncode == -signal.SIGKILL
    assert kills > 0
    assert results(out) == expected
    lines = (out / "journal.jsonl").read_text().splitlines()
    assert len(lines) == 12


def test_nothing_goes_on_without_the_study(tmp_path: Path) -> None:
    path, out = write_study(tmp_path, FORCES), tmp_path / "out"
    slow = script(tmp_path / "slow_program", 'sleep 600\nexec $real "$@"')
    arguments = [*command(path, out)[:-3], "--vk-rund", str(slow), "--no-pictures"]
    process = subprocess.Popen(arguments, stdout=subprocess.DEVNULL)
    awaited(lambda: any(is_slow(pid) for pid in below(process.pid)))
    started = below(process.pid)
    process.kill()
    process.wait()
    awaited(lambda: not any(is_alive(pid) for pid in started))


def is_slow(pid: int) -> bool:
    try:
        return b"slow_program" in Path(f"/proc/{pid}/cmdline").read_bytes()
    except OSError:
        return False


def is_alive(pid: int) -> bool:
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def test_a_variant_whose_process_always_dies_fails_alone(tmp_path: Path) -> None:
    text = FORCES.replace("range = [-12.0, -1.0, 12]", "values = [-1, -2]")
    # The solver kills the process that has started it, in the second variant.
    deadly = f'case "$1" in *0002) kill -9 $PPID; sleep 1;; esac\nexec {VK_RUND} "$@"'
    program = script(tmp_path / "program", deadly)
    done = study(write_study(tmp_path, text), tmp_path / "out", vk_rund=program, jobs=1)
    assert [row["status"] for row in done.rows] == ["done", "failed"]
    assert "its process was ended 10 times, the last time by SIGKILL" in str(
        done.rows[1]["message"]
    )


@pytest.mark.parametrize(("number", "status"), [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_an_interrupted_study_leaves_its_table_and_goes_on(
    tmp_path: Path, number: int, status: int
) -> None:
    path, out = write_study(tmp_path, FORCES), tmp_path / "out"
    process = subprocess.Popen(
        command(path, out), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
    )
    while process.poll() is None and not read_journal(out):
        time.sleep(0.05)
    process.send_signal(number)
    words = process.communicate(timeout=300)[1].decode()
    if process.returncode != 0:  # it hadn't ended before
        assert process.returncode == status and "start it again to go on" in words
    assert len(rows(out)) == len(read_journal(out))
    assert subprocess.run(command(path, out), stdout=subprocess.DEVNULL).returncode == 0
    assert len(results(out)) == 12


def test_a_process_that_ends_of_its_own_ends_the_study_with_its_last_words(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    broken = script(tmp_path / "broken", "echo no such module >&2; exit 3")
    monkeypatch.setattr(local, "_COMMAND", (str(broken),))
    with pytest.raises(local.BrokenWorkerError, match="status 3: no such module"):
        study(write_study(tmp_path, FORCES), tmp_path / "out", vk_rund=VK_RUND)
    assert read_journal(tmp_path / "out") == {}
