"""The examples of the page on the Python functions, run as they are printed."""

from __future__ import annotations

import re
import shutil
from pathlib import Path
from typing import Any

import pytest
import tutorial

from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.running.run import run
from vkctl.shapes.boxes import box

ROOT = Path(__file__).resolve().parents[3]
EXAMPLES = ROOT / "vkctl" / "examples"
PAGE = ROOT / "docs" / "python-api.md"


BLOCKS = re.findall(r"^```python\n(.*?)^```", PAGE.read_text(), re.MULTILINE | re.DOTALL)


def block(start: str) -> str:
    """The page's example that begins with a line."""
    found = [text for text in BLOCKS if text.startswith(start)]
    assert len(found) == 1, start
    return str(found[0])


def play(source: str) -> dict[str, Any]:
    """Names after running a piece of the page."""
    names: dict[str, Any] = {}
    exec(compile(source, str(PAGE), "exec"), names)
    return names


@pytest.fixture
def folder(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A reader's folder with a prepared directory "part"."""
    mesh = box("hex8", (4, 2, 2), (4.0, 2.0, 2.0))
    case = LoadCase().prescribe(mesh.face("x-")).load(*mesh.traction("x+", (0.0, 0.0, -1.0)))
    write(
        Model(mesh.nodes, mesh.elements, [Material.isotropic(1000.0, 0.3)], [case]),
        tmp_path / "part",
    )
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.fixture
def bracket(folder: Path) -> Path:
    """The tutorial's part and case file in the reader's folder, with a coarse mesh."""
    cases = tutorial.set_up(PAGE.with_name("tutorial.md"), EXAMPLES, folder / "bracket")
    cases.write_text(cases.read_text().replace("size = 5.0", "size = 12.0"))
    for path in (folder / "bracket").iterdir():
        shutil.move(path, folder / path.name)
    return folder


def test_every_example_of_the_page_is_run_here() -> None:
    assert len(BLOCKS) == 14


def test_check_finds_no_fault_in_its_directory(folder: Path) -> None:
    names = play(block("from vkctl.check"))
    assert (names["report"].status, names["report"].findings) == (0, [])
    assert names["report"].counts["elements"] == 16


def test_the_example_of_stresses_runs(folder: Path) -> None:
    run("part")
    found = play(block("from vkctl import stress").replace('"work", 2', '"part", 1'))
    assert found["everywhere"].stress.shape == (45, 6)


def test_the_example_of_questions_runs(folder: Path) -> None:
    run("part")
    found = play(block("from vkctl import ask").replace('"work"', '"part"'))
    assert found["found"].relative_force < 1e-4
    assert set(found["over"].largest_case.tolist()) == {1}


def test_run_then_watch_of_a_finished_run(folder: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert play(block("from vkctl.running.run"))["result"].ok
    assert "[1]" in capsys.readouterr().out
    assert play(block("from vkctl.running.watch"))["result"].outcome == "finished"


def test_load_cases_are_repeated_until_they_have_settled(folder: Path) -> None:
    assert play(block("from vkctl.running.settle"))["settled"].ok


def test_diff_of_equal_directories_finds_nothing(folder: Path) -> None:
    assert run("part").ok
    shutil.copytree("part", "before")
    shutil.copytree("part", "after")
    assert play(block("from vkctl.directory.compare"))["comparison"].equal


def test_a_model_is_written_read_and_its_results_looked_at(folder: Path) -> None:
    lines = block("import numpy").splitlines()
    first = next(i for i, line in enumerate(lines) if "after a run" in line)
    names = play("\n".join(lines[:first]))
    assert len(names["same"].elements) == 160
    assert run("beam").ok
    exec("\n".join(lines[first:]), names)
    assert names["solved"].quality == 1.0


def test_a_part_is_prepared_optimised_exported_and_drawn(bracket: Path) -> None:
    names = play(block("from vkctl.prepare"))
    assert names["prepared"].resultants.shape == (3, 6)
    names = play(block("from vkctl.optimise").replace("steps=60", "steps=2"))
    assert [row.step for row in names["done"].rows] == [1, 2]
    play(block("from vkctl.report"))
    assert "Bracket, second draft" in Path("report.html").read_text(encoding="utf-8")
    play(block("from vkctl.view.export"))
    assert all(Path(name).stat().st_size > 0 for name in ("results.pvd", "part.stl", "stress.png"))


def test_a_study_of_the_page_is_made(bracket: Path) -> None:
    shutil.copy(EXAMPLES / "bracket-study.toml", ".")
    path = Path("bracket-study.toml")
    text = path.read_text().replace("count = 16", "count = 2").replace("[5.0, 8.0]", "[12.0]")
    path.write_text(text)
    names = play(block("from vkctl.study"))
    assert names["done"].status == 0 and len(names["done"].rows) == 2
    assert names["best"] in names["done"].rows
