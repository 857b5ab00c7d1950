"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

import json
import os
import re
from pathlib import Path

import pytest
from rich.console import Console
from small_loops import VK_RUND, script, write_small
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.commands import optimise as commands_optimise
from vkctl.optimise import StepShown, read_history
from vkctl.running.progress import Tracker

ROOT = Path(__file__).resolve().parents[3]


def test_the_command_prints_a_line_per_step_and_the_end(drawn: tuple[Path, str]) -> None:
    lines = drawn[1].splitlines()
    assert re.match(r"step 1 of 4, objective [\d.]+, volume 1.000, target 1.000, ", lines[0])
    assert [line.split(",")[0] for line in lines[:4]] == [f"step {k} of 4" for k in range(1, 5)]
    # Four steps are too few: the objective trebles in the last one, and it is told why.
    assert lines[4] == lines[6] and lines[4].startswith(
        "the design has fallen apart: nothing joins"
    )
    assert lines[5].startswith("ended at the step limit after 4 steps: objective ")
    assert 20 < float(re.search(r", ([\d.]+) % of the elements cut$", lines[5])[1]) < 80  # type: ignore[index]
    assert lines[7].startswith("the part is 3 pieces, of which 1 carry")
    assert len(lines) == 9


def test_a_terminal_sees_the_steps_and_what_the_solver_does(drawn: tuple[Path, str]) -> None:
    directory = drawn[0].parent
    progress = Tracker(directory).update()
    progress.stage = "factorising"
    steps = [
        StepShown(row, 9, None)  # type: ignore[arg-type]
        for row in read_history(directory)
    ]
    console = Console(width=100, record=True, file=open(os.devnull, "w"))
    console.print(commands_optimise.table(steps, (5, progress)))
    text = console.export_text()
    assert re.search(r"step +objective +volume +target +change +quality +time", text)
    assert re.search(r"4 of 9 +[\d.]+ +0\.\d{3} +0\.600", text)
    assert "step 5: load case 2, along, factorising; 2 of 2 load cases" in text


def test_the_steps_come_as_json_and_nothing_else(tmp_path: Path) -> None:
    command = ["optimise", str(write_small(tmp_path)), str(tmp_path / "d"), "--steps", "2"]
    options = ["--no-pictures", "--json", "--vk-rund", str(VK_RUND)]
    told = json.loads(CliRunner().invoke(app, [*command, *options]).stdout)
    assert told["directory"] == str(tmp_path / "d") and told["converged"] is False
    assert told["pieces"] >= told["carrying"] and 0.0 <= told["cut"] <= 1.0
    rows = read_history(tmp_path / "d")
    assert [step["step"] for step in told["steps"]] == [1, 2]
    for step, row in zip(told["steps"], rows, strict=True):
        assert step["objective"] == pytest.approx(row.objective, rel=1e-6)
        assert step["volume"] == pytest.approx(row.volume, rel=1e-6)


@pytest.mark.parametrize(
    ("text", "status", "words"),
    [("exit 242", 242, "step 1: "), ("kill -9 $$", 137, "step 1: "), (None, 127, "no program")],
)
def test_the_command_tells_how_the_solver_failed(
    tmp_path: Path, text: str | None, status: int, words: str
) -> None:
    cases = write_small(tmp_path)
    program = script(tmp_path / "program", text) if text else tmp_path / "nothing"
    shown = CliRunner().invoke(
        app, ["optimise", str(cases), str(tmp_path / "d"), "--vk-rund", str(program)]
    )
    assert shown.exit_code == status
    assert words in shown.output


def test_the_command_refuses_a_wrong_case_file(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "volume = 2\n")
    shown = CliRunner().invoke(app, ["optimise", str(cases), str(tmp_path / "d")])
    assert shown.exit_code == 2
    assert "cases.toml:" in shown.output and "at most 1" in shown.output
    assert not (tmp_path / "d").exists()


def test_several_volumes_make_a_row_that_goes_on_where_it_stopped(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 6\nreduction = 0.3\n")
    command = ["optimise", str(cases), str(tmp_path / "d"), "--vk-rund", str(VK_RUND)]
    first = CliRunner().invoke(app, [*command, "--no-pictures", "--volume", "0.9"])
    assert first.exit_code == 0, first.output
    command[2] = str(tmp_path / "row")
    (tmp_path / "row").mkdir()
    (tmp_path / "d").rename(tmp_path / "row" / "volume-0.9")  # as if the row had been killed then
    done = CliRunner().invoke(app, [*command, "--volume", "0.7,0.9"])
    assert done.exit_code == 0, done.output
    assert "step 1 of 6" not in done.output.split("volume 0.7, in")[0]
    lines = (tmp_path / "row" / "pareto.csv").read_text().splitlines()
    assert lines[0] == "target,volume,objective,steps,converged,directory"
    rows = [line.split(",") for line in lines[1:]]
    assert [(row[0], row[-1]) for row in rows] == [("0.9", "volume-0.9"), ("0.7", "volume-0.7")]
    assert float(rows[0][2]) < float(rows[1][2])
    assert (tmp_path / "row" / "pareto.png").read_bytes().startswith(b"\x89PNG")


def test_the_case_file_may_name_several_volumes(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 1\nvolume = [0.7, 0.9]\n")
    command = ["optimise", str(cases), str(tmp_path / "d"), "--vk-rund", str(VK_RUND)]
    done = CliRunner().invoke(app, [*command, "--no-pictures"])
    assert done.exit_code == 0, done.output
    lines = (tmp_path / "d" / "pareto.csv").read_text().splitlines()
    assert [line.split(",")[0] for line in lines[1:]] == ["0.9", "0.7"]
    one = CliRunner().invoke(app, [*command, "--no-pictures", "--volume", "0.9"])
    assert one.exit_code == 0 and "volume-" not in one.output


@pytest.mark.parametrize("text", ["0.5,x", "0", "0.5,1.5", ""])
def test_volumes_that_are_none_are_refused(tmp_path: Path, text: str) -> None:
    cases = write_small(tmp_path)
    command = ["optimise", str(cases), str(tmp_path / "d"), "--volume", text]
    refused = CliRunner().invoke(app, command)
    assert refused.exit_code == 2
    assert "volume" in refused.stderr and not (tmp_path / "d").exists()
