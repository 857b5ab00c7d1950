"""The cantilever and the command line around it."""

import json

from results_on_disk import named, solved_box
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory.results import read_results
from vkctl.directory.summary import summary

runner = CliRunner()


def test_command_summary(tmp_path):
    assert runner.invoke(app, ["summary", str(tmp_path)]).exit_code == 2
    solved_box(tmp_path)
    result = runner.invoke(app, ["summary", str(tmp_path)])
    assert result.exit_code == 0
    assert result.output == summary(tmp_path) + "\n"
    told = json.loads(runner.invoke(app, ["summary", "--json", str(tmp_path)]).stdout)
    number = told["results"][0]["load_case"]
    assert told["results"][0]["strain_energy"] == read_results(tmp_path, number).strain_energy
    assert set(told["log"]) == {"load_cases", "error", "seconds"}
    assert told["units"] is None and told["results"][0]["name"] == ""


def test_load_cases_have_their_names_and_numbers_their_units(tmp_path):
    solved_box(tmp_path)
    named(tmp_path, "größte Böe")
    text = summary(tmp_path)
    assert "load case 1, größte Böe: iterative, 17 iterations" in text
    assert "results of load case 1, größte Böe:\n  largest displacement 0.01 mm" in text
    assert "-2 to 3 MPa" in text and text.count(" mJ") == 1
    assert "sum of loads         (0, 0, -4) N" in text
    told = json.loads(runner.invoke(app, ["summary", "--json", str(tmp_path)]).stdout)
    assert told["units"] == "mm-N-MPa"
    assert [one["name"] for one in (*told["results"], *told["log"]["load_cases"])] == 2 * [
        "größte Böe"
    ]
    watched = runner.invoke(app, ["watch", str(tmp_path)])
    assert "load case 1, größte Böe: iterative" in watched.stdout


def test_differences_tell_the_name_of_their_load_case(tmp_path):
    for name, deflection in (("a", 0.01), ("b", 0.02)):
        (tmp_path / name).mkdir()
        solved_box(tmp_path / name, deflection)
    named(tmp_path / "a", "pull")
    told = runner.invoke(app, ["diff", str(tmp_path / "a"), str(tmp_path / "b")])
    assert told.exit_code == 1 and "load case 1, pull, displacements: " in told.stdout


def test_limits_and_sets_belong_to_the_safety_and_have_to_be_there(tmp_path):
    solved_box(tmp_path)
    for words, said in (
        (["--limit", "3"], "belong to --safety"),
        (["--safety", "--limit", "steel=x"], "'x' is no positive stress"),
        (["--safety", "--limit", "0"], "'0' is no positive stress"),
        (["--safety", "--limit", "nan"], "'nan' is no positive stress"),
        (["--safety", "--limit", "steel=3"], "there is no isotropic material 'steel'"),
        (["--safety", "--limit", "3", "--set", "top"], "there is no set 'top'"),
    ):
        told = runner.invoke(app, ["summary", str(tmp_path), *words])
        assert told.exit_code == 2 and said in told.stderr, words
