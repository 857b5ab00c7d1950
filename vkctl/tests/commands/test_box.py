"""The cantilever and the command line around it."""

import json

import numpy as np
import pytest
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory.model import read

runner = CliRunner()


def test_command_box_writes_a_directory(tmp_path):
    result = runner.invoke(
        app, ["box", str(tmp_path / "b"), "--kind", "tet10", "--cells", "2", "1", "1"]
    )
    assert result.exit_code == 0, result.output
    assert "45 nodes and 12 elements" in result.output
    model = read(tmp_path / "b")
    assert model.load_cases[0].forces2["Force"].sum(axis=0)[2] == pytest.approx(-16.0)


def test_command_box_refuses_what_it_cannot_make(tmp_path):
    assert runner.invoke(app, ["box", str(tmp_path), "--kind", "tri"]).exit_code == 2
    assert runner.invoke(app, ["box", str(tmp_path), "--cells", "0", "1", "1"]).exit_code == 2


def test_command_box_tells_as_json_what_it_wrote(tmp_path):
    told = runner.invoke(app, ["box", str(tmp_path), "--cells", "2", "1", "1", "--json"])
    counts = {"nodes": len(read(tmp_path).nodes), "elements": len(read(tmp_path).elements)}
    assert json.loads(told.stdout) == {"directory": str(tmp_path), **counts}


def test_command_box_numbers_hexahedra_as_new_does(tmp_path):
    command = ["box", str(tmp_path), "--kind", "hex8", "--cells", "4", "2", "2"]
    size = ["--size", "4", "2", "2", "--traction", "0", "0", "-1"]
    assert runner.invoke(app, [*command, *size]).exit_code == 0
    found = read(tmp_path)
    assert np.count_nonzero(np.diff(found.nodes.sum(axis=1) % 2)) == 1
    loads = found.load_cases[0].forces2
    assert (found.nodes[loads["Node"] - 1, 0] == 4).all() and len(loads) == 9
    assert loads["Force"].sum(axis=0) == pytest.approx((0, 0, -4))
    assert (found.nodes[found.load_cases[0].constraints["Node"] - 1, 0] == 0).all()
