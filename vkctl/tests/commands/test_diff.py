"""Comparing results: tolerances by quantity, worst places, and what can't be compared."""

import json

import pytest
from results_on_disk import change
from typer.testing import CliRunner

from vkctl.cli import app

runner = CliRunner()


def test_the_command_tells_equality_difference_and_impossibility_by_its_status(pair, tmp_path):
    first, second = map(str, pair)
    same = runner.invoke(app, ["diff", first, second])
    assert same.exit_code == 0 and "Equal within the tolerances: 2 load cases." in same.output
    change(pair[1], "stress", 1, 15, 1.01)
    other = runner.invoke(app, ["diff", first, second])
    assert other.exit_code == 1
    assert "load case 1, stress: 1 of 16 nodes differ, at most by 0.03" in other.output
    assert "worst: node 16 at (" in other.output
    told = json.loads(runner.invoke(app, ["diff", first, second, "--json"]).stdout)
    assert told["equal"] is False and told["differences"][0]["worst"][0]["number"] == 16
    assert runner.invoke(app, ["diff", first, second, "--rtol", "stress=0.02"]).exit_code == 0
    wide = ["--rtol", "0.02", "--rtol", "stress=1e-3"]
    assert runner.invoke(app, ["diff", first, second, *wide]).exit_code == 1
    assert runner.invoke(app, ["diff", first, second, "--atol", "0.1"]).exit_code == 0
    nothing = runner.invoke(app, ["diff", first, str(tmp_path)])
    assert nothing.exit_code == 2 and "No load case has results in both" in nothing.stderr


@pytest.mark.parametrize("value", ["stres=1", "much"])
def test_a_tolerance_that_makes_no_sense_is_refused(pair, value):
    result = runner.invoke(app, ["diff", *map(str, pair), "--rtol", value])
    assert result.exit_code == 2 and "--rtol" in result.stderr
