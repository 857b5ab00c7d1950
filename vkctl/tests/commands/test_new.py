"""Models from parts and case files, solved and compared with closed forms."""

from __future__ import annotations

from pathlib import Path

from new_parts import case_file
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import model

DIRECTORY = "run"


def test_the_command_writes_lists_sets_and_tells_mistakes(block: Path, tmp_path: Path) -> None:
    runner = CliRunner()
    text = '[loads.f]\ntype = "force"\nset = "tip"\nvalue = [0, 0, -5]\n'
    cases = str(case_file(tmp_path, text + "[node_sets.tip]\nnearest = [4, 2, 1]\n"))
    directory = tmp_path / DIRECTORY
    done = runner.invoke(app, ["new", str(block), cases, str(directory)])
    assert done.exit_code == 0, done.output
    assert "84 nodes, 36 elements, 0 design points, 1 load cases of 1 patterns" in done.output
    assert "-5" in done.output
    assert model.read(directory).load_cases[0].will_run
    listed = runner.invoke(app, ["new", str(block), cases, "--list-sets"])
    assert listed.exit_code == 0 and "surface:" in listed.output and "tip" in listed.output
    bad = runner.invoke(app, ["new", str(block), str(case_file(tmp_path, text)), str(directory)])
    assert bad.exit_code == 2 and "cases.toml:" in bad.output and "no set 'tip'" in bad.output
    gone = runner.invoke(app, ["new", "gone.msh", cases, str(directory)])
    assert gone.exit_code == 2 and "gone.msh: no such file" in gone.output
    assert runner.invoke(app, ["new", str(block), cases]).exit_code == 2
