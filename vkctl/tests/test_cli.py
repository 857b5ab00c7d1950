"""The list of commands, and what is loaded for each."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest
from typer.testing import CliRunner

from vkctl.cli import COMMANDS, app, load

runner = CliRunner()


@pytest.mark.parametrize("name", COMMANDS)
def test_the_list_tells_of_each_command_what_its_own_help_begins_with(name: str) -> None:
    assert " ".join(load(name).help.split("\n\n")[0].split()) == COMMANDS[name]


def test_the_help_lists_all_commands_and_an_unknown_one_is_refused() -> None:
    shown = runner.invoke(app, ["--help"])
    assert shown.exit_code == 0 and all(f" {name} " in shown.stdout for name in COMMANDS)
    assert "No such command 'nonsense'" in runner.invoke(app, ["nonsense"]).stderr


@pytest.mark.parametrize(
    ("arguments", "unneeded"),
    [
        ("--version", "vkctl.commands"),
        ("--version", "rich"),
        ("--help", "vkctl.commands"),
        ("check --help", "rich"),
        ("check --help", "pydantic"),
    ],
)
def test_a_command_loads_only_what_it_needs(arguments: str, unneeded: str) -> None:
    command = [sys.executable, "-X", "importtime", "-m", "vkctl", *arguments.split()]
    told = subprocess.run(command, capture_output=True, text=True, timeout=300)
    assert told.returncode == 0
    loaded = [line.rpartition("|")[2].strip() for line in told.stderr.splitlines()]
    assert "vkctl.cli" in loaded
    assert [name for name in loaded if (name + ".").startswith(unneeded + ".")] == []


@pytest.mark.parametrize("words", ["check", "ask mass"])
def test_questions_are_answered_without_what_takes_long_to_load(tmp_path: Path, words: str) -> None:
    assert runner.invoke(app, ["box", str(tmp_path), "--cells", "2", "1", "1"]).exit_code == 0
    command, *more = words.split()
    arguments = [sys.executable, "-X", "importtime", "-m", "vkctl", command, str(tmp_path), *more]
    told = subprocess.run(arguments, capture_output=True, text=True)
    assert told.returncode == 0, told.stderr
    loaded = {line.rpartition("|")[2].strip() for line in told.stderr.splitlines()}
    assert f"vkctl.{command}" in loaded
    assert not {"rich", "scipy", "numpy.ma", "numpy.random"} & loaded


def test_no_command_loads_numpy_or_rich_before_it_does_its_work() -> None:
    text = "import sys; from vkctl.cli import COMMANDS, load; [load(name) for name in COMMANDS]; "
    command = [sys.executable, "-c", text + "print({'numpy', 'rich'} & {*sys.modules})"]
    told = subprocess.run(command, capture_output=True, text=True)
    assert told.stdout.strip() == "set()", told.stderr


def test_a_shell_completes_commands_and_their_options() -> None:
    def completed(words: str) -> str:
        known = {"_VKCTL_COMPLETE": "complete_bash", "COMP_WORDS": f"vkctl {words}"}
        count = {"COMP_CWORD": str(len(words.split()))}
        command = [sys.executable, "-m", "vkctl"]
        told = subprocess.run(
            command, env={**os.environ, **known, **count}, capture_output=True, text=True
        )
        return told.stdout

    assert completed("su").split() == ["summary"]
    assert "--settle" in completed("run --se")
