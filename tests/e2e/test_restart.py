"""A run that is killed, wherever that is, leaves whole files and is finished by starting it again.

Killing at every file operation covers every state that the directory can be in, since nothing
changes between two of them; half-done writes are made on purpose.
"""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest
from models import MATERIALS, STEEL, pulled, tiny, tiny_case, written
from runs import TIMEOUT, clear_done, counted, lcflags, run, same, solves, sstate

from vkctl.directory.model import Model
from vkctl.shapes.boxes import box

REQUESTED, DONE = 1, 3


@pytest.fixture(scope="module")
def preload(tmp_path_factory, program) -> str:
    """Value of LD_PRELOAD for the killer; a sanitizer's run-time wants to be first."""
    target = tmp_path_factory.mktemp("killer") / "kill_at.so"
    source = Path(__file__).with_name("kill_at.c")
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-O1", "-shared", "-fPIC", "-o", target, source, "-ldl"], check=True)
    linked = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    return " ".join([*re.findall(r"=> (\S*/lib[at]san\S*)", linked), str(target)])


def killed(directory: Path, preload: str, **where: int) -> bool:
    """Run until killed at a place; False if the run came to its end before it."""
    environment = os.environ | {"LD_PRELOAD": preload, **{k: str(v) for k, v in where.items()}}
    done = subprocess.run(
        [os.environ["VK_RUND"], directory],
        env=environment,
        capture_output=True,
        timeout=TIMEOUT,
        check=False,
    )
    assert done.returncode in (0, -signal.SIGKILL), done
    return done.returncode != 0


def fresh(directory: Path) -> Path:
    """Two load cases of two patterns."""
    first = Path(directory, "first")
    return tiny(
        first,
        *(tiny_case(force=(9.0, -9.0, 5.0)), tiny_case(2, force=(-7.0, 8.0, 6.0))),
        Sys_ComputationMode=1,
        Sys_MaxNumCompThreads=1,
    )


def rerun(directory: Path) -> Path:
    """Load cases solved before under other loads and now requested anew, with element states,
    blended criteria and a level field."""
    first = Path(directory, "first")
    mesh = box("tet4", (1, 1, 1))
    model = Model(mesh.nodes, mesh.elements, [MATERIALS["yielding"]])
    model.set_level(np.linspace(-0.2, 1.0, 8))
    options = {"Sys_ComputationMode": 1, "Sys_MaxNumCompThreads": 1, "Sta_ResponseDumpFac": 0.5}
    written(first, model, pulled(mesh), pulled(mesh, 2), **options)
    run(first)
    written(first, model, pulled(mesh, force=(9, 1, 1)), pulled(mesh, 2, force=(2, 9, 2)))
    return first


def results(directory: Path) -> dict[str, bytes]:
    return {p.name: p.read_bytes() for p in directory.glob("ws.*") if p.name[-1].isdigit()}


def check_whole(directory: Path, before: dict[str, bytes], after: dict[str, bytes]) -> None:
    """Flags whole and in order; each result absent, as it was, or whole and new."""
    flags, values = lcflags(directory)
    assert flags in ([REQUESTED, REQUESTED], [DONE, REQUESTED], [DONE, DONE])
    assert values == [0.0, 0.0]
    now = results(directory)
    for name in after:
        done = flags[int(name[-4:]) - 1] == DONE
        if name in now and (done or now[name] != before.get(name)):
            assert len(now[name]) == len(after[name])
            same(words(now[name]), words(after[name]), 1e-3)
        else:
            assert not done and (name in now) == (name in before)


def words(data: bytes) -> np.ndarray:
    """The file's content as reals; a count in front is a tiny one of them."""
    return np.frombuffer(data, "<f4")


PREPARED: tuple[Callable[[Path], Path], ...] = (fresh, rerun)


@pytest.mark.parametrize("where", ["KILL_AT", "KILL_WITHIN"])
@pytest.mark.parametrize("prepare", PREPARED)
def test_a_run_killed_at_any_file_operation_is_finished_by_another(
    tmp_path, preload, prepare, where
):
    first = prepare(tmp_path)
    reference = tmp_path / "reference"
    shutil.copytree(first, reference)
    run(reference)
    before, after = results(first), results(reference)
    place = 0
    directory = tmp_path / "work"
    while True:
        place += 1
        shutil.copytree(first, directory)
        if not killed(directory, preload, **{where: place}):
            break
        check_whole(directory, before, after)
        solves(directory)
        assert lcflags(directory)[0] == [DONE, DONE]
        assert set(os.listdir(directory)) == set(os.listdir(reference))
        shutil.rmtree(directory)
    # Opening, writing, closing and renaming each of the files, at the very least.
    assert place > (4 * len(after) if where == "KILL_AT" else len(after))


def test_a_run_killed_again_and_again_gets_done(tmp_path, program):
    mesh = box("tet4", (6, 6, 6), (6.0, 6.0, 6.0))
    model = Model(mesh.nodes, mesh.elements, [STEEL])
    cases = [pulled(mesh, pattern, (1.0, pattern, 0.0)) for pattern in range(1, 9)]
    directory = written(tmp_path / "work", model, *cases, Sys_ComputationMode=1)
    shutil.copytree(directory, tmp_path / "reference")
    begin = time.monotonic()
    run(tmp_path / "reference")
    span = time.monotonic() - begin
    waits = np.random.default_rng(12).uniform(0.2, 0.8, 10) * span
    done: list[int] = []
    for wait in waits:
        process = subprocess.Popen([program, directory])
        time.sleep(wait)
        process.kill()
        process.wait()
        flags, _ = lcflags(directory)
        finished = [i for i, flag in enumerate(flags, 1) if flag == DONE]
        assert flags == [DONE] * len(finished) + [REQUESTED] * (8 - len(finished))
        assert set(done) <= set(finished)
        done = finished
        for number in done:
            assert len(counted(directory, "ws.disval", number)) == len(mesh.nodes)
    run(directory)
    assert lcflags(directory)[0] == [DONE] * 8
    for number in range(1, 9):
        expected = sstate(tmp_path / "reference", number)
        # Either run may stop at any residual that the tolerance allows.
        assert np.abs(sstate(directory, number) - expected).max() <= 1e-3 * np.abs(expected).max()


def iterations(directory: Path) -> int:
    """Iterations of the one load case of a run."""
    (line,) = (line for line in run(directory) if line.startswith("Info<Msg:ICount: "))
    return int(line.removeprefix("Info<Msg:ICount: ").removesuffix(">"))


def test_a_request_made_anew_solves_again(tmp_path):
    directory = tiny(tmp_path, Sys_ComputationMode=1)
    assert len(solves(directory).cases) == 1
    assert solves(directory).cases == []
    clear_done(directory)
    assert len(solves(directory).cases) == 1


def test_a_request_made_anew_starts_from_the_earlier_solution(tmp_path):
    """With the load taken away, a start from zero has nothing to do; one from the earlier solution
    has that to undo."""
    started, unstarted = tmp_path / "started", tmp_path / "unstarted"
    tiny(started, Sys_ComputationMode=1)
    run(started)
    largest = np.abs(sstate(started, 1)).max()
    tiny(started, tiny_case(force=(0.0, 0.0, 0.0)), Sys_ComputationMode=1)
    shutil.copytree(started, unstarted)
    (unstarted / "ws.sstate.0001").unlink()
    assert iterations(unstarted) == 0
    assert not sstate(unstarted, 1).any()
    assert iterations(started) > 0
    assert np.abs(sstate(started, 1)).max() <= 1e-4 * largest


def test_an_unfinished_replacement_is_cleared_away(tmp_path, preload):
    first, directory = fresh(tmp_path), tmp_path / "work"
    place = 0
    left: set[str] = set()
    while not left:
        place += 1
        shutil.rmtree(directory, ignore_errors=True)
        shutil.copytree(first, directory)
        if not killed(directory, preload, KILL_WITHIN=place):
            break
        left = {p.name for p in directory.iterdir()} - {p.name for p in first.iterdir()}
        left.discard("vk_rund_log.txt")
    assert left, "no kill left an unfinished file, so nothing is written beside its target"
    run(directory)
    assert not left & {p.name for p in directory.iterdir()}
