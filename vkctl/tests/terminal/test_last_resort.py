"""What ends a command that nobody has foreseen, and a command that is asked to end."""

import os
import signal
import subprocess
import sys
import time

import pytest
from fake_solver import small_box
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.terminal import last_resort

runner = CliRunner()
VKCTL = [sys.executable, "-m", "vkctl"]


def _failing(monkeypatch, error):
    def fail(directory):
        raise error

    monkeypatch.setattr("vkctl.check.check", fail)
    return runner.invoke(app, ["check", "d"])


def test_an_unexpected_failure_is_one_line_with_a_status_of_its_own(monkeypatch):
    shown = _failing(monkeypatch, IndexError("index 7 is\nout of bounds"))
    assert shown.exit_code == last_resort.UNEXPECTED == 70
    assert shown.stderr == (
        "vkctl has failed, which is a defect of its own: IndexError: index 7 is out of bounds. "
        "`vkctl --debug ...` shows where it comes from.\n"
    )
    assert shown.stdout == ""


def test_debug_shows_where_a_failure_comes_from_and_lasts_no_longer(monkeypatch):
    _failing(monkeypatch, KeyError("x"))
    shown = runner.invoke(app, ["--debug", "check", "d"])
    assert shown.exit_code == 70
    assert "Traceback" in shown.stderr and "in fail" in shown.stderr
    assert shown.stderr.endswith("a defect of its own: KeyError: 'x'.\n")
    assert "Traceback" not in runner.invoke(app, ["check", "d"]).stderr


@pytest.mark.parametrize(
    ("error", "status", "words"),
    [
        (MemoryError(), 2, "There is not enough memory for this.\n"),
        (OSError(28, "No space left on device"), 2, "There is no space left on the disk.\n"),
        (KeyboardInterrupt(), 130, "Interrupted.\n"),
    ],
)
def test_what_is_no_defect_has_its_own_words(monkeypatch, error, status, words):
    shown = _failing(monkeypatch, error)
    assert (shown.exit_code, shown.stderr) == (status, words)


def test_a_reader_that_has_gone_is_no_trouble(tmp_path):
    small_box(tmp_path / "d")
    for option in ([], ["--json"]):
        reading, writing = os.pipe()
        os.close(reading)
        command = [*VKCTL, "check", *option, str(tmp_path / "d")]
        shown = subprocess.run(command, stdout=writing, stderr=subprocess.PIPE, timeout=300)
        os.close(writing)
        assert shown.returncode in (1, last_resort.UNREAD) and shown.stderr == b""


def test_output_onto_a_full_disk_is_told_in_a_line(tmp_path):
    small_box(tmp_path / "d")
    command = [*VKCTL, "check", str(tmp_path / "d")]
    with open("/dev/full", "w") as full:
        shown = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=300)
    assert shown.returncode == 2
    assert shown.stderr == b"There is no space left on the disk.\n"


def test_names_of_any_bytes_can_be_told_and_debug_may_stand_anywhere(tmp_path):
    directory = os.fsencode(tmp_path) + b"/\xff"
    command = [*map(os.fsencode, VKCTL), b"check", directory, b"--debug"]
    shown = subprocess.run(command, capture_output=True, timeout=300)
    assert shown.returncode == 2 and shown.stderr == b""
    assert rb"\udcff" in shown.stdout


# What `python -m vkctl` does, once Python itself is there; it tells when its loading begins.
_PROGRAM = """
import sys
from vkctl.__main__ import main

class Tells:
    def find_spec(self, name, path=None, target=None):
        if name == "vkctl.cli":
            sys.stdout.write("begun\\n")
            sys.stdout.flush()

sys.meta_path.insert(0, Tells())
sys.argv = sys.argv[1:]
main()
"""


@pytest.mark.parametrize("delay", [0.0, 0.05, 0.1, 0.3, 0.6, 1.5])
def test_an_interrupt_ends_the_program_from_its_first_moment_on_without_a_traceback(
    tmp_path, delay
):
    command = [sys.executable, "-c", _PROGRAM, "vkctl", "watch", str(tmp_path), "--wait", "600"]
    process = subprocess.Popen(
        command,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler),
    )
    assert process.stdout is not None and process.stdout.readline() == b"begun\n"
    time.sleep(delay)
    process.send_signal(signal.SIGINT)
    _, words = process.communicate(timeout=300)
    assert process.returncode == 130
    assert words in (b"Interrupted.\n", b"Interrupted: the run goes on.\n")


def test_a_quiet_command_tells_no_more_than_refusals_and_its_status(tmp_path):
    small_box(tmp_path / "d")
    quiet = subprocess.run(
        [*VKCTL, "check", str(tmp_path / "d"), "--quiet"], capture_output=True, timeout=300
    )
    loud = subprocess.run([*VKCTL, "check", str(tmp_path / "d")], capture_output=True, timeout=300)
    assert quiet.returncode == loud.returncode
    assert (quiet.stdout, quiet.stderr) == (b"", b"") and loud.stdout != b""
    shown = runner.invoke(app, ["--quiet", "summary", str(tmp_path / "gone")])
    assert shown.exit_code == 2 and "isn't there" in shown.stderr
    told = runner.invoke(app, ["--quiet", "check", "--json", str(tmp_path / "d")])
    assert told.stdout.startswith("{")
