"""Following runs that something else started: ended, killed, replaced, or still going on."""

import signal
import socket
import subprocess
import sys
import urllib.request
from pathlib import Path

import pytest
from fake_solver import HEAD, TAIL, begun, finished, small_box, write_log
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


def test_the_page_is_served_until_an_interrupt(tmp_path):
    small_box(tmp_path / "box")
    command = [sys.executable, "-m", "vkctl", "watch", str(tmp_path / "box"), "--page"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as served:
        assert served.stdout is not None
        try:
            address = served.stdout.readline().decode().split()[1]
            with urllib.request.urlopen(address) as page:
                assert "<h1>box</h1>" in page.read().decode()
        finally:
            served.send_signal(signal.SIGINT)
        assert served.wait(300) == 130
    with pytest.raises(OSError, match="refused"):
        urllib.request.urlopen(address)


@pytest.mark.parametrize("option", [("--json",), ("--wait", "3"), ("--patience", "3")])
def test_the_page_takes_nothing_that_speaks_of_an_end(tmp_path, option):
    result = runner.invoke(app, ["watch", str(tmp_path), "--page", *option])
    assert result.exit_code == 2 and "goes on until Ctrl-C" in result.stderr


def test_the_page_of_no_directory_and_a_port_that_is_taken_are_refused(tmp_path):
    result = runner.invoke(app, ["watch", str(tmp_path / "none"), "--page"])
    assert result.exit_code == 2 and "none" in result.stderr
    with socket.create_server(("127.0.0.1", 0)) as other:
        port = str(other.getsockname()[1])
        result = runner.invoke(app, ["watch", str(tmp_path), "--page", "--port", port])
        assert result.exit_code == 2 and port in result.stderr
