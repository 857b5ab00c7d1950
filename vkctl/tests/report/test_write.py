"""The report's text: what a directory tells, and what it can't."""

from __future__ import annotations

import re
from html.parser import HTMLParser
from pathlib import Path

import numpy as np
import pytest
from fake_solver import small_box
from new_parts import brick
from program_under_test import program
from results_on_disk import make_model, solved_box, write_results

from vkctl.directory import formats
from vkctl.directory.model import read, write_load_cases
from vkctl.optimise.history import HistoryRow, folder_of, write_history
from vkctl.prepare.build import new
from vkctl.report import Wanted, write_report
from vkctl.report.facts import case_facts
from vkctl.running.run import run

from .conftest import EVIL, solved_model

CASES = """
part = "part.msh"
units = "mm-N-MPa"

[materials.steel]
E = 210000.0
nu = 0.3
yield_stress = 235.0

[face_sets.end]
where = "x > 3.99"

[supports.wall]
set = "left"

[loads.pull]
type = "force"
set = "end"
value = [1000, 0, 0]

[[load_case]]
name = "pull"
loads = ["pull"]

[[load_case]]
name = "twice"
loads = { pull = 2.0 }
"""


class Words(HTMLParser):
    """Texts of a page that a reader sees, and the tags it is made of."""

    def __init__(self, page: str) -> None:
        super().__init__()
        self.words: list[str] = []
        self.tags: list[str] = []
        self.within: list[str] = []
        self.feed(page)

    def handle_starttag(self, tag: str, attrs: object) -> None:
        self.tags.append(tag)
        self.within.append(tag)

    def handle_endtag(self, tag: str) -> None:
        while self.within and self.within.pop() != tag:
            pass

    def handle_data(self, data: str) -> None:
        if not {"script", "style"} & set(self.within):
            self.words.append(data)


def words_of(directory: Path, wanted: Wanted | None = None) -> str:
    """What the report of a directory says."""
    out = directory.parent / "report.html"
    write_report(directory, out, wanted)
    return re.sub(r"\s+", " ", " ".join(Words(out.read_text(encoding="utf-8")).words))


@pytest.fixture(scope="module")
def solved(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A brick of steel, pulled and solved."""
    folder = tmp_path_factory.mktemp("solved")
    brick(folder, "hex8")
    (folder / "part.toml").write_text(CASES)
    new(folder / "part.msh", folder / "part.toml", folder / "work")
    assert run(folder / "work", vk_rund=program()).ok
    return folder / "work"


def test_a_report_names_load_cases_units_materials_and_loads(solved: Path) -> None:
    words = words_of(solved, Wanted(title="A steel brick"))
    for said in (
        "A steel brick",
        "Units: mm-N-MPa.",
        "load case 2, twice",
        "steel",
        "2 × pull",
        "2 of 2 load cases solved",
        "least safety factor",
        "Quality of 8-node hexahedra",
        "sum of loads x [N]",
    ):
        assert said in words, said
    assert "What isn't here" not in words


def test_safety_can_be_shown_with_what_is_safe_enough_alike(solved: Path) -> None:
    model = read(solved)
    model.materials[0].yield_stress *= 18.0  # puts factors on both sides of 10
    facts = case_facts(model, solved, 1, ("safety",))
    values = facts.fields["safety"][np.isfinite(facts.fields["safety"])]
    least = min(one.factor for one in facts.safety)
    assert least < 10.0 and values.min() == pytest.approx(least, rel=1e-6)
    assert values.max() == 10.0
    write_report(solved, solved.parent / "safe.html", Wanted(fields=("safety",)))
    assert (
        "yield stress over von Mises stress, 10 and more alike"
        in (solved.parent / "safe.html").read_text()
    )


def test_safety_needs_a_yield_stress(tmp_path: Path) -> None:
    solved_model(tmp_path / "box")
    with pytest.raises(ValueError, match="no isotropic material has a yield_stress"):
        write_report(tmp_path / "box", tmp_path / "box.html", Wanted(fields=("safety",)))


def test_reactions_are_the_loads_with_the_other_sign(solved: Path) -> None:
    words = words_of(solved)
    found = re.search(r"load case 2, twice wall fixed \d+ (-?[\d.]+) (-?[\d.]+) (-?[\d.]+)", words)
    assert found is not None, words
    assert [float(part) for part in found.groups()] == pytest.approx([-2000.0, 0.0, 0.0], abs=0.5)
    assert "reactions balance loads but for" in words


def test_a_model_before_its_run_is_told_without_results(tmp_path: Path) -> None:
    small_box(tmp_path / "box")
    words = words_of(tmp_path / "box")
    assert "Results: no load case has been solved" in words
    assert "A log: the solver hasn't been run here." in words
    assert "not solved" in words
    assert "In short" in words
    assert "Reactions" not in words


def test_two_solved_load_cases_of_five_are_told_as_two(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("a", "b", "c", "d", "e"))
    for number in (1, 3, 4):
        for path in (tmp_path / "box").glob(f"ws.*.{number:04d}"):
            path.unlink()
    words = words_of(tmp_path / "box")
    assert "2 of 5 load cases solved" in words
    assert "load case 2, b" in words
    assert "load case 5, e" in words
    assert words.count("not solved") == 3


def test_load_cases_and_fields_can_be_chosen(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("first", "second"))
    words = words_of(tmp_path / "box", Wanted(cases=(2,), fields=("magnitude",)))
    assert "load case 2, second" in words
    assert "not shown" in words
    assert "von_mises" not in words
    with pytest.raises(ValueError, match="load case 7 has no results"):
        words_of(tmp_path / "box", Wanted(cases=(7,)))


def test_displacements_that_are_no_numbers_are_told_and_the_rest_is_shown(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("good", "bad"))
    shift = formats.read_displacements(tmp_path / "box", 2).copy()
    shift[5] = np.nan
    formats.write_displacements(tmp_path / "box", 2, shift)
    words = words_of(tmp_path / "box")
    assert "load case 2, bad left displacements that aren't all numbers" in words
    assert "load case 1, good" in words


def test_a_poor_solution_is_told_as_one(tmp_path: Path) -> None:
    solved_box(tmp_path / "box")
    totals = formats.read_totals(tmp_path / "box", 1).copy()
    totals["ARQua"] = 0.6
    formats.write_totals(tmp_path / "box", 1, totals)
    words = words_of(tmp_path / "box")
    assert "was solved too poorly to leave displacements" in words
    assert "solved poorly" in words


def test_results_of_another_model_and_cut_files_are_told(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("good", "of another", "cut"))
    formats.write_stress(tmp_path / "box", 2, np.zeros(7))
    cut = next((tmp_path / "box").glob("ws.comval.0003"))
    cut.write_bytes(cut.read_bytes()[:5])
    words = words_of(tmp_path / "box")
    assert "Results of load case 2 can't be shown: load case 2 has 7 stresses" in words
    assert "Results of load case 3 can't be shown" in words


def test_a_run_that_broke_off_or_stopped_is_told(tmp_path: Path) -> None:
    solved_box(tmp_path / "box")
    log = tmp_path / "box" / formats.LOG_FILE
    lines = log.read_text().splitlines(keepends=True)
    log.write_text("".join(lines[:3]))
    assert "The run has not ended." in words_of(tmp_path / "box")
    log.write_text("".join(lines[:3]) + "Error<Msg:Too little memory>\n")
    assert "The run stopped: Too little memory" in words_of(tmp_path / "box")


def test_names_that_are_markup_stay_texts(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("one", EVIL))
    model = read(tmp_path / "box")
    evil = formats.Condition("fixed", (EVIL,))
    cases = tuple(formats.NotedCase(EVIL, (EVIL,), {EVIL: 2.0}) for _ in model.load_cases)
    formats.write_case_notes(
        tmp_path / "box", formats.CaseNotes(EVIL, (None,), {EVIL: evil}, {EVIL: evil}, cases)
    )
    out = tmp_path / "report.html"
    write_report(tmp_path / "box", out, Wanted(title=EVIL))
    page = Words(out.read_text(encoding="utf-8"))
    assert page.tags.count("script") == 2
    assert page.tags.count("img") == 2  # its own pictures of two load cases
    assert EVIL in "".join(page.words)


def test_an_optimisations_history_is_told_and_a_damaged_one_too(tmp_path: Path) -> None:
    solved_box(tmp_path / "box")
    folder_of(tmp_path / "box").mkdir()
    rows = [HistoryRow(k, 90.0 + k, 1.0 - 0.1 * k, 0.3, 0.01, 1.0, 2.0, {1: 3.0}) for k in (1, 2)]
    write_history(tmp_path / "box", rows)
    assert "2 steps: the objective went from 91 to 92" in words_of(tmp_path / "box")
    (folder_of(tmp_path / "box") / "history.csv").write_text("step\nx\n")
    assert "The optimisation's history can't be read" in words_of(tmp_path / "box")


def test_a_level_field_without_material_leaves_the_words(tmp_path: Path) -> None:
    model = make_model()
    model.set_level(np.full(len(model.nodes), -1.0))
    write_results(model, tmp_path / "box")
    words = words_of(tmp_path / "box")
    assert "the level field leaves no material" in words
    assert "The part in three dimensions" in words


def test_a_simplified_surface_is_told(tmp_path: Path) -> None:
    write_results(make_model("tet4", (16, 8, 8)), tmp_path / "box")
    written = write_report(tmp_path / "box", tmp_path / "r.html", Wanted(triangles=200))
    assert written.found == 2 * 2 * (128 + 128 + 64)
    assert written.triangles <= 200
    page = (tmp_path / "r.html").read_text(encoding="utf-8")
    assert f"The surface has 1280 triangles; it is simplified to {written.triangles}." in page


def test_loads_of_a_load_case_without_results_are_not_lost(tmp_path: Path) -> None:
    small_box(tmp_path / "box")
    model = read(tmp_path / "box")
    model.load_cases[0].load([1, 2], (1.0, 0.0, 0.0))
    write_load_cases(model.load_cases, tmp_path / "box", model.run_order)
    assert "loaded nodes" in words_of(tmp_path / "box")
