"""The cantilever and the command line around it."""

import json

from results_on_disk import solved_box
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
