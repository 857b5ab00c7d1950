"""The command `vkctl report`: what it prints, and what it refuses."""

from __future__ import annotations

from pathlib import Path

import pytest
from results_on_disk import solved_box
from typer.testing import CliRunner

from vkctl.cli import app

runner = CliRunner()


def report(directory: Path, *options: str) -> tuple[int, str]:
    shown = runner.invoke(app, ["report", str(directory), *options])
    return shown.exit_code, shown.output


def test_a_page_is_written_and_its_size_told(tmp_path: Path) -> None:
    solved_box(tmp_path / "box")
    out = tmp_path / "box.html"
    status, said = report(tmp_path / "box", "-o", str(out), "--title", "A box")
    assert status == 0
    assert said.replace("\n", "").startswith(f"written: {out}, 0.")
    assert "<h1>A box</h1>" in out.read_text(encoding="utf-8")


def test_a_simplified_surface_is_told(tmp_path: Path) -> None:
    solved_box(tmp_path / "box")
    out = str(tmp_path / "box.html")
    status, said = report(tmp_path / "box", "-o", out, "--triangles", "100")
    assert status == 0
    assert "the surface simplified from 112 to " in said


@pytest.mark.parametrize(
    ("options", "reason"),
    [
        (("-o", "page.pdf"), "the suffix must be .html"),
        (("-o", "page.html", "--field", "warmth"), "unknown field 'warmth'"),
        (("-o", "page.html", "--case", "9"), "load case 9 has no results"),
    ],
)
def test_what_cannot_be_is_refused_in_one_sentence(
    options: tuple[str, ...], reason: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    solved_box(tmp_path / "box")
    monkeypatch.chdir(tmp_path)
    status, said = report(tmp_path / "box", *options)
    assert status == 2
    assert reason in said
    assert not list(tmp_path.glob("page.*"))


def test_a_directory_without_a_model_is_refused_and_an_old_page_stays(tmp_path: Path) -> None:
    (tmp_path / "empty").mkdir()
    out = tmp_path / "page.html"
    out.write_text("old")
    status, said = report(tmp_path / "empty", "-o", str(out))
    assert status == 2
    assert "mx." in said
    assert out.read_text() == "old"
