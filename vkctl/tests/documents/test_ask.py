"""The commands of the page on questions, typed as it has them: they print what it shows."""

from __future__ import annotations

import re
from pathlib import Path

import numpy as np
import pytest
from stress.states import VK_RUND
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.prepare.cantilever import write_cantilever
from vkctl.running.run import run

PAGE = Path(__file__).resolve().parents[3] / "docs" / "ask.md"
_BLOCK = re.compile(r"^```sh\nvkctl (ask .*)\n```\n\n((?:    .*\n|\n)+)", re.MULTILINE)
SHOWN = _BLOCK.findall(PAGE.read_text())
ACCURACY = 1e-3  # of the largest number of a line: what the solver's tolerance leaves


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A reader's folder with the cantilever of the quick start, solved."""
    folder = tmp_path_factory.mktemp("reader")
    write_cantilever(folder / "cantilever")
    assert run(folder / "cantilever", vk_rund=VK_RUND).ok
    return folder


def numbers_and_words(line: str) -> tuple[list[float], list[str]]:
    numbers, words = [], []
    for word in re.split(r"[\s,;()]+", line):
        try:
            numbers.append(float(word))
        except ValueError:
            words.append(word)
    return numbers, words


def agree(shown: str, printed: str) -> bool:
    numbers, words = numbers_and_words(shown)
    others, other_words = numbers_and_words(printed)
    if words != other_words or len(numbers) != len(others):
        return False
    if "left over" in shown:  # chance
        return True
    scale = max(map(abs, numbers), default=0.0)
    return bool(np.allclose(numbers, others, rtol=0, atol=ACCURACY * scale))


def test_every_question_is_shown_once() -> None:
    questions = [command.split()[2] for command, _ in SHOWN]
    assert questions == ["reactions", "extremes", "envelope", "cut", "point", "line", "mass"]


@pytest.mark.parametrize(("command", "shown"), SHOWN, ids=lambda text: text[:20].strip())
def test_a_command_prints_what_the_page_shows(
    folder: Path, monkeypatch: pytest.MonkeyPatch, command: str, shown: str
) -> None:
    monkeypatch.chdir(folder)
    result = CliRunner().invoke(app, command.split())
    assert result.exit_code == 0, result.output
    printed = [line.strip() for line in result.stdout.splitlines() if line.strip()]
    expected = [line.strip() for line in shown.splitlines() if line.strip()]
    assert len(printed) == len(expected)
    for ours, theirs in zip(expected, printed, strict=True):
        assert agree(ours, theirs), f"{ours}\n{theirs}"


def test_numbers_that_differ_are_seen() -> None:
    assert agree("a 1.000 mm", "a 1.0005 mm") and not agree("a 1.000 mm", "a 1.005 mm")
    assert not agree("a 1.000 mm", "a 1.000 m")
