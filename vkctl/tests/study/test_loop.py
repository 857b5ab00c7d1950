"""Studies from beginning to end: what they leave, go on from and refuse."""

from __future__ import annotations

import json
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import replace
from pathlib import Path

import pytest
from killing import in_child, killed_before
from small_loops import VK_RUND, script

from vkctl.directory.formats import FormatError
from vkctl.directory.results import read_results
from vkctl.prepare import new
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.part import Reading
from vkctl.running.run import NotFoundError, run
from vkctl.study import (
    Outcome,
    Progress,
    StudyError,
    Task,
    loop,
    planned,
    read_study,
    solve,
    study,
)
from vkctl.study.begin import begin
from vkctl.study.journal import read_journal

from .small_studies import (
    PARAMETERS,
    RESULTS,
    directories,
    in_turn,
    instantly,
    rows,
    write_study,
)


def make(path: Path, out: Path, **options) -> list[dict[str, str]]:
    """The rows after a study of the real solver, in this machine's processes."""
    study(path, out, vk_rund=VK_RUND, **options)
    return rows(out)


@pytest.fixture(scope="module")
def made(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("made")
    make(write_study(folder, head='keep = "all"'), folder / "out", jobs=2)
    return folder / "out"


def test_each_variant_has_a_row_with_its_parameters_and_results(made: Path) -> None:
    found = rows(made)
    assert [row["variant"] for row in found] == ["1", "2", "3", "4"]
    assert [(row["force"], row["modulus"]) for row in found] == [
        ("-1.0", "1.0"),
        ("-1.0", "2.0"),
        ("-2.0", "1.0"),
        ("-2.0", "2.0"),
    ]
    assert {row["status"] for row in found} == {"done"}
    assert all(float(row["seconds"]) > 0 and row["message"] == "" for row in found)


@pytest.mark.thorough
def test_results_scale_with_the_force_and_the_modulus_as_they_must(made: Path) -> None:
    energy = [float(row["energy"]) for row in rows(made)]
    # Of a linear part: force squared over modulus, in single precision.
    assert energy[1] == pytest.approx(energy[0] / 2, rel=1e-5)
    assert energy[2] == pytest.approx(4 * energy[0], rel=1e-5)
    assert energy[3] == pytest.approx(2 * energy[0], rel=1e-5)


@pytest.mark.thorough
def test_a_kept_directory_holds_the_case_file_that_makes_it_again(
    made: Path, tmp_path: Path
) -> None:
    assert directories(made) == ["0001", "0002", "0003", "0004"]
    new(None, made / "variants" / "0003" / "case.toml", tmp_path / "again")
    assert run(tmp_path / "again", vk_rund=VK_RUND).ok
    energy = read_results(tmp_path / "again", 1).strain_energy
    assert energy == pytest.approx(float(rows(made)[2]["energy"]), rel=1e-6)


@pytest.mark.thorough
def test_started_again_it_does_nothing_twice(made: Path) -> None:
    before = (made / "journal.jsonl").read_bytes()

    @contextmanager
    def nothing(tasks: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
        assert tasks == []
        yield iter(())

    done = study(made.parent / "study.toml", made, vk_rund=VK_RUND, dispatch=nothing)
    assert len(done.rows) == 4 and done.status == 0
    assert (made / "journal.jsonl").read_bytes() == before


@pytest.mark.thorough
def test_a_variant_that_fails_has_a_row_with_the_reason(tmp_path: Path) -> None:
    text = PARAMETERS.replace("range = [1.0, 2.0, 2]", "values = [1.0, -1.0]") + RESULTS
    done = study(write_study(tmp_path, text), tmp_path / "out", vk_rund=VK_RUND, jobs=1)
    assert done.status == 1
    assert [row["status"] for row in rows(tmp_path / "out")] == ["done", "failed"] * 2
    assert "E in [materials.unit] must be above 0, not -1.0" in rows(tmp_path / "out")[1]["message"]
    # Those are the ones that are kept without further words.
    assert directories(tmp_path / "out") == ["0002", "0004"]


@pytest.mark.thorough
def test_a_solver_that_fails_is_told_in_every_row(tmp_path: Path) -> None:
    program = script(tmp_path / "program", "exit 242")
    done = study(write_study(tmp_path), tmp_path / "out", vk_rund=program, jobs=1)
    assert {row["status"] for row in done.rows} == {"failed"}
    assert all("error" in str(row["message"]) for row in done.rows)


@pytest.mark.thorough
def test_failed_variants_are_repeated_on_request(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    study(path, out, vk_rund=script(tmp_path / "program", "exit 242"), jobs=1)
    assert make(path, out)[0]["status"] == "failed"
    assert {row["status"] for row in make(path, out, retry=True)} == {"done"}


@pytest.mark.thorough
def test_a_solver_that_something_kills_is_started_again(tmp_path: Path) -> None:
    mark = tmp_path / "mark"
    text = f'if [ ! -e {mark} ]; then touch {mark}; kill -9 $$; fi\nexec $real "$@"'
    found = study(
        write_study(tmp_path), tmp_path / "out", vk_rund=script(tmp_path / "program", text), jobs=1
    )
    assert {row["status"] for row in found.rows} == {"done"} and mark.exists()


@pytest.mark.thorough
def test_the_best_directories_are_kept(tmp_path: Path) -> None:
    head = 'keep = { best = 2, by = "energy", order = "largest" }'
    study(write_study(tmp_path, head=head), tmp_path / "out", vk_rund=VK_RUND, dispatch=in_turn)
    assert directories(tmp_path / "out") == ["0003", "0004"]


@pytest.mark.thorough
@pytest.mark.parametrize("deed", ["settle", "optimise"])
def test_a_variant_may_be_settled_or_optimised(tmp_path: Path, deed: str) -> None:
    results = '[results.energy]\nvalue = "strain_energy"\nover = "sum"\n'
    if deed == "optimise":
        results += '[results.objective]\nvalue = "objective"\n[results.steps]\nvalue = "steps"\n'
    key = "optimise.steps" if deed == "optimise" else "loads.down.value.y"
    text = f'[parameters.p]\nkey = "{key}"\nvalues = [2, 3]\n' + results
    path = write_study(tmp_path, text, f'do = "{deed}"', "steps = 5\nvolume = 0.6\n")
    found = make(path, tmp_path / "out", jobs=1)
    assert [row["status"] for row in found] == ["done", "done"]
    if deed == "optimise":
        assert [row["steps"] for row in found] == ["2.0", "3.0"] or [
            row["steps"] for row in found
        ] == ["2", "3"]
        assert all(row["message"] == "ended at the step limit" for row in found)


# --- what is refused -----------------------------------------------------------------------------


def refused(path: Path, out: Path, **options) -> str:
    with pytest.raises((StudyError, CaseFileError, FormatError, NotFoundError)) as caught:
        study(path, out, **{"vk_rund": VK_RUND, "dispatch": instantly, **options})
    return str(caught.value)


@pytest.mark.thorough
@pytest.mark.parametrize(
    ("change", "what"),
    [
        (("study.toml", "range = [1.0, 2.0, 2]", "range = [1.0, 3.0, 2]"), "the study file"),
        (("cases.toml", "nu = 0.3", "nu = 0.2"), "the case file"),
        (("table.csv", "1", "4"), "the table"),
    ],
)
def test_a_changed_study_is_refused_and_begun_anew_on_request(
    tmp_path: Path, change: tuple[str, str, str], what: str
) -> None:
    column = '[parameters.nu]\nkey = "materials.unit.nu"\ncolumn = "nu"\n'
    (tmp_path / "table.csv").write_text("nu\n0.1\n")
    path = write_study(tmp_path, PARAMETERS + column + RESULTS, 'table = "table.csv"')
    out = tmp_path / "out"
    study(path, out, vk_rund=VK_RUND, dispatch=instantly)
    before = (out / "journal.jsonl").read_bytes()
    name, old, new = change
    text = (tmp_path / name).read_text()
    assert old in text
    (tmp_path / name).write_text(text.replace(old, new))
    words = refused(path, out)
    assert words.startswith(f"{what} changed since the study in {out} began")
    assert (out / "journal.jsonl").read_bytes() == before
    assert len(study(path, out, vk_rund=VK_RUND, dispatch=instantly, again=True).rows) == 4


@pytest.mark.thorough
def test_a_changed_comment_or_choice_of_what_is_kept_changes_nothing(tmp_path: Path) -> None:
    path, out = write_study(tmp_path, head='keep = "all"'), tmp_path / "out"
    study(path, out, vk_rund=VK_RUND, dispatch=instantly)
    path.write_text("# a word\n" + path.read_text().replace('"all"', '"none"'))
    assert len(study(path, out, vk_rund=VK_RUND, dispatch=instantly).rows) == 4


@pytest.mark.thorough
def test_a_changed_part_is_noticed(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    study(path, out, vk_rund=VK_RUND, dispatch=instantly)
    with open(tmp_path / "part.vtu", "a") as stream:
        stream.write("\n")
    assert refused(path, out).startswith("the part changed")


@pytest.mark.thorough
def test_nothing_is_begun_where_a_reported_set_is_not_there(tmp_path: Path) -> None:
    path = write_study(tmp_path, PARAMETERS + RESULTS + 'set = "tipp"\n')
    words = refused(path, tmp_path / "out")
    assert words.endswith(": no set 'tipp'; did you mean 'tip'?") and "study.toml:" in words
    assert not (tmp_path / "out").exists()


@pytest.mark.thorough
def test_nothing_is_begun_without_a_solver(tmp_path: Path) -> None:
    assert "no program" in refused(write_study(tmp_path), tmp_path / "out", vk_rund=tmp_path / "x")
    assert not (tmp_path / "out").exists()


@pytest.mark.thorough
def test_a_folder_of_something_else_is_left_alone(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    out.mkdir()
    (out / "letter.txt").write_text("dear")
    assert "isn't empty and holds no study" in refused(path, out)
    assert "isn't empty and holds no study" in refused(path, out, again=True)
    assert [p.name for p in out.iterdir()] == ["letter.txt"]
    assert "is a file" in refused(path, out / "letter.txt")


@pytest.mark.thorough
def test_another_study_on_the_folder_is_refused(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    words = []

    def second(progress: Progress) -> None:
        words.append(refused(path, out))

    study(path, out, vk_rund=VK_RUND, dispatch=instantly, on_progress=second)
    assert words and all("another study works on" in text for text in words)


@pytest.mark.thorough
@pytest.mark.parametrize(
    ("name", "content"),
    [
        ("study.json", b"{"),
        ("study.json", b'{"inputs": {}, "variants": [], "columns": [], "memory_gb": null}'),
        ("journal.jsonl", b"no json\n"),
        ("journal.jsonl", b'{"number": 1}\n{"number": 1}\n'),
        ("journal.jsonl", b'{"number": 99, "status": "done"}\n'),
        ("journal.jsonl", b'{"number": 1, "status": "well"}\n'),
    ],
)
def test_damaged_files_are_refused(tmp_path: Path, name: str, content: bytes) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    study(path, out, vk_rund=VK_RUND, dispatch=instantly)
    (out / name).write_bytes(content)
    assert str(out / name) in refused(path, out)
    assert (out / name).read_bytes() == content


# --- what is told beforehand --------------------------------------------------------------------


@pytest.mark.thorough
def test_a_dry_run_tells_sizes_and_writes_nothing(tmp_path: Path) -> None:
    path = write_study(tmp_path)
    found = planned(path, tmp_path / "out", jobs=2)
    assert (found.count, found.finished, found.begun.nodes) == (4, 0, 182)
    assert found.seconds is not None and found.seconds > 0
    assert not (tmp_path / "out").exists()


@pytest.mark.thorough
def test_the_size_that_is_told_is_that_of_a_solved_directory(made: Path) -> None:
    found = planned(made.parent / "study.toml", made)
    directory = made / "variants" / "0001"
    size = sum(path.stat().st_size for path in directory.rglob("*") if path.is_file())
    assert found.begun.size_gb * 2**30 == pytest.approx(size, rel=0.1)
    assert found.finished == 4


# --- kills --------------------------------------------------------------------------------------


@pytest.mark.thorough
def test_a_study_that_is_killed_before_any_file_operation_goes_on(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    path = write_study(tmp_path)
    (tmp_path / "start").mkdir()
    # The case file is prepared once, outside of the study's folder, so that no kill concerns it.
    start = begin(read_study(path), Reading(), tmp_path / "start", 1)
    monkeypatch.setattr(loop, "begin", lambda *arguments: start)

    def make_all(out: Path) -> None:
        study(path, out, vk_rund=VK_RUND, dispatch=instantly)

    number = 0
    while True:
        number += 1
        out = tmp_path / f"out{number}"
        ended = in_child(killed_before, lambda out=out: make_all(out), number)
        make_all(out)
        assert [row["energy"] for row in rows(out)] == ["0.125", "0.25", "0.375", "0.5"]
        if ended == 0:
            break
        assert ended == -9
    assert number > 10


@pytest.mark.thorough
def test_a_journal_that_is_cut_anywhere_is_gone_on_with(tmp_path: Path) -> None:
    path, out = write_study(tmp_path), tmp_path / "out"
    study(path, out, vk_rund=VK_RUND, dispatch=instantly)
    whole = (out / "journal.jsonl").read_bytes()
    for size in range(len(whole)):
        (out / "journal.jsonl").write_bytes(whole[:size])
        study(path, out, vk_rund=VK_RUND, dispatch=instantly)
        assert (out / "journal.jsonl").read_bytes() == whole


@pytest.mark.thorough
def test_a_variant_that_is_killed_before_any_file_operation_goes_on(tmp_path: Path) -> None:
    path = write_study(tmp_path)
    tasks: list[Task] = []

    @contextmanager
    def noted(given: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
        tasks.extend(given)
        yield iter(())

    study(path, tmp_path / "out", vk_rund=VK_RUND, dispatch=noted)
    whole = solve(replace(tasks[0], directory=str(tmp_path / "whole"), mesh=""))
    assert whole.status == "done"
    number, ended = 0, -9
    while ended != 0:
        number += 5
        task = replace(tasks[0], directory=str(tmp_path / f"d{number}"), mesh="")
        ended = in_child(killed_before, lambda task=task: solve(task), number)
        assert ended in (0, -9)
        assert solve(task).values == whole.values
    assert number > 15


@pytest.mark.thorough
def test_the_journal_is_what_was_solved(made: Path) -> None:
    lines = (made / "journal.jsonl").read_text().splitlines()
    assert sorted(json.loads(line)["number"] for line in lines) == [1, 2, 3, 4]
    assert set(read_journal(made)) == {1, 2, 3, 4}
