"""Damaged and half-written files: one sentence and a status from every command, no traceback."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from damage import DAMAGES
from small_loops import TWO_CASES, VK_RUND, write_small
from typer.testing import CliRunner

from vkctl.check import check
from vkctl.cli import app
from vkctl.directory import formats, model
from vkctl.directory.compare import CannotCompareError, diff
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.directory.results import read_results
from vkctl.directory.summary import summary
from vkctl.optimise import optimise
from vkctl.running.run import run
from vkctl.running.watch import watch
from vkctl.shapes.boxes import box

pytestmark = pytest.mark.thorough

runner = CliRunner()
PICTURES = {"export to .vtu", "export to .stl", "plot"}


@pytest.fixture(autouse=True)
def short_grace(monkeypatch):
    monkeypatch.setattr("vkctl.running.watch._GRACE", 0.0)
    monkeypatch.setattr("vkctl.running.watch._POLL", 0.0)


@pytest.fixture(scope="module")
def finished(tmp_path_factory) -> Path:
    """A directory with every file that a run reads and writes."""
    target: Path = tmp_path_factory.mktemp("finished") / "part"
    part = box("mixed", (3, 1, 1), (3.0, 1.0, 1.0))
    cases = [LoadCase(pattern=k).prescribe(part.face("x-")) for k in (1, 2)]
    cases[0].load(part.corner("x+", "y+", "z+"), (0, 0, -1)).heat(3, 5.0)
    cases[1].load(part.corner("x+", "y-", "z+"), (0, 1, 0), section=3).support(5)
    materials = [Material.yielding(1e3, 0.3, 5.0, expansion=1e-5)]
    whole = Model(part.nodes, part.elements, materials, cases)
    whole.options = {"Sys.MaxNumCompThreads": 1}
    whole.set_level(part.nodes[:, 0] + 0.5)
    model.write(whole, target)
    assert run(target).ok
    return target


@pytest.fixture(scope="module")
def optimised(tmp_path_factory) -> Path:
    """The folder of an optimisation of two steps: case file, part, directory."""
    folder: Path = tmp_path_factory.mktemp("optimised")
    cases = write_small(folder, "reduction = 0.2\nsteps = 2\n", TWO_CASES)
    optimise(cases, folder / "d", vk_rund=VK_RUND)
    return folder


def _commands(directory: Path, sound: Path, out: Path) -> dict[str, list[str]]:
    return {
        "check": ["check", str(directory)],
        "summary": ["summary", str(directory)],
        "diff": ["diff", str(directory), str(sound)],
        "diff the other way": ["diff", str(sound), str(directory)],
        "watch": ["watch", str(directory), "--patience", "0"],
        "export to .vtu": ["export", str(directory), str(out / "x.vtu")],
        "export to .stl": ["export", str(directory), str(out / "x.stl")],
        "plot": ["plot", str(directory), "-o", str(out / "x.png")],
        "ask": ["ask", str(directory)],
        "ask cut": ["ask", str(directory), "cut", "--at", "1.5,0,0", "--normal", "1,0,0"],
        "ask point": ["ask", str(directory), "point", "--at", "1.5,0.5,0.5"],
        "ask line": ["ask", str(directory), "line", "--from", "0.5,0.5,0.5", "--to", "2.5,0.5,0.5"],
        "ask mass": ["ask", str(directory), "mass"],
        "run": ["run", str(directory), "--threads", "1", "--vk-rund", str(VK_RUND)],
    }


def _statuses(command: str) -> set[int]:
    return {"watch": {0, 1, 2, 242}, "run": {0, 1, 2, 237, 242}}.get(command, {0, 1, 2})


def _assert_told(name: str, arguments: list[str], where: str) -> None:
    shown = runner.invoke(app, arguments)
    assert shown.exception is None or isinstance(shown.exception, SystemExit), (where, shown)
    assert shown.exit_code in _statuses(name), (where, name, shown.output)
    assert "Traceback" not in shown.output
    if shown.exit_code == 2 and name not in ("check", "run"):
        assert shown.stderr.count("\n") == 1, (where, name, shown.stderr)


def _damaged(source: Path, target: Path, name: str, damage: str) -> None:
    shutil.copytree(source, target, symlinks=True)
    DAMAGES[damage](target / name)


@pytest.mark.parametrize("damage", DAMAGES)
def test_every_command_tells_of_every_damaged_file_in_a_sentence(finished, tmp_path, damage):
    (tmp_path / "out").mkdir()
    for path in sorted(finished.iterdir()):
        directory = tmp_path / "d"
        _damaged(finished, directory, path.name, damage)
        for name, arguments in _commands(directory, finished, tmp_path / "out").items():
            if name in PICTURES and (damage != "turned" or path.name == formats.LOG_FILE):
                continue  # they take long, and read what the others read
            _assert_told(name, arguments, f"{path.name}: {damage}")
        shutil.rmtree(directory)


@pytest.mark.parametrize("damage", DAMAGES)
def test_a_loop_tells_of_every_damaged_file_in_a_sentence(optimised, tmp_path, damage):
    folder = optimised / "d" / "optimise"
    names = [f"d/optimise/{path.name}" for path in sorted(folder.iterdir()) if path.is_file()]
    for name in (*names, "d/mx.nodes", "d/mxs.tp", "d/mxs.lcflags", "d/vk_rund_log.txt"):
        target = tmp_path / "o"
        _damaged(optimised, target, name, damage)
        arguments = [str(target / "cases.toml"), str(target / "d"), "--no-pictures"]
        shown = runner.invoke(app, ["optimise", *arguments, "--steps", "3"])
        assert shown.exit_code in (0, 2, 237, 242), (name, shown.output, shown.exception)
        assert shown.exit_code == 0 or shown.stderr.count("\n") == 1, (name, shown.stderr)
        shutil.rmtree(target)


@pytest.mark.parametrize("damage", sorted(DAMAGES))
def test_functions_raise_what_is_documented_for_damaged_files(finished, tmp_path, damage):
    for path in sorted(finished.iterdir()):
        directory = tmp_path / "d"
        _damaged(finished, directory, path.name, damage)
        check(directory)
        for call in (
            lambda d: read_results(d, 1),
            model.read,
            summary,
            lambda d: model.set_flags(d, clear_done=True),
            lambda d: diff(d, finished),
            lambda d: watch(d, patience=0.0),
        ):
            try:
                call(directory)
            except (OSError, formats.FormatError, CannotCompareError):
                continue
        shutil.rmtree(directory)


def test_files_that_may_not_be_read_are_told_in_a_sentence(finished, tmp_path, monkeypatch):
    """As for a user who may not: the tests may run as one who may read all."""
    shutil.copytree(finished, tmp_path / "d")
    opened = os.open
    refused = ""

    def refusing(path, *rest, **named):
        if os.path.basename(os.fspath(path)) == refused:
            raise PermissionError(13, "Permission denied", path)
        return opened(path, *rest, **named)

    monkeypatch.setattr(os, "open", refusing)
    for path in sorted(finished.iterdir()):
        refused = path.name
        for name, arguments in _commands(tmp_path / "d", finished, tmp_path).items():
            if name not in PICTURES:
                _assert_told(name, arguments, path.name)


def test_the_program_itself_tells_of_damage_in_a_sentence(finished, tmp_path):
    for name, damage, command in (
        ("vk_rund_log.txt", "random", "summary"),
        ("ws.sstate.0001", "cut in the middle", "export to .vtu"),
        ("ws.amsval.0001", "a pipe", "diff"),
    ):
        directory = tmp_path / command
        _damaged(finished, directory, name, damage)
        arguments = _commands(directory, finished, tmp_path)[command]
        shown = subprocess.run(
            [sys.executable, "-m", "vkctl", *arguments], capture_output=True, text=True, timeout=300
        )
        assert shown.returncode == 2 and shown.stdout == ""
        assert shown.stderr.count("\n") == 1 and "Traceback" not in shown.stderr
