"""Following runs that something else started: ended, killed, replaced, or still going on."""

from pathlib import Path

import pytest
from fake_solver import HEAD, TAIL, begun, finished, write_log
from typer.testing import CliRunner

from vkctl.cli import app

runner = CliRunner()


@pytest.fixture(autouse=True)
def short_grace(monkeypatch):
    monkeypatch.setattr("vkctl.running.watch._GRACE", 0.05)


@pytest.mark.parametrize(
    ("lines", "status", "words"),
    [
        (HEAD + finished(1) + TAIL, 0, "1 load case solved"),
        ([*HEAD, "Error<Msg:Error reading file: mx.mats>"], 242, "shorter than its counts"),
        (HEAD + begun(1), 1, "killed or crashed"),
    ],
)
def test_the_command_tells_the_end_by_text_and_status(tmp_path, lines, status, words):
    write_log(tmp_path, lines)
    result = runner.invoke(app, ["watch", str(tmp_path)])
    assert result.exit_code == status and words in result.output


def test_the_command_without_a_log_ends_with_status_2(tmp_path):
    result = runner.invoke(app, ["watch", str(Path(tmp_path))])
    assert result.exit_code == 2 and "There is no log" in result.stderr
