"""The optimisation loop with workers: the same steps as on one machine, from wherever it stops."""

from __future__ import annotations

import signal
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest
from cluster_work import Processes, awaited, scheduler
from small_loops import TWO_CASES, VK_RUND, script, write_small
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.optimise import history, optimise
from vkctl.spread import copies
from vkctl.spread.sending import Sender

pytestmark = pytest.mark.thorough

runner = CliRunner()
STEPS = 3


@pytest.fixture(scope="module")
def processes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Processes]:
    one_core = ["--nthreads", "1", "--memory-limit", "1GB"]
    with scheduler(tmp_path_factory.mktemp("cluster"), worker_options=one_core) as started:
        started.add_worker()
        started.add_worker()
        yield started


@pytest.fixture(scope="module")
def alone(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A loop on one thread of one machine."""
    folder = tmp_path_factory.mktemp("alone")
    cases = small(folder)
    optimise(cases, folder / "work", volume=0.6, steps=STEPS, vk_rund=VK_RUND)
    return folder / "work"


def small(folder: Path) -> Path:
    return write_small(folder, "reduction = 0.15\nmode = 'iterative'\n", TWO_CASES)


def equal_steps(first: Path, second: Path) -> bool:
    """Whether two loops came to the same levels and energies in every step, to the bit."""
    rows = [[(r.objective, r.energies) for r in history.read_history(d)] for d in (first, second)]
    levels = [
        [history.levels_file(d, step).read_bytes() for step in range(1, STEPS + 2)]
        for d in (first, second)
    ]
    return rows[0] == rows[1] and levels[0] == levels[1]


def test_the_loop_is_that_of_one_machine(tmp_path, processes, alone):
    cases = small(tmp_path)
    command = ["optimise", str(cases), str(tmp_path / "work"), "--volume", "0.6", "--no-pictures"]
    command += ["--steps", str(STEPS), "--on", processes.address, "--vk-rund", str(VK_RUND)]
    told = runner.invoke(app, command)
    assert told.exit_code == 0, told.output
    assert equal_steps(tmp_path / "work", alone)


def test_only_the_levels_are_sent_again(tmp_path, processes, alone, monkeypatch):
    """Workers that don't see the directory get the model once."""
    sent: list[str] = []
    send = Sender._send

    def noting(self: Sender, path: Path, digest: str) -> None:
        sent.append(path.name)
        send(self, path, digest)

    monkeypatch.setattr(Sender, "_send", noting)
    monkeypatch.setattr(copies, "TOKEN", "elsewhere")
    cases = small(tmp_path)
    optimise(
        cases, tmp_path / "work", volume=0.6, steps=STEPS, vk_rund=VK_RUND, on=processes.address
    )
    assert equal_steps(tmp_path / "work", alone)
    assert sorted(sent) == sorted([*copies.SHARED_FILES, *[formats.file_names.TP] * (STEPS - 1)])


def test_a_killed_loop_goes_on_on_workers(tmp_path, processes, alone):
    """Killed in the solve of its second step, of which nothing has come back by then.

    With a part of it in place the rest would begin from other displacements.
    """
    cases = small(tmp_path)
    second, begun = history.levels_file(tmp_path / "work", 2), tmp_path / "begun"
    stuck = f'[ ! -e {second} ] || {{ touch {begun}; exec sleep 600; }}\nexec "$real" "$1"'
    command = [sys.executable, "-m", "vkctl", "optimise", str(cases), str(tmp_path / "work")]
    command += ["--volume", "0.6", "--no-pictures", "--steps", str(STEPS)]
    command += ["--on", processes.address, "--vk-rund", str(script(tmp_path / "stuck", stuck))]
    loop = subprocess.Popen(command)
    awaited(begun.exists)
    loop.send_signal(signal.SIGKILL)
    loop.wait()
    optimise(
        cases, tmp_path / "work", volume=0.6, steps=STEPS, vk_rund=VK_RUND, on=processes.address
    )
    assert equal_steps(tmp_path / "work", alone)


LIMITED = """goal = "mass"
mode = "iterative"
reduction = 0.1
steps = 3

[optimise.limits]
stress = { at_most = 2.0, away_from = ["wall", "tip"], distance = 1.5 }
displacement = { set = "tip", direction = [0, -1, 0], at_most = 70, load_case = "down" }
"""
HEATED = """
[loads.warm]
type = "temperature"
set = "far"
value = 2.0

[[load_case]]
name = "warm"
loads = ["warm", "down"]
"""


def heated(folder: Path) -> Path:
    cases = write_small(folder, "reduction = 0.1\nsteps = 3\nvolume = 0.7\n", TWO_CASES + HEATED)
    cases.write_text(cases.read_text().replace("nu = 0.3", "nu = 0.3\ninitial_strain = 0.5"))
    return cases


def limited(folder: Path) -> Path:
    return write_small(folder, LIMITED, TWO_CASES)


@pytest.mark.parametrize("written", [limited, heated])
@pytest.mark.parametrize("seen", [True, False])
def test_adjoint_load_cases_too_are_solved_on_workers(
    tmp_path, processes, monkeypatch, written, seen
):
    """And none here, where there need be no solver."""
    if not seen:
        monkeypatch.setattr(copies, "TOKEN", "elsewhere")
    here, there = (written(tmp_path / where) for where in ("here", "there"))
    whole = optimise(here, here.parent / "work", vk_rund=VK_RUND)
    monkeypatch.setattr("vkctl.optimise.runs.run", None)
    done = optimise(there, there.parent / "work", vk_rund=VK_RUND, on=processes.address)
    assert equal_steps(here.parent / "work", there.parent / "work")
    assert done.told == whole.told and len(done.rows) == 3
    folders = [history.folder_of(cases.parent / "work") for cases in (here, there)]
    adjoints = [sorted(path.name for path in folder.glob("adjoint*")) for folder in folders]
    assert adjoints[0] == adjoints[1] != []


def test_a_loop_with_limits_that_was_killed_goes_on_on_workers_or_here(tmp_path, processes):
    """Adjoint load cases that were cut off begin with what they had: to the solver's tolerance."""
    whole = limited(tmp_path / "whole")
    expected = optimise(whole, whole.parent / "work", vk_rund=VK_RUND)
    cases = limited(tmp_path / "killed")
    work = cases.parent / "work"
    command = [sys.executable, "-m", "vkctl", "optimise", str(cases), str(work), "--no-pictures"]
    command += ["--on", processes.address, "--vk-rund", str(VK_RUND)]
    for reached in (
        lambda: list(history.folder_of(work).glob("adjoint/ws.*")),
        history.levels_file(work, 3).exists,
    ):
        loop = subprocess.Popen(command)
        awaited(reached)
        loop.send_signal(signal.SIGKILL)
        loop.wait()
    done = optimise(cases, work, vk_rund=VK_RUND)
    assert done.levels == pytest.approx(expected.levels, abs=1e-3)
    assert len(done.rows) == len(expected.rows) == 3


def test_a_wrong_place_is_refused_before_anything_is_made(tmp_path):
    cases = small(tmp_path)
    told = runner.invoke(app, ["optimise", str(cases), str(tmp_path / "work"), "--on", "local:0"])
    assert told.exit_code == 2 and "1 to 256 workers" in told.stderr
    assert not (tmp_path / "work").exists()


# A solver that fails under a condition: the mode is in "$mode", the number of the run in "$number".
FAILING = """
mode=$(sed -n 's/^Sys.ComputationMode=//p' "$1/vk_rund_cmd.txt")
number=$(echo "$mode" >> {asked}; wc -l < {asked})
if {condition}; then
  printf 'Info<Msg:Tool.vk_rund.Start >\\nData<Key:LCaseId><Value:1>\\n' > "$1/vk_rund_log.txt"
  printf 'Error<Msg:{message} >\\n' >> "$1/vk_rund_log.txt"
  exit 242
fi
{solve}
"""
WELL = 'exec "$real" "$1"'
NO_CONVERGENCE = "No convergence in static response analysis process."
# Aside, since what the log tells of is taken at once.
POOR = """
[ "$mode" = 1 ] || exec "$real" "$1"
aside="$1.aside"
rm -rf "$aside" && cp -rL "$1" "$aside" && "$real" "$aside" || exit
printf '\\315\\314\\114\\077' | dd of="$aside/ws.comval.0001" bs=1 seek=8 conv=notrunc 2> /dev/null
rm "$aside/ws.sstate.0001"
mv "$aside"/ws.* "$aside/mxs.lcflags" "$aside/vk_rund_log.txt" "$1"
"""


@pytest.mark.parametrize("seen", [True, False])
@pytest.mark.parametrize(
    ("condition", "message", "solve", "asked"),
    [
        ('[ "$mode" = 1 ]', NO_CONVERGENCE, WELL, ["1", "2"] * 2),
        ('[ "$number" = 2 ] || [ "$number" = 3 ]', NO_CONVERGENCE, WELL, ["1", "1", "2", "1"]),
        ("false", "", POOR, ["1", "2"] * 2),
    ],
)
def test_a_step_that_fails_is_retried_as_on_one_machine(
    tmp_path, processes, monkeypatch, seen, condition, message, solve, asked
):
    """With a factor, and then with a smaller move; workers see the directory or don't."""
    if not seen:
        monkeypatch.setattr(copies, "TOKEN", "elsewhere")
    loops = {}
    for where in (None, processes.address):
        folder = tmp_path / ("here" if where is None else "there")
        cases = write_small(folder, "reduction = 0.15\nsteps = 2\nmode = 'iterative'\n")
        noted = folder / "asked"
        words = {"condition": condition, "message": message, "solve": solve, "asked": noted}
        text = FAILING
        for name, word in words.items():
            text = text.replace(f"{{{name}}}", str(word))
        solver = script(folder / "solver", text)
        loops[where] = optimise(cases, folder / "work", vk_rund=solver, on=where)
        assert noted.read_text().split() == asked
    here, there = loops.values()
    assert [row.mode for row in here.rows] == [row.mode for row in there.rows]
    assert here.levels == pytest.approx(there.levels, abs=1e-4)
