"""The command `vkctl demo`."""

import sys

import matplotlib.image
import pytest
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory.model import read
from vkctl.prepare import cantilever
from vkctl.running.run import NotFoundError

runner = CliRunner()


@pytest.fixture
def small_cantilever(monkeypatch):
    monkeypatch.setattr(cantilever, "CELLS", (4, 2, 2))


def test_command_demo_solves_and_draws_with_the_solver_that_is_found(tmp_path, small_cantilever):
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0, result.output
    assert "results of load case 2, twisted:" in result.stdout
    assert "deformed.png" in result.stdout.replace("\n", "")  # a long path is broken into lines
    assert matplotlib.image.imread(tmp_path / "deformed.png").ndim == 3


def test_command_demo_without_a_solver_only_writes(tmp_path, small_cantilever, monkeypatch):
    def nothing_found(given=None):
        raise NotFoundError("vk_rund was not found: give its path")

    monkeypatch.setattr("vkctl.running.run.find_vk_rund", nothing_found)
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0
    assert "not solved: vk_rund was not found: give its path" in result.stdout
    assert len(read(tmp_path).load_cases) == 2


def test_command_demo_without_matplotlib_says_how_to_get_pictures(
    tmp_path, small_cantilever, monkeypatch
):
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0, result.output
    assert "no picture: This needs Matplotlib: pip install 'vkctl[view]'" in result.stdout
    assert "results of load case 2, twisted:" in result.stdout


def test_command_demo_tells_a_solver_that_fails_or_is_missing(tmp_path, small_cantilever):
    failing = tmp_path / "failing"
    failing.write_text("#!/bin/sh\nexit 7\n")
    failing.chmod(0o755)
    result = runner.invoke(app, ["demo", str(tmp_path / "d"), "--vk-rund", str(failing)])
    assert result.exit_code == 2
    assert "status 7" in result.stderr
    absent = runner.invoke(app, ["demo", str(tmp_path / "d"), "--vk-rund", "/no/such/vk_rund"])
    assert absent.exit_code == 2
    assert "There is no program /no/such/vk_rund" in absent.stderr
