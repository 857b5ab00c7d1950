"""What the OpenMP run-time is told, by whom, and what it may meet."""

from __future__ import annotations

import os
import re
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from models import tiny, tiny_case
from runs import start

# Of GCC's run-time and of Clang's.
SPINS, MILLISECONDS = "GOMP_SPINCOUNT", "KMP_BLOCKTIME"

Policy = Callable[..., tuple[str, int]]


@pytest.fixture
def told(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Policy:
    """A run's policy as its run-time tells it: name of the variable and value."""
    for name in ("OMP_WAIT_POLICY", "KMP_LIBRARY", SPINS, MILLISECONDS):
        monkeypatch.delenv(name, raising=False)
    directory = tiny(tmp_path, tiny_case())

    def policy(**environment: str) -> tuple[str, int]:
        outcome = start(directory, OMP_DISPLAY_ENV="VERBOSE", **environment)
        assert (outcome.status, outcome.out) == (0, "")
        found = re.search(rf"({SPINS}|{MILLISECONDS}) ?= ?'(\d+)", outcome.err)
        assert found, outcome.err
        return found[1], int(found[2])

    return policy


def test_waiting_threads_sleep_after_microseconds_when_nobody_says_otherwise(told: Policy) -> None:
    assert told() in {(SPINS, 1000), (MILLISECONDS, 0)}


def test_the_users_own_number_wins(told: Policy) -> None:
    name, _ = told()
    assert told(**{name: "77"}) == (name, 77)


def test_the_users_policy_wins(told: Policy) -> None:
    name, value = told(OMP_WAIT_POLICY="active")
    assert (name, value) != told()


def test_the_users_passive_policy_wins(told: Policy) -> None:
    assert told(OMP_WAIT_POLICY="passive")[1] == 0


def test_a_run_solves_under_the_number_of_one_that_was_killed(tmp_path: Path, program: str) -> None:
    """Clang's run-time notes itself in shared memory, and a killed one leaves an empty note."""
    notes = Path("/dev/shm")

    def note(number: int) -> Path:
        return notes / f"__KMP_REGISTERED_LIB_{number}_{os.getuid()}"

    directory = tiny(tmp_path, tiny_case())
    process = subprocess.Popen(
        [program, directory],
        preexec_fn=lambda: note(os.getpid()).write_bytes(bytes(1024)),
        stderr=subprocess.PIPE,
        text=True,
    )
    try:
        _, errors = process.communicate(timeout=60)
        assert (process.returncode, errors) == (0, "")
    finally:
        note(process.pid).unlink(missing_ok=True)
