"""What the system refuses, told in sentences."""

from __future__ import annotations

import errno
import os
from pathlib import Path

import pytest
from typer.testing import CliRunner

from vkctl.basics.failures import reason, sentence
from vkctl.cli import app
from vkctl.directory import formats

runner = CliRunner()


@pytest.mark.parametrize("number", sorted(errno.errorcode))
def test_no_errors_number_is_shown(number: int) -> None:
    for error in (
        OSError(number, os.strerror(number), "a/part.vtu"),
        OSError(number, os.strerror(number)),
    ):
        text = sentence(error)
        assert "Errno" not in text and text.endswith(".") and text[0] in "aTY" + text[0].upper()
        assert ("a/part.vtu" in text) == (error.filename is not None)
        assert "Errno" not in reason(error) and reason(error)


def test_an_error_of_our_own_keeps_its_words() -> None:
    assert sentence(OSError("Process 7 is running on it already.")) == (
        "Process 7 is running on it already."
    )


def test_a_file_that_could_not_be_replaced_is_told_by_its_own_name(tmp_path: Path) -> None:
    with pytest.raises(OSError) as raised, formats.replacing(tmp_path / "gone" / "part.vtu"):
        pass
    assert sentence(raised.value).startswith(f"{tmp_path}/gone/part.vtu isn't there")


@pytest.mark.parametrize(
    ("words", "said"),
    [
        (["summary", "gone"], "gone/vk_rund_log.txt isn't there"),
        (["summary", "file"], "something on the way to it is a file, not a folder"),
        (["plot", "gone", "-o", "x.png"], "isn't there: there is no folder gone."),
        (["summary", "."], "vk_rund_log.txt isn't there."),
        (["box", "file/part"], "something on the way to it is a file, not a folder"),
        (["box", "file"], "file is there already"),
        (["new", "gone.msh", "gone.toml", "d"], "gone.toml: can't be read: there is no such file"),
        (["new", "gone.msh", ".", "d"], ".: can't be read: it is a folder"),
    ],
)
def test_commands_say_what_is_wrong_in_a_sentence(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, words: list[str], said: str
) -> None:
    monkeypatch.chdir(tmp_path)
    Path("file").touch()
    shown = runner.invoke(app, words)
    assert shown.exit_code == 2 and said in shown.stderr
    assert "Errno" not in shown.output and len(shown.stderr.splitlines()) == 1
