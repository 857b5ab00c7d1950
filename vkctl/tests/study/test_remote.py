"""Studies on the workers of a cluster."""

from __future__ import annotations

import signal
import threading
from contextlib import contextmanager
from dataclasses import replace
from pathlib import Path

import pytest
from cluster_work import awaited, scheduler
from small_loops import VK_RUND, script
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import lock
from vkctl.spread.where import parse_where
from vkctl.spread.work import ElsewhereError, Here
from vkctl.study import Task, study
from vkctl.study.journal import read_journal
from vkctl.study.remote import dispatch_on, solve_there

from .small_studies import in_turn, rows, write_study

pytestmark = pytest.mark.thorough


def call(path: Path, out: Path, *options: str):
    arguments = ["study", str(path), str(out), "--vk-rund", str(VK_RUND), "--no-pictures"]
    return CliRunner().invoke(app, [*arguments, *options])


def here(folder: Path) -> Here:
    return Here("worker", 1, 1.0, folder, lambda **values: None, lambda: True)


def test_workers_make_the_same_as_this_machine(tmp_path: Path) -> None:
    path = write_study(tmp_path)
    told = call(path, tmp_path / "there", "--on", "local:2")
    assert told.exit_code == 0, told.output
    study(path, tmp_path / "here", vk_rund=VK_RUND, dispatch=in_turn)
    columns = ("variant", "force", "modulus", "status", "energy", "stress", "message")
    found, expected = (
        [[row[c] for c in columns] for row in rows(tmp_path / out)] for out in ("there", "here")
    )
    assert found == expected
    assert len(read_journal(tmp_path / "there")) == 4


def tasks_of(folder: Path) -> list[Task]:
    found: list[Task] = []

    @contextmanager
    def noted(tasks, jobs):
        found.extend(tasks)
        yield iter(())

    study(write_study(folder), folder / "out", vk_rund=VK_RUND, dispatch=noted)
    return found


def test_a_worker_that_does_not_see_the_folder_hands_the_variant_on(tmp_path: Path) -> None:
    task = tasks_of(tmp_path)[0]
    (tmp_path / "out").rename(tmp_path / "away")
    with pytest.raises(ElsewhereError, match="doesn't see the study's folder"):
        solve_there(task, here(tmp_path))


def test_a_variant_that_another_worker_is_at_is_handed_on(tmp_path: Path) -> None:
    task = replace(tasks_of(tmp_path)[0], mesh="")
    assert solve_there(task, here(tmp_path)).status == "done"
    with lock.holding(task.directory), pytest.MonkeyPatch.context() as patch:
        # As on another machine, whose processes can't be seen.
        patch.setattr("vkctl.running.processes.worker_on", lambda directory: None)
        patch.setattr(lock, "_held", {})
        with pytest.raises(ElsewhereError, match="is running on"):
            solve_there(task, here(tmp_path))


@pytest.mark.parametrize(
    ("options", "words"),
    [
        (("--on", "nonsense:x"), "is no place to run on"),
        (("--on", "local:2", "--jobs", "3"), "--jobs and --threads are for this machine"),
    ],
)
def test_a_place_that_is_none_is_refused(
    tmp_path: Path, options: tuple[str, ...], words: str
) -> None:
    told = call(write_study(tmp_path), tmp_path / "out", *options)
    assert told.exit_code == 2 and words in told.output
    assert not (tmp_path / "out").exists()


def test_a_killed_worker_costs_the_study_no_variant(tmp_path: Path) -> None:
    """The first variant waits for its worker's end; what is begun after it doesn't."""
    path = write_study(tmp_path)
    begun, killed = tmp_path / "begun", tmp_path / "killed"
    slow = f'if [ ! -e {killed} ]; then echo $$ >> {begun}; exec sleep 600; fi\nexec $real "$@"'
    lines: list[str] = []
    with scheduler(tmp_path / "own", worker_options=["--nthreads", "1", "--no-nanny"]) as own:
        own.add_worker("--memory-limit", "2GB")

        def kill() -> None:
            awaited(begun.exists)
            killed.touch()
            own.add_worker("--memory-limit", "2GB")
            own.workers[0].send_signal(signal.SIGKILL)

        killer = threading.Thread(target=kill)
        killer.start()
        done = study(
            path,
            tmp_path / "out",
            vk_rund=script(tmp_path / "slow", slow),
            dispatch=dispatch_on(parse_where(own.address), lines.append),
        )
        killer.join()
    assert [row["status"] for row in done.rows] == ["done"] * 4
    assert len(read_journal(tmp_path / "out")) == 4
    assert any("is begun again: the worker has died" in line for line in lines), lines
