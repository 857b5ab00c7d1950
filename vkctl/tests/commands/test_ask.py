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


def test_a_cut_is_told_with_its_section_and_its_balance(directory: Path) -> None:
    words = ("cut", "--at", "3.3,0,0", "--normal", "-2,0,0")
    lines = asked(directory, *words).splitlines()
    assert "moments about (3.3, 1, 1)" in lines[0]
    assert lines[1].split()[:2] == ["Fx", "[N]"] and "bending [N mm]" in lines[1]
    assert lines[2] == "load case 1, down"
    assert lines[4] == "4 elements are cut; area of the material 4 mm², centre (3.3, 1, 1)"
    found = told(directory, *words)["cuts"][0]  # type: ignore[index]
    assert (found["normal"], found["elements"], found["area"]) == ([-1, 0, 0], 4, pytest.approx(4))
    assert found["behind"]["loads"]["force"] == pytest.approx([0, 0, -4])
    csv_lines = asked(directory, *words, "--csv").splitlines()
    assert csv_lines[0].endswith("axial [N],shear [N],torsion [N mm],bending [N mm]")
    assert [float(cell) for cell in csv_lines[1].split(",")[2:5]] == found["resultant"]["force"]


def test_values_at_points_and_along_a_line_have_units(directory: Path) -> None:
    point = asked(directory, "point", "--at", "3,1,1", "--at", "6,1,1", "--case", "down")
    assert "displacement_z [mm]" in point and "von_mises [MPa]" in point
    values = told(directory, "point", "--at", "3,1,1", "--field", "displacement_z")
    assert values["values"][0]["values"] == [[pytest.approx(-0.0025)]]  # type: ignore[index]
    line = ("line", "--from", "0,1,1", "--to", "8,1,1", "--points", "5", "--field", "magnitude")
    rows = list(csv.reader(io.StringIO(asked(directory, *line, "--csv"))))
    assert rows[0][2:] == [
        "distance [mm]",
        "x [mm]",
        "y [mm]",
        "z [mm]",
        "element",
        "magnitude [mm]",
    ]
    assert [row[2] for row in rows[1:]] == ["0.0", "2.0", "4.0", "6.0", "8.0"]
    assert rows[-1][-2:] == ["", ""] and float(rows[-2][-1]) == pytest.approx(0.01)
    assert "1 of 5 points have no values: (8, 1, 1) lies outside" in asked(directory, *line)


def test_the_mass_needs_no_run(directory: Path, tmp_path: Path) -> None:
    assert asked(directory, "mass").splitlines()[4].split() == ["mass", "1.884e-07", "t"]
    solved_box(tmp_path)
    for path in tmp_path.glob("ws.*"):
        path.unlink()
    found = told(tmp_path, "mass")
    assert found["mass"][0]["volume"] == pytest.approx(24.0, rel=1e-5)  # type: ignore[index]
    assert found["mass"][0]["mass"] is None and found["units"] is None  # type: ignore[index]
    assert "tells no density of material 1" in asked(tmp_path, "mass")


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
        ("--json --csv", "--json and --csv print the same answer"),
        ("cut --at 3,0,0", "cut takes one point of the plane by --at and its direction"),
        ("cut --at 3,0,0 --normal 0,0,0", "the normal of a plane can't be (0, 0, 0)"),
        ("cut --at 9,0,0 --normal 1,0,0", "the plane cuts no element"),
        ("cut --at 3,0,0 --normal 1,0,0 --set wall", "'wall' is a node set; a set of elements"),
        ("point", "point takes one or more points by --at"),
        ("point --at 9,1,1", "(9, 1, 1) lies outside of the mesh; the nearest node is"),
        ("line --from 0,0,0", "line takes its ends by --from and --to"),
        ("line --from 0,0,0 --to 0,0,0", "the line begins where it ends"),
        ("line --from 0,0,0 --to 1,0,0 --points 1", "a line of 1 points is none"),
        ("line --from 0,0,0 --to 1,0,0 --points 0", "a line of 0 points is none"),
        ("mass --points 0", "mass has no use for --points"),
        ("line --from 9,0,0 --to 10,0,0", "lies outside of the mesh"),
        ("mass --case 1", "mass has no use for --case"),
        ("reactions --nodes", "reactions has no use for --nodes"),
        ("extremes --about 1,2,3", "extremes has no use for --about"),
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
