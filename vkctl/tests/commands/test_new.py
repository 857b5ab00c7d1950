"""Models from parts and case files, solved and compared with closed forms."""

from __future__ import annotations

import io
import json
import re
import textwrap
from pathlib import Path
from types import SimpleNamespace

import numpy as np
import pytest
from new_parts import case_file
from rich.console import Console
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.commands.new import cleaned_sums, show_cases, values
from vkctl.directory import model
from vkctl.directory.model import LoadCase
from vkctl.prepare import build

DIRECTORY = "run"


def test_the_command_writes_lists_sets_and_tells_mistakes(block: Path, tmp_path: Path) -> None:
    runner = CliRunner()
    text = '[loads.f]\ntype = "force"\nset = "tip"\nvalue = [0, 0, -5]\n'
    cases = str(case_file(tmp_path, text + "[node_sets.tip]\nnearest = [4, 2, 1]\n"))
    directory = tmp_path / DIRECTORY
    done = runner.invoke(app, ["new", str(block), cases, str(directory)])
    assert done.exit_code == 0, done.output
    assert "84 nodes, 36 elements, 0 design points, 1 load case of 1 pattern in" in done.output
    assert "-5" in done.output
    assert model.read(directory).load_cases[0].will_run
    listed = runner.invoke(app, ["new", str(block), cases, "--list-sets"])
    assert listed.exit_code == 0 and "surface:" in listed.output and "tip" in listed.output
    bad = runner.invoke(app, ["new", str(block), str(case_file(tmp_path, text)), str(directory)])
    assert bad.exit_code == 2 and "cases.toml:" in bad.output and "no set 'tip'" in bad.output
    gone = runner.invoke(app, ["new", "gone.msh", cases, str(directory)])
    assert gone.exit_code == 2 and "gone.msh: no such file" in gone.output
    assert runner.invoke(app, ["new", str(block), cases]).exit_code == 2


LONG = "a load case with a name that takes half of a line of the terminal"


@pytest.mark.parametrize("width", [60, 80, 200])
def test_names_and_numbers_of_load_cases_are_whole_on_terminals_of_any_width(
    block: Path, tmp_path: Path, width: int
) -> None:
    loads = '[loads.f]\ntype = "force"\nset = "tip"\nvalue = [-1.2345e-7, 2.3456e-7, -5.6789e7]\n'
    entries = "".join(f'[[load_case]]\nname = "{name}"\nloads = ["f"]\n' for name in ("a", LONG))
    cases = case_file(tmp_path, loads + '[node_sets.tip]\nwhere = "x > 3.9"\n' + entries)
    shown = io.StringIO()
    show_cases(Console(file=shown, width=width), build(block, cases))
    lines = shown.getvalue().splitlines()
    assert any(LONG in line for line in lines)
    assert sum("-5.679e+07" in line for line in lines) == 2
    assert "\u2026" not in shown.getvalue()


def test_the_table_of_the_tutorial_is_what_a_terminal_of_80_columns_shows(tmp_path: Path) -> None:
    page = Path(__file__).resolve().parents[3] / "docs" / "tutorial.md"
    shown = re.search(r"\n( +load case +pattern.*?)\n\n", page.read_text(), re.DOTALL)
    assert shown is not None
    head, rule, *rows = textwrap.dedent(shown[1]).splitlines()
    assert max(map(len, (head, rule, *rows))) <= 78 and set(rule) == {"\u2500"}
    cells = [row.split() for row in rows]
    sums = [[float(word) for word in line[-6:]] for line in cells]
    names = [" ".join(line[1:-7]) for line in cells]
    prepared = SimpleNamespace(
        case_names=names,
        model=SimpleNamespace(
            load_cases=[LoadCase(pattern=int(line[-7])).load([1], (1e4, 0, 0)) for line in cells],
            nodes=np.full((1, 3), 120.0),
        ),
        resultants=np.array(sums),
    )
    printed = io.StringIO()
    show_cases(Console(file=printed, width=80), prepared)  # type: ignore[arg-type]
    lines = [line.rstrip() for line in printed.getvalue().splitlines()]
    assert [line[1:] for line in lines if line] == [head, rule, *rows]


def test_forces_that_cancel_each_other_sum_up_to_nothing_for_people_alone(
    block: Path, tmp_path: Path
) -> None:
    loads = (
        '[loads.f]\ntype = "force"\nset = "a"\nvalue = [0.1, 0.7, 0.3]\n'
        '[loads.g]\ntype = "force"\nset = "b"\nvalue = [-0.1, -0.7, -0.3]\n'
        '[node_sets.a]\nwhere = "x > 3.9 and z > 0.9"\n'
        '[node_sets.b]\nwhere = "x > 3.9 and y > 0.9"\n'
    )
    prepared = build(block, case_file(tmp_path, loads))
    assert prepared.resultants[0][:3].any()  # noise of the numbers' precision
    assert not cleaned_sums(prepared, 1)[:3].any()
    assert values(prepared)["load_cases"][0]["force"] == prepared.resultants[0][:3].tolist()


def test_what_is_written_and_the_sets_come_as_json(block: Path, tmp_path: Path) -> None:
    loads = '[loads.f]\ntype = "force"\nset = "tip"\nvalue = [0, 0, -5]\n'
    tip = "[node_sets.tip]\nnearest = [4, 2, 1]\n"
    case = '[[load_case]]\nname = "down"\nloads = { f = 2 }\n'
    words = ["new", str(block), str(case_file(tmp_path, loads + tip + case)), str(tmp_path / "d")]
    told = json.loads(CliRunner().invoke(app, [*words, "--json"]).stdout)
    written = model.read(tmp_path / "d")
    assert told["directory"] == str(tmp_path / "d")
    assert (told["nodes"], told["elements"]) == (len(written.nodes), len(written.elements))
    (only,) = told["load_cases"]
    assert (only["load_case"], only["name"], only["pattern"]) == (1, "down", 1)
    assert only["force"] == pytest.approx([0, 0, -10])
    assert only["moment"] == pytest.approx([-20, 40, 0])
    listed = json.loads(CliRunner().invoke(app, [*words[:3], "--list-sets", "--json"]).stdout)
    (found,) = [one for one in listed["sets"] if one["name"] == "tip"]
    assert found == {"name": "tip", "kind": "node", "size": 1, "from": [4, 2, 1], "to": [4, 2, 1]}
