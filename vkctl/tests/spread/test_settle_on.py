"""Rounds that real workers solve: those of one machine, stopped anywhere, or refused."""

from __future__ import annotations

import shutil
from collections.abc import Iterator
from pathlib import Path

import numpy as np
import pytest
from cluster_work import Processes, scheduler
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.running import rounds
from vkctl.running.settle import RoundShown, settle
from vkctl.shapes.boxes import box
from vkctl.spread import copies
from vkctl.spread.settle import settle_on

pytestmark = pytest.mark.thorough

runner = CliRunner()
TOLERANCE = 0.02


@pytest.fixture(scope="module")
def processes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Processes]:
    options = ["--nthreads", "1", "--memory-limit", "2GB"]
    with scheduler(tmp_path_factory.mktemp("cluster"), worker_options=options) as started:
        started.add_worker("--name", "ant")
        started.add_worker("--name", "bee")
        yield started


@pytest.fixture
def bar(tmp_path: Path) -> Path:
    """A bar, half of which yields, in two patterns of which the second has a load that doesn't."""
    part = box("hex8", (4, 1, 1), (4.0, 1.0, 1.0))
    part.elements.materials[:] = np.arange(4) % 2 + 1
    load_cases = []
    for pattern, pull in ((1, 11.0), (2, 14.0), (2, 5.0)):
        case = LoadCase(pattern).load(*part.traction("x+", (pull, 0, 0)))
        for side in ("x-", "y-", "z-"):
            case.prescribe(part.face(side), side[0])
        if pattern == 2:
            case.prescribe(part.face("z+")[:1], "z")
        load_cases.append(case)
    yielding = Material.yielding(1e3, 0.0, 10.0, hardening_ratio=0.5)
    materials = [yielding, Material.isotropic(1e3, 0.3)]
    write(Model(part.nodes, part.elements, materials, load_cases), tmp_path / "bar")
    return tmp_path / "bar"


def alone(directory: Path) -> tuple[Path, int]:
    """The same directory, settled by one thread of one process, and how many rounds it took."""
    other = directory.with_name("alone")
    shutil.copytree(directory, other)
    settled = settle(other, TOLERANCE, threads=1)
    assert settled.ok and settled.rounds > 3
    return other, settled.rounds


def results(directory: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in directory.glob("ws.*")}


@pytest.mark.parametrize("token", [copies.TOKEN, "elsewhere"])
def test_workers_settle_to_the_bit_as_one_machine_does(
    bar: Path, processes: Processes, monkeypatch: pytest.MonkeyPatch, token: str
) -> None:
    """With another token workers don't see the directory, and are sent states and start vectors."""
    other, count = alone(bar)
    monkeypatch.setattr(copies, "TOKEN", token)
    settled = settle_on(bar, processes.address, TOLERANCE)
    assert settled.ok and settled.rounds == count
    assert results(bar) == results(other) != {}
    assert not (bar / "spread").exists()


def test_rounds_begun_on_workers_go_on_here_and_the_other_way_round(
    bar: Path, processes: Processes
) -> None:
    other, count = alone(bar)
    assert settle_on(bar, processes.address, TOLERANCE, most_rounds=1).rounds == 1
    assert settle(bar, TOLERANCE, threads=1, most_rounds=1).rounds == 2
    last = settle_on(bar, processes.address, TOLERANCE)
    assert last.ok and last.rounds == count
    assert results(bar) == results(other)


def test_a_scheduler_that_goes_between_rounds_ends_them_and_they_go_on_here(
    bar: Path, tmp_path: Path
) -> None:
    other, count = alone(bar)
    with scheduler(tmp_path / "short", worker_options=["--nthreads", "1"]) as started:
        started.add_worker()

        def kill(shown: RoundShown) -> None:
            if shown.number == 2:
                started.scheduler.kill()
                started.scheduler.wait()

        settled = settle_on(bar, started.address, TOLERANCE, on_round=kill)
    assert settled.failed and settled.status == 1 and settled.run is not None
    assert "has gone" in settled.run.advice.sentence
    state = rounds.read_state(bar)
    assert state is not None and len(state.rounds) == 2 and state.running
    assert settle(bar, TOLERANCE, threads=1).rounds == count
    assert results(bar) == results(other)


def test_the_command_shows_each_round(bar: Path, processes: Processes) -> None:
    words = ["run", str(bar), "--settle", str(TOLERANCE), "--on", processes.address]
    told = runner.invoke(app, words)
    assert told.exit_code == 0, told.output
    assert "round 2, load case 1: changes of displacements" in told.stdout
    assert "Load case 3 has settled after 2 rounds" in told.stdout
    assert "iterations" not in told.stdout


@pytest.mark.parametrize(
    ("words", "sentence"),
    [
        (["--settle", "--on", "local:0"], "1 to 256 workers"),
        (["--settle", "--on", "tcp://127.0.0.1:9"], "No scheduler can be reached"),
        (["--settle", "2", "--on", "local:1"], "the tolerance must be"),
        (["--settle", "--rounds", "0", "--on", "local:1"], "at least one round"),
    ],
)
def test_what_cannot_begin_is_refused_and_nothing_is_written(
    bar: Path, words: list[str], sentence: str
) -> None:
    before = {path.name: path.read_bytes() for path in bar.iterdir()}
    told = runner.invoke(app, ["run", str(bar), *words])
    assert told.exit_code == 2 and sentence in told.stderr and told.stderr.count("\n") == 1
    assert {path.name: path.read_bytes() for path in bar.iterdir()} == before
