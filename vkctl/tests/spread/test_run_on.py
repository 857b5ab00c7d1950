"""Runs over real workers: the same results as of one machine, whatever happens on the way."""

from __future__ import annotations

import re
import shutil
import signal
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest
from cluster_work import Processes, awaited, scheduler
from other_holder import other_holder
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.lock import BusyError
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.results import solved
from vkctl.running.run import find_vk_rund, run
from vkctl.running.watch import watch
from vkctl.shapes.boxes import box
from vkctl.spread.place import opened
from vkctl.spread.run import run_on
from vkctl.spread.where import parse_where

pytestmark = pytest.mark.thorough

runner = CliRunner()
ONE_CORE = ["--nthreads", "1", "--memory-limit", "2GB"]


@pytest.fixture(scope="module")
def processes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Processes]:
    with scheduler(tmp_path_factory.mktemp("cluster"), worker_options=ONE_CORE) as started:
        started.add_worker("--name", "ant")
        started.add_worker("--name", "bee")
        yield started


def patterns_box(directory: Path, patterns: int = 4, cases: int = 2, cells: int = 4) -> Path:
    """A box whose patterns hold more and more nodes; each has load cases of its own."""
    part = box("hex8", (2 * cells, cells, cells))
    load_cases = []
    for pattern in range(1, patterns + 1):
        for number in range(1, cases + 1):
            case = LoadCase(pattern).load(*part.traction("x+", (0, 1.0 * number, -1.0 * pattern)))
            case.prescribe(part.face("x-"))
            load_cases.append(case.prescribe(part.face("z-")[:pattern]))
    directory.mkdir(parents=True, exist_ok=True)
    write(Model(part.nodes, part.elements, [Material.isotropic(1e3, 0.3)], load_cases), directory)
    return directory


def twin(directory: Path) -> Path:
    """The same directory, solved by one run on one thread."""
    other = directory.with_name(directory.name + "-alone")
    shutil.copytree(directory, other)
    assert run(other, threads=1).ok
    return other


def results(directory: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in directory.glob("ws.*")}


def test_results_are_those_of_one_machine_to_the_bit(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    result = run_on(directory, processes.address)
    assert (
        result.ok and result.status == 0 and result.open == [] and result.planned == [*range(1, 9)]
    )
    assert results(directory) == results(alone) != {}
    assert formats.read_loadcase_flags(directory)[0].tolist() == [3] * 8
    told = watch(directory)
    assert told.ok and sorted(case.number for case in told.log.load_cases) == [*range(1, 9)]
    assert not (directory / "spread").exists()


def test_a_load_case_starts_from_what_an_earlier_run_left(tmp_path, processes):
    directory = patterns_box(tmp_path / "part", patterns=2)
    assert run(directory, threads=1).ok
    alone = tmp_path / "alone"
    shutil.copytree(directory, alone)
    assert run(alone, again=True, threads=1).ok
    assert run_on(directory, processes.address, again=True).ok
    assert results(directory) == results(alone)


def test_workers_that_do_not_see_the_directory_are_sent_its_files(tmp_path, processes, monkeypatch):
    """The token isn't where workers look for it, as on another machine."""
    directory = patterns_box(tmp_path / "part")
    assert run(directory, threads=1).ok  # start vectors travel too
    alone = tmp_path / "alone"
    shutil.copytree(directory, alone)
    assert run(alone, again=True, threads=1).ok
    from vkctl.spread import copies

    monkeypatch.setattr(copies, "TOKEN", "elsewhere")
    result = run_on(directory, processes.address, again=True)
    assert result.ok, result.advice
    assert results(directory) == results(alone)


def test_a_pattern_that_fails_of_itself_leaves_the_others_alone(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    (directory / "mxs.lcmap.0003").unlink()
    lines: list[str] = []
    result = run_on(directory, processes.address, on_line=lines.append)
    assert (result.outcome, result.status) == ("stopped", run(twin_with_fault(directory)).status)
    assert solved(directory) == [1, 2, 5, 6, 7, 8] and result.open == [3, 4]
    assert "mxs.lcmap.0003 is missing" in result.advice.sentence
    (line,) = lines
    assert line.startswith("Pattern 2 on ") and "mxs.lcmap.0003 is missing" in line
    told = watch(directory)
    assert (told.outcome, told.status) == ("stopped", 242)


def twin_with_fault(directory: Path) -> Path:
    other = directory.with_name("fault")
    shutil.copytree(directory, other, ignore=shutil.ignore_patterns("ws.*", "spread"))
    words, values = formats.read_loadcase_flags(other)
    formats.write_loadcase_flags(other, words & ~formats.LOADCASE_DONE, values)
    return other


def test_it_goes_on_with_what_is_not_done(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    lost = directory / "mxs.lcmap.0003"
    kept = lost.read_bytes()
    lost.unlink()
    assert run_on(directory, processes.address).status == 242
    lost.write_bytes(kept)
    alone = twin_with_fault(directory)
    assert run(alone, threads=1).ok
    result = run_on(directory, processes.address)
    assert result.ok and result.planned == [3, 4]
    assert results(directory) == results(alone)


def test_lines_tell_who_solved_what_and_a_second_run_that_nothing_is_to_be_done(
    tmp_path, processes
):
    directory = patterns_box(tmp_path / "part", patterns=1)
    told = runner.invoke(app, ["run", str(directory), "--on", processes.address])
    assert told.exit_code == 0, told.output
    for number in (1, 2):
        line = rf"^load case {number}: direct, .* iterations?, quality 1.000, .*, on (ant|bee)$"
        assert re.search(line, told.output, re.MULTILINE), told.output
    told = runner.invoke(app, ["run", str(directory), "--on", processes.address])
    assert told.exit_code == 0 and "Nothing was to be run" in told.output


def noting_solver(path: Path, then: str = "true", condition: str = "true") -> Path:
    """The solver; where a condition of the shell holds it notes its number and does something."""
    path.write_text(
        f'#!/bin/sh\nif {condition}; then echo $$ >> "{path}.begun"; {then}; fi\n'
        f'exec {find_vk_rund()} "$@"\n'
    )
    path.chmod(0o755)
    return path


def stuck_solver(path: Path, condition: str = "true") -> Path:
    """A solver that goes on until it is ended where a condition of the shell holds."""
    return noting_solver(path, "exec sleep 600", condition)


def test_a_pattern_with_many_load_cases_is_split_where_there_are_more_workers(tmp_path, processes):
    directory = patterns_box(tmp_path / "part", patterns=1, cases=8)
    alone = twin(directory)
    counting = noting_solver(tmp_path / "solver")
    with opened(parse_where(processes.address)) as place:
        awaited(lambda: len(place.workers()) == 2)
    result = run_on(directory, processes.address, vk_rund=counting)
    assert result.ok and sorted(case.number for case in result.log.load_cases) == [*range(1, 9)]
    assert len(Path(f"{counting}.begun").read_text().split()) == 2
    assert results(directory) == results(alone) != {}


def test_a_worker_under_a_nanny_gives_the_solver_all_the_threads_that_it_declares(tmp_path):
    directory = patterns_box(tmp_path / "part", patterns=1, cases=1)
    noting = tmp_path / "solver"
    words = '"${OMP_NUM_THREADS-free} ${MKL_NUM_THREADS-free} ${OPENBLAS_NUM_THREADS-free}"'
    noting.write_text(f'#!/bin/sh\necho {words} > {noting}.said\nexec {find_vk_rund()} "$@"\n')
    noting.chmod(0o755)
    with scheduler(tmp_path / "own") as own:
        own.add_worker("--nthreads", "2", "--memory-limit", "2GB", "--nanny")
        assert run_on(directory, own.address, vk_rund=noting).ok
    assert Path(f"{noting}.said").read_text() == "free free free\n"


def test_a_worker_killed_in_the_middle_costs_its_pattern_alone(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    with scheduler(tmp_path / "own", worker_options=[*ONE_CORE, "--no-nanny"]) as own:
        own.add_worker("--name", "doomed", DOOMED="1")
        own.add_worker("--name", "steady")
        awaited(lambda: _workers(own) == 2)
        doomed = stuck_solver(tmp_path / "solver", '[ -n "$DOOMED" ]')
        lines: list[str] = []

        def kill(progress):
            if any(d.worker == "doomed" and d.stage for d in progress.doing):
                if Path(f"{doomed}.begun").exists():
                    own.workers[0].send_signal(signal.SIGKILL)

        result = run_on(
            directory, own.address, vk_rund=doomed, on_progress=kill, on_line=lines.append
        )
        assert result.ok, (result.advice, lines)
        assert any("on doomed: the worker has died; it runs again elsewhere" in x for x in lines)
    assert results(directory) == results(alone)
    begun = [int(pid) for pid in Path(f"{doomed}.begun").read_text().split()]
    awaited(lambda: not any(_lives(pid) for pid in begun))  # nothing runs on behind a worker


def _lives(pid: int) -> bool:
    try:
        return "State:\tZ" not in Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return False


def test_a_wrong_solver_on_one_worker_is_told_and_avoided(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    wrong = tmp_path / "vk_rund"
    wrong.write_text("#!/bin/sh\nexit 0\n")
    wrong.chmod(0o755)
    with scheduler(tmp_path / "own", worker_options=ONE_CORE) as own:
        own.add_worker("--name", "wrong", VK_RUND=str(wrong))
        own.add_worker("--name", "right", VK_RUND=str(find_vk_rund()))
        awaited(lambda: _workers(own) == 2)
        lines: list[str] = []
        result = run_on(directory, own.address, on_line=lines.append)
        assert result.ok
        assert any("on wrong: The program ended with status 0" in line for line in lines)
    assert results(directory) == results(alone)


def _workers(processes: Processes) -> int:
    from vkctl.spread.place import opened
    from vkctl.spread.where import parse_where

    with opened(parse_where(processes.address)) as place:
        return len(place.workers())


def test_a_killed_client_leaves_what_is_done_and_goes_on(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    command = [sys.executable, "-m", "vkctl", "run", str(directory), "--on", processes.address]
    solver = stuck_solver(tmp_path / "solver", 'ls "$1"/mxs.lcmap.0007')
    client = subprocess.Popen([*command, "--vk-rund", str(solver)])
    awaited(lambda: Path(f"{solver}.begun").exists() and len(_marked(directory)) == 6)
    client.send_signal(signal.SIGKILL)
    client.wait()
    result = run_on(directory, processes.address)
    assert result.ok and result.planned == [7, 8]
    assert results(directory) == results(alone)
    (begun,) = Path(f"{solver}.begun").read_text().split()
    awaited(lambda: not _lives(int(begun)))


def _marked(directory: Path) -> list[int]:
    words, _ = formats.read_loadcase_flags(directory)
    return [number for number, word in enumerate(words, 1) if word & formats.LOADCASE_DONE]


def test_a_client_that_is_told_to_end_calls_its_runs_off(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    solver = stuck_solver(tmp_path / "solver")
    command = [sys.executable, "-m", "vkctl", "run", str(directory), "--on", processes.address]
    client = subprocess.Popen([*command, "--vk-rund", str(solver)], stdout=subprocess.PIPE)
    awaited(lambda: Path(f"{solver}.begun").exists())
    client.send_signal(signal.SIGTERM)
    output, _ = client.communicate(timeout=300)
    assert client.returncode == 128 + signal.SIGTERM and b"done stay done" in output
    begun = [int(pid) for pid in Path(f"{solver}.begun").read_text().split()]
    awaited(lambda: not any(_lives(pid) for pid in begun))


def test_a_killed_scheduler_is_told_and_nothing_is_lost(tmp_path, processes):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    solver = stuck_solver(tmp_path / "solver", 'ls "$1"/mxs.lcmap.0007')
    with scheduler(tmp_path / "own", worker_options=ONE_CORE) as own:
        own.add_worker()

        def kill(progress):
            if Path(f"{solver}.begun").exists() and solved(directory):
                own.scheduler.send_signal(signal.SIGKILL)

        result = run_on(directory, own.address, vk_rund=solver, on_progress=kill)
        assert (result.outcome, result.status) == ("killed", 1)
        assert "has gone" in result.advice.sentence and solved(directory)
    result = run_on(directory, processes.address)
    assert result.ok and 1 not in result.planned
    assert results(directory) == results(alone)


def test_a_full_disk_on_a_worker_moves_its_patterns_to_another(tmp_path, processes, monkeypatch):
    directory = patterns_box(tmp_path / "part")
    alone = twin(directory)
    full = tmp_path / "vk_rund"
    full.write_text(f'#!/bin/sh\nulimit -f 1\nexec {find_vk_rund()} "$@"\n')
    full.chmod(0o755)
    with scheduler(tmp_path / "own", worker_options=ONE_CORE) as own:
        own.add_worker("--name", "full", VK_RUND=str(full))
        own.add_worker("--name", "empty", VK_RUND=str(find_vk_rund()))
        awaited(lambda: _workers(own) == 2)
        lines: list[str] = []
        result = run_on(directory, own.address, on_line=lines.append)
        assert result.ok, result.advice
        assert any(line.startswith("Pattern") and "on full: " in line for line in lines)
    assert results(directory) == results(alone)


def test_the_workers_cores_and_memory_are_those_of_its_runs(tmp_path, processes):
    directory = patterns_box(tmp_path / "part", patterns=1)
    seen = tmp_path / "seen"
    solver = tmp_path / "solver"
    solver.write_text(
        f'#!/bin/sh\ncat "$1/vk_rund_cmd.txt" >> {seen}\nexec {find_vk_rund()} "$@"\n'
    )
    solver.chmod(0o755)
    run_on(directory, processes.address, vk_rund=solver)
    said = dict(line.split("=") for line in seen.read_text().splitlines())
    assert said["Sys.MaxNumCompThreads"] == "1"
    assert 1.5 < float(said["Sys.AvailableMemGB"]) < 2e9 / 2**30
    assert (directory / "vk_rund_cmd.txt").read_text() == ""


def test_two_do_not_work_on_one_directory(directory, processes):
    with other_holder(directory) as pid:
        with pytest.raises(BusyError, match=f"Process {pid} is running"):
            run_on(directory, processes.address)


@pytest.mark.parametrize(
    ("where", "words"),
    [
        ("local:0", "1 to 256 workers"),
        ("nowhere", "no cluster 'nowhere'"),
        ("tcp://127.0.0.1:9", "No scheduler can be reached"),
    ],
)
def test_a_wrong_place_is_refused_and_nothing_is_begun(
    tmp_path, directory, where, words, monkeypatch
):
    monkeypatch.setenv("VKCTL_CLUSTERS", str(tmp_path / "none.toml"))
    before = {path.name: path.read_bytes() for path in directory.iterdir()}
    told = runner.invoke(app, ["run", str(directory), "--threads", "1", "--on", where])
    assert told.exit_code == 2 and words in told.stderr and told.stderr.count("\n") == 1
    assert {path.name: path.read_bytes() for path in directory.iterdir()} == before


def test_other_versions_are_refused(tmp_path, directory, processes, monkeypatch):
    monkeypatch.setattr("vkctl.__version__", "99.1", raising=False)
    told = runner.invoke(app, ["run", str(directory), "--on", processes.address])
    assert told.exit_code == 2
    assert "has vkctl" in told.stderr and "here is 99.1: install the same" in told.stderr


@pytest.mark.parametrize("more", [[], ["--settle"]])
def test_workers_of_this_machine_want_its_solver_before_anything_begins(directory, more):
    before = {path.name: path.read_bytes() for path in directory.iterdir()}
    words = ["run", str(directory), "--on", "local:2", "--vk-rund", str(directory / "none"), *more]
    told = runner.invoke(app, words)
    assert told.exit_code == 127 and told.stderr.startswith("There is no program ")
    assert told.stderr.count("\n") == 1
    assert {path.name: path.read_bytes() for path in directory.iterdir()} == before
