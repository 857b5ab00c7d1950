"""The command `vkctl study`: what it prints, its status, what it refuses."""

from __future__ import annotations

import json
import os
from collections import Counter
from pathlib import Path

import pytest
from rich.console import Console
from small_loops import VK_RUND
from study.small_studies import PARAMETERS, RESULTS, rows, write_study
from typer.testing import CliRunner

from vkctl.basics import extras
from vkctl.cli import app
from vkctl.study import Outcome, Progress
from vkctl.terminal.studying import progress_line, shown

FAILING = PARAMETERS.replace("range = [1.0, 2.0, 2]", "values = [1.0, -1.0]") + RESULTS


def call(path: Path, out: Path, *options: str):
    arguments = ["study", str(path), str(out), "--vk-rund", str(VK_RUND), *options]
    return CliRunner().invoke(app, arguments)


def test_a_study_ends_with_its_table_and_picture(tmp_path: Path) -> None:
    shown_text = call(write_study(tmp_path), tmp_path / "out", "--jobs", "2")
    assert shown_text.exit_code == 0, shown_text.output
    lines = shown_text.output.splitlines()
    assert lines[-3].startswith("4 of 4 variants, 2 at a time, ")
    assert lines[-2] == "4 of 4 variants done"
    written = "results.csv, results.parquet, results.png"
    assert lines[-1] == f"{written} in {tmp_path / 'out'}"
    names = {path.name for path in (tmp_path / "out").iterdir()}
    assert names == {"study.json", "journal.jsonl", "variants", *written.split(", ")}


@pytest.mark.thorough
def test_failures_are_told_and_make_the_status_one(tmp_path: Path) -> None:
    told = call(write_study(tmp_path, FAILING), tmp_path / "out", "--jobs", "1", "--no-pictures")
    assert told.exit_code == 1
    assert told.output.count("variant 2 failed: ") == 2  # when it failed, and at the end
    assert "2 of 4 variants done, 2 failed" in told.output
    assert "E in [materials.unit] must be above 0, not -1.0" in told.output
    assert Counter(row["status"] for row in rows(tmp_path / "out")) == {"done": 2, "failed": 2}


@pytest.mark.thorough
def test_a_study_is_told_to_programs(tmp_path: Path) -> None:
    told = call(write_study(tmp_path), tmp_path / "out", "--json", "--no-pictures")
    values = json.loads(told.output)
    assert values["status"] == told.exit_code == 0
    assert values["parameters"] == ["force", "modulus"] and values["results"] == [
        "energy",
        "stress",
    ]
    assert [row["variant"] for row in values["variants"]] == [1, 2, 3, 4]
    assert not (tmp_path / "out" / "results.png").exists()


@pytest.mark.thorough
def test_a_dry_run_tells_what_would_be_done(tmp_path: Path) -> None:
    told = call(
        write_study(tmp_path), tmp_path / "out", "--dry-run", "--jobs", "3", "--threads", "1"
    )
    assert told.exit_code == 0
    assert "force: loads.down.value.y, -1 in the case file" in told.output
    assert "4 variants\neach 182 nodes, 72 elements, 2 load cases, " in told.output
    assert "3 at a time, 1 thread each" in told.output
    assert "time: about " in told.output and "memory: about " in told.output
    assert not (tmp_path / "out").exists()


@pytest.mark.thorough
def test_a_changed_study_is_refused(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    assert call(path, out, "--no-pictures").exit_code == 0
    path.write_text(path.read_text().replace("[-1.0, -2.0]", "[-1.0, -3.0]"))
    told = call(path, out)
    assert told.exit_code == 2 and "--again" in told.output
    assert call(path, out, "--no-pictures", "--again").exit_code == 0
    assert [row["force"] for row in rows(out)] == ["-1.0", "-1.0", "-3.0", "-3.0"]


@pytest.mark.thorough
@pytest.mark.parametrize(
    ("text", "words"),
    [
        ("", "study.toml: no parameters"),
        (PARAMETERS.replace("unit.E", "unit.young"), "study.toml:9: key 'materials.unit.young'"),
        (PARAMETERS + RESULTS + 'set = "x"\n', "no set 'x'"),
        ("x = [", "not TOML"),
    ],
)
def test_mistakes_are_refused_with_nothing_begun(tmp_path: Path, text: str, words: str) -> None:
    told = call(write_study(tmp_path, text), tmp_path / "out")
    assert told.exit_code == 2 and words in told.output
    assert not (tmp_path / "out").exists()


@pytest.mark.thorough
def test_a_missing_study_file_or_case_file_is_refused(tmp_path: Path) -> None:
    path = write_study(tmp_path)
    told = call(tmp_path / "other.toml", tmp_path / "out")
    assert told.exit_code == 2 and "there is no such file" in told.output
    (tmp_path / "cases.toml").unlink()
    told = call(path, tmp_path / "out")
    assert told.exit_code == 2 and "cases.toml: can't be read: there is no such file" in told.output


@pytest.mark.thorough
def test_without_a_solver_the_status_is_that_of_a_shell(tmp_path: Path) -> None:
    arguments = ["study", str(write_study(tmp_path)), str(tmp_path / "out"), "--vk-rund", "nothing"]
    assert CliRunner().invoke(app, arguments).exit_code == 127


@pytest.mark.thorough
def test_without_duckdb_the_table_is_text_alone(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    from vkctl.study import tables

    monkeypatch.setattr(tables, "can_write_parquet", lambda: False)
    told = call(write_study(tmp_path), tmp_path / "out", "--no-pictures")
    assert told.exit_code == 0
    assert "note: results.parquet needs DuckDB: pip install 'vkctl[study]'" in told.output
    assert not (tmp_path / "out" / "results.parquet").exists()
    assert "duckdb" in extras._PARTS


@pytest.mark.thorough
def test_progress_is_told_in_a_line() -> None:
    progress = Progress(1000, 2, Counter(done=117, failed=3), 72.0, 500.0)
    line = "120 of 1000 variants, 3 failed, 2 at a time, 1:12 min, about 8:20 min left"
    assert progress_line(progress) == line


@pytest.mark.thorough
def test_a_terminal_sees_failures_above_the_line() -> None:
    console = Console(width=100, record=True, file=open(os.devnull, "w"), force_terminal=True)
    with shown(console) as show:
        latest = Outcome(7, "failed", message="it broke")
        show(Progress(9, 2, Counter(failed=1), 3.0, 24.0, latest))
    text = console.export_text()
    assert "variant 7 failed: it broke" in text
    assert "1 of 9 variants, 1 failed, 2 at a time, 3.0 s, about 24.0 s left" in text
