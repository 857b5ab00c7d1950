"""The cantilever and the command line around it."""

from results_on_disk import solved_box
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory.summary import summary

runner = CliRunner()


def test_command_summary(tmp_path):
    assert runner.invoke(app, ["summary", str(tmp_path)]).exit_code == 2
    solved_box(tmp_path)
    result = runner.invoke(app, ["summary", str(tmp_path)])
    assert result.exit_code == 0
    assert result.output == summary(tmp_path) + "\n"
