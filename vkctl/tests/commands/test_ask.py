"""The command `vkctl ask`: what it prints, and what it refuses."""

from __future__ import annotations

import csv
import io
import json
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from results_on_disk import solved_box
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.formats import CaseNotes, Condition, NamedSet, NotedCase
from vkctl.directory.model import LoadCase, read, set_flags, write

runner = CliRunner()


@pytest.fixture(scope="module")
def directory(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A box with a solved load case and one that isn't, and what a case file called things."""
    target = tmp_path_factory.mktemp("asked")
    solved_box(target)
    model = read(target)
    wall = np.flatnonzero(model.nodes[:, 0] == 0.0) + 1
    model.sets = [NamedSet("wall", "node", wall)]
    model.load_cases.append(LoadCase().prescribe(wall))
    model.notes = CaseNotes(
        "mm-N-MPa",
        (7.85e-9,),
        {"wall": Condition("fixed", ("wall",))},
        {},
        (NotedCase("down", ("wall",)), NotedCase("rest", ("wall",))),
    )
    model.load_cases[0].flags = formats.LOADCASE_REQUESTED | formats.LOADCASE_DONE
    write(replace(model, run_order=None), target)
    return target


def asked(directory: Path, *words: str) -> str:
    result = runner.invoke(app, ["ask", str(directory), *words])
    assert result.exit_code == 0, result.output
    return result.stdout


def told(directory: Path, *words: str) -> dict[str, object]:
    values: dict[str, object] = json.loads(asked(directory, *words, "--json"))
    return values


def test_reactions_are_printed_with_names_units_and_balance(directory: Path) -> None:
    lines = asked(directory, "reactions").splitlines()
    assert lines[0].startswith("reactions") and "about the origin" in lines[0]
    assert "Fx [N]" in lines[1] and "Mz [N mm]" in lines[1]
    assert lines[2] == "load case 1, down"
    assert lines[3].split()[:3] == ["wall", "fixed", "9"]
    assert [line.split()[0] for line in lines[4:7]] == ["all", "all", "left"]
    assert "left over" in lines[7]
    # The box's displacements are made up: its loads aren't those that they belong to.
    assert "has it converged" in lines[8]
    assert lines[-1] == "load case 2, rest hasn't been solved"


def test_the_same_numbers_come_as_json_and_as_csv(directory: Path) -> None:
    values = told(directory, "reactions", "--about", "-1,2,-3")
    assert values["units"]["force"] == "N"  # type: ignore[index]
    first = values["reactions"][0]  # type: ignore[index]
    rows = list(
        csv.DictReader(io.StringIO(asked(directory, "reactions", "--csv", "--about=-1,2,-3")))
    )
    assert [row["support"] for row in rows] == ["wall", "all supports", "all loads", "left over"]
    assert rows[0]["load case name"] == "down"
    resultant = first["supports"][0]["resultant"]
    assert [float(rows[0][f"F{axis} [N]"]) for axis in "xyz"] == resultant["force"]
    assert [float(rows[0][f"M{axis} [N mm]"]) for axis in "xyz"] == resultant["moment"]
    assert first["about"] == [-1.0, 2.0, -3.0]


def test_extremes_and_envelopes_tell_node_and_place(directory: Path) -> None:
    shown = asked(directory, "extremes", "--field", "magnitude", "--set", "wall", "--case", "down")
    assert shown.splitlines()[-1].split()[:3] == ["wall", "magnitude", "largest"]
    top = told(directory, "extremes", "--field", "magnitude")["extremes"][0]  # type: ignore[index]
    assert (top["set"], top["place"][0]) == ("whole part", 6.0)
    assert top["value"] == pytest.approx(0.01)
    over = told(directory, "envelope", "--field", "magnitude")["envelopes"][0]  # type: ignore[index]
    assert over["extremes"][0]["load_case"] == 1
    nodes = asked(directory, "envelope", "--field", "magnitude", "--nodes", "--csv").splitlines()
    assert nodes[0] == (
        "node,x [mm],y [mm],z [mm],largest magnitude [mm],load case of largest,"
        "smallest magnitude [mm],load case of smallest"
    )
    assert len(nodes) == 1 + 63


def test_without_a_question_an_overview_is_printed(directory: Path) -> None:
    shown = asked(directory)
    assert "reactions" in shown and "extremes" in shown and "whole part" in shown
    assert {"reactions", "extremes", "units"} <= set(told(directory))


@pytest.mark.parametrize(
    ("words", "sentence"),
    [
        ("reactions --case 7", "there is no load case 7; the directory has 2"),
        ("reactions --case dwn", "there is no load case 'dwn'; did you mean 'down'?"),
        ("reactions --case rest", "load case 2, rest hasn't been solved; vkctl run"),
        ("reactions --about 1,2", "'1,2' is no point: three numbers as X,Y,Z are wanted"),
        ("reactions --about 1,2,nan", "'1,2,nan' is no point"),
        ("extremes --set wal", "there is no set 'wal'; did you mean 'wall'?"),
        ("extremes --field mises", "there is no field 'mises'"),
        ("--csv", "--csv prints one table"),
    ],
)
def test_what_has_no_answer_is_refused_in_a_sentence(
    directory: Path, words: str, sentence: str
) -> None:
    result = runner.invoke(app, ["ask", str(directory), *words.split()])
    assert result.exit_code == 2
    assert sentence in result.stderr
    assert "defect" not in result.stderr


def test_a_directory_that_is_not_solved_is_refused(tmp_path: Path) -> None:
    solved_box(tmp_path)
    for path in tmp_path.glob("ws.*"):
        path.unlink()
    result = runner.invoke(app, ["ask", str(tmp_path)])
    assert result.exit_code == 2 and "load case 1 hasn't been solved" in result.stderr
    assert runner.invoke(app, ["ask", str(tmp_path / "none")]).exit_code == 2


def test_a_support_at_a_node_that_is_not_there_is_refused(tmp_path: Path) -> None:
    solved_box(tmp_path)
    records = formats.read_loadcase_map(tmp_path, 1)
    records.constraints["Node"][0] = 999
    formats.write_loadcase_map(tmp_path, 1, records)
    result = runner.invoke(app, ["ask", str(tmp_path), "reactions"])
    assert result.exit_code == 2
    assert "load case 1 has a support at node 999, of 63" in result.stderr


def rewritten(tmp_path: Path, **changes: object) -> Path:
    """A solved box of which a run would go on."""
    solved_box(tmp_path)
    model = read(tmp_path)
    model.load_cases[0].flags = formats.LOADCASE_REQUESTED | formats.LOADCASE_DONE
    write(replace(model, run_order=None, **changes), tmp_path)  # type: ignore[arg-type]
    return tmp_path


def test_results_that_a_run_will_replace_are_told_as_those_of_an_earlier_one(
    tmp_path: Path,
) -> None:
    assert told(rewritten(tmp_path))["remarks"] == []
    set_flags(tmp_path, clear_done=True)
    remark = "load case 1 is to be solved again: these are results of an earlier run"
    assert told(tmp_path)["remarks"] == [remark]
    assert asked(tmp_path).splitlines()[-1] == remark


def test_results_of_load_cases_that_are_gone_are_nobodys(tmp_path: Path) -> None:
    rewritten(tmp_path)
    for path in list(tmp_path.glob("ws.*.0001")):
        path.with_suffix(".0005").write_bytes(path.read_bytes())
    assert len(told(tmp_path)["reactions"]) == 1  # type: ignore[arg-type]


def test_a_load_case_with_undefined_displacements_has_no_answers(tmp_path: Path) -> None:
    rewritten(tmp_path)
    shift = formats.read_displacements(tmp_path, 1).copy()
    shift[5] = np.nan
    formats.write_displacements(tmp_path, 1, shift)
    result = runner.invoke(app, ["ask", str(tmp_path)])
    assert result.exit_code == 2
    assert "load case 1 left displacements that aren't all numbers" in result.stderr
