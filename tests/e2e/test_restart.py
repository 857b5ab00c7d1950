"""A run that is killed, wherever that is, leaves whole files and is finished by starting it again.

Killing at every file operation covers every state that the directory can be in, since nothing
changes between two of them; half-done writes are made on purpose.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import time
from pathlib import Path

import numpy as np
import pytest
from interference import (
    DONE,
    PREPARED,
    REQUESTED,
    check_whole,
    copies,
    fresh,
    is_unfinished,
    killed,
    prepared,
)
from models import STEEL, pulled, tiny, tiny_case, written
from runs import clear_done, counted, lcflags, run, solves, sstate

from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements


@pytest.mark.parametrize("where", ["KILL_AT", "KILL_WITHIN"])
@pytest.mark.parametrize("prepare", PREPARED)
def test_a_run_killed_at_any_file_operation_is_finished_by_another(
    tmp_path, preload, prepare, where
):
    case = prepared(tmp_path, prepare)
    for place, directory in copies(case, tmp_path / "work"):
        if not killed(directory, preload, **{where: place}):
            break
        check_whole(directory, case)
        solves(directory)
        assert lcflags(directory)[0] == [DONE, DONE]
        assert set(os.listdir(directory)) == set(os.listdir(case.reference))
    # Opening, writing, closing and renaming each of the files, at the very least.
    assert place > (4 * len(case.after) if where == "KILL_AT" else len(case.after))


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


def two_bars(directory: Path, first: float, second: float) -> Path:
    """A long bar and a short one that don't touch, each pulled by its force."""
    long, short = box("tet4", (12, 2, 2), (12.0, 2.0, 2.0)), box("tet4", (1, 1, 1), (1.0, 1.0, 1.0))
    offset = len(long.nodes)
    model = Model(
        np.concatenate((long.nodes, short.nodes + np.array((0, 0, 9)))),
        Elements.from_tables(
            tet4=np.concatenate((long.elements.tet4, short.elements.tet4 + offset))
        ),
        [STEEL],
    )
    case = LoadCase(pattern=1)
    for mesh, above, force in ((long, 0, first), (short, offset, second)):
        case.prescribe(mesh.face("x-") + above)
        case.load(mesh.face("x+") + above, (force, 0.3 * force, 0))
    return written(directory, model, case, Sys_ComputationMode=1, Sys_MaxNumCompThreads=1)


def test_a_start_spares_the_iterations_of_what_it_has_solved(tmp_path):
    """With the long bar solved by an earlier run, only the short one's few iterations are left."""
    alone = iterations(two_bars(tmp_path / "alone", 0.0, 1.0))
    both = iterations(two_bars(tmp_path / "both", 0.1, 1.0))
    assert both > 3 * alone
    directory = two_bars(tmp_path / "started", 0.1, 0.0)
    run(directory)
    two_bars(directory, 0.1, 1.0)
    assert iterations(directory) == alone


def test_an_unfinished_replacement_is_cleared_away(tmp_path, preload):
    case = prepared(tmp_path, fresh)
    left: set[str] = set()
    for place, directory in copies(case, tmp_path / "work"):
        if not killed(directory, preload, KILL_WITHIN=place):
            break
        left = {path.name for path in directory.iterdir() if is_unfinished(path.name)}
        assert len(left) <= 1
        if left:
            run(directory)
            assert not left & {path.name for path in directory.iterdir()}
    assert place > len(case.after)


def test_only_what_surely_is_an_unfinished_replacement_is_cleared_away(tmp_path):
    directory = tiny(tmp_path)
    digits = "~0123456789abcdef"
    ours = [f"{name}{digits}" for name in ("mxs.lcflags", "ws.tcval.0001", "ws.mstate.****")]
    theirs = [
        "ws.tcval.0001~",
        "mxs.lcflags~",
        "ws.tcval.0001~0123456789abcde",
        "ws.tcval.0001~0123456789ABCDEF",
        f"ws.tcval.001{digits}",
        f"ws.other.0001{digits}",
        f"mxs.lcmap.0001{digits}",
        f"my.ws.tcval.0001{digits}",
        f"vk_rund_log.txt{digits}",
        digits,
    ]
    for name in ours + theirs:
        Path(directory, name).write_text("half of someth")
    Path(directory, f"ws.tcval.0002{digits}").symlink_to("mx.nodes")
    Path(directory, f"ws.tcval.0003{digits}").mkdir()
    theirs += [f"ws.tcval.0002{digits}", f"ws.tcval.0003{digits}"]
    run(directory)
    names = os.listdir(directory)
    assert not set(ours) & set(names)
    assert set(theirs) <= set(names)
