"""The study file: what it says, and every mistake in a sentence with its line."""

from __future__ import annotations

from pathlib import Path

import pytest
from new_parts import problems

from vkctl.study import read_study, variants_of

from .small_studies import PARAMETERS, RESULTS, write_study

SAMPLED = '[parameters.E]\nkey = "materials.unit.E"\nbetween = [1, 2]\n'
FORCE = '[parameters.force]\nkey = "loads.down.value.y"\n'
COLUMN = FORCE + 'column = "F"\n'
OF_TABLE = 'table = "table.csv"'


def test_a_study_file_is_read(tmp_path: Path) -> None:
    study = read_study(write_study(tmp_path))
    assert [p.name for p in study.parameters] == ["force", "modulus"]
    assert study.parameters[0].base == -1 and study.parameters[1].base == 1.0
    assert (study.load_cases, study.numbers) == (("down", "along"), (1, 2))
    assert [w.value for w in study.wanted] == ["strain_energy", "von_mises"]


def test_a_parameter_may_be_named_by_its_key_and_set_several(tmp_path: Path) -> None:
    text = '[parameters."materials.unit.E"]\nvalues = [1, 3]\n' + FORCE.replace(
        '"loads.down.value.y"', '["loads.down.value.y", "loads.along.value.x"]'
    )
    study = read_study(write_study(tmp_path, text + "values = [5.0]\n" + RESULTS))
    assert study.parameters[0].places == (("materials", "unit", "E"),)
    assert len(study.parameters[1].places) == 2


@pytest.mark.parametrize(
    ("parameters", "results", "head", "words"),
    [
        ("", RESULTS, "", ": no parameters; add a table [parameters.NAME] with a 'key'"),
        (PARAMETERS, "", "", ": no results; add a table [results.NAME] with a 'value'"),
        (FORCE, RESULTS, "", "needs one of 'values', 'range', 'between' and 'column'"),
        (FORCE + "values = [1.0]\nrange = [1, 2, 3]\n", RESULTS, "", "can have only one of"),
        (FORCE + "values = []\n", RESULTS, "", "values in [parameters.force] is empty"),
        (FORCE + "values = 3\n", RESULTS, "", "must be a list"),
        (FORCE + 'values = [1, "two"]\n', RESULTS, "", "holds 'two', a number is wanted"),
        (FORCE + "values = [1, nan]\n", RESULTS, "", "holds nan, which isn't finite"),
        (FORCE + "values = [1, true]\n", RESULTS, "", "holds True, a number is wanted"),
        (FORCE + "values = [1, 2, 1]\n", RESULTS, "", "has a value twice"),
        (FORCE + "range = [1, 1, 3]\n", RESULTS, "", "is empty: 1 isn't below 1"),
        (FORCE + "range = [2, 1, 3]\n", RESULTS, "", "is empty: 2 isn't below 1"),
        (FORCE + "range = [1, 2]\n", RESULTS, "", "three numbers: from, to, how many"),
        (FORCE + "range = [1, 2, 1]\n", RESULTS, "", "how many values, 2 or more, not 1"),
        (FORCE + "range = [1, 3, 9]\nwhole = true\n", RESULTS, "", "fewer than 9 whole numbers"),
        (FORCE + "range = [1, inf, 9]\n", RESULTS, "", "holds inf, which isn't finite"),
        (FORCE + 'range = [0, 2, 3]\nspacing = "log"\n', RESULTS, "", "must be above 0"),
        (FORCE + 'values = [1]\nspacing = "log"\n', RESULTS, "", "on 'range' and 'between' alone"),
        (FORCE + "vales = [1]\n", RESULTS, "", "needs one of"),
        ('[parameters.x]\nkey = "no.key"\nvalues = [1]\n', RESULTS, "", "no 'no'"),
        ("[parameters.x]\nvalues = [1]\n", RESULTS, "", "key 'x' in [parameters.x] isn't in the"),
        ('[parameters.k]\nkey = "supports.wall.set"\nrange = [1, 2, 3]\n', RESULTS, "", "a text"),
        (FORCE + 'values = [1]\n[parameters.b]\nkey = "loads.down.value.y"\nvalues = [2]\n',
         RESULTS, "", "'b' sets loads.down.value.y, which 'force' sets already"),
        (FORCE.replace("force", "stress") + "values = [1]\n", RESULTS, "",
         "the name 'stress' is that of a parameter already"),
        (FORCE.replace("force", "status") + "values = [1]\n", RESULTS, "",
         "the name 'status' is that of a column of every study already"),
        (SAMPLED, RESULTS, "", "'E' is to be sampled, and there is no [sample]"),
        (SAMPLED + "[sample]\n", RESULTS, "", "[sample] has no 'count'"),
        (SAMPLED + "[sample]\ncount = 0\n", RESULTS, "", "must be at least 1, not 0"),
        (SAMPLED + '[sample]\ncount = 4\nmethod = "monte"\n', RESULTS, "", "can't be 'monte'"),
        (PARAMETERS + "[sample]\ncount = 4\n", RESULTS, "", "[sample] has nothing to sample"),
        (SAMPLED.replace("[1, 2]", "[2, 2]") + "[sample]\ncount = 2\n", RESULTS, "", "is empty"),
        (SAMPLED.replace("[1, 2]", '[1, "x"]') + "[sample]\ncount = 2\n", RESULTS, "",
         "holds 'x', a number is wanted"),
        (COLUMN, RESULTS, "", "'force' has a column, and there is no table"),
        (PARAMETERS, RESULTS, OF_TABLE, "is used by no parameter"),
        (PARAMETERS, RESULTS, 'do = "guess"', "can't be 'guess'"),
        (PARAMETERS, RESULTS, 'do = "optimise"\nmode = "direct"', "no effect on an optimisation"),
        (PARAMETERS, RESULTS, "tolerance = 0.1", 'has an effect on do = "settle" alone'),
        (PARAMETERS, RESULTS, 'keep = "some"', "can't be 'some'"),
        (PARAMETERS, RESULTS, 'keep = { best = 2, by = "stres" }', "did you mean 'stress'?"),
        (PARAMETERS, RESULTS, "colour = 1", "unknown key 'colour'"),
        (PARAMETERS, '[results.a]\nvalue = "mises"\n', "", "can't be 'mises'"),
        (PARAMETERS, "[results.a]\n", "", "[results.a] has no 'value'"),
        (PARAMETERS, '[results.a]\nvalue = "steps"\n', "", "told by an optimisation alone"),
        (PARAMETERS, '[results.a]\nvalue = "von_mises"\ntake = "percentile"\n', "",
         "has no 'percentile'"),
        (PARAMETERS, '[results.a]\nvalue = "von_mises"\npercentile = 3\n', "",
         "take = 'percentile'"),
        (PARAMETERS, '[results.a]\nvalue = "nodes"\nload_case = "down"\n', "", "has no effect"),
        (PARAMETERS, '[results.a]\nvalue = "quality"\nset = "tip"\n', "", "has no effect"),
        (PARAMETERS, '[results.a]\nvalue = "quality"\nload_case = "dwn"\n', "",
         "did you mean 'down'?"),
    ],
)  # fmt: skip
def test_a_mistake_is_told_in_a_sentence(
    tmp_path: Path, parameters: str, results: str, head: str, words: str
) -> None:
    path = write_study(tmp_path, parameters + results, head)
    found = problems(lambda: variants_of(read_study(path)))
    assert any(words in f": {text}" for _, text in found), found


@pytest.mark.parametrize(
    ("content", "words"),
    [
        (None, "can't be read: there is no such file"),
        (b"", "is empty"),
        (b"F\n", "has no rows"),
        (b"G\n1\n", "has no column 'F'; it has G"),
        (b"F,G\n1,2\n", "has a column 'G' that no parameter takes"),
        (b"F,F\n1,2\n", "has the column 'F' twice"),
        (b"F\n1\nmuch\n", "column 'F' holds 'much', a number is wanted"),
        (b"F\n1\n\ninf\n", "column 'F' holds inf, which isn't finite"),
        (b"F\n1,2\n", "has 2 cells, the first line 1"),
        (b"F\n\xff\n", "isn't UTF-8"),
        (b'F\n"1\n', "isn't a table"),
    ],
)
def test_a_table_that_does_not_fit_is_told(
    tmp_path: Path, content: bytes | None, words: str
) -> None:
    path = write_study(tmp_path, COLUMN + RESULTS, OF_TABLE)
    if content is not None:
        (tmp_path / "table.csv").write_bytes(content)
    found = problems(lambda: variants_of(read_study(path)))
    assert any(words in text for _, text in found), found


def test_the_lines_of_a_table_are_told(tmp_path: Path) -> None:
    path = write_study(tmp_path, COLUMN + RESULTS, OF_TABLE)
    (tmp_path / "table.csv").write_text("F\n1\n\nx\n2\ny\n")
    assert [line for line, _ in problems(lambda: variants_of(read_study(path)))] == [4, 6]


def test_more_variants_than_anybody_can_mean_are_refused(tmp_path: Path) -> None:
    text = FORCE + 'range = [1, 2, 1001]\n[parameters.E]\nkey = "materials.unit.E"\n'
    path = write_study(tmp_path, text + "range = [1, 2, 1001]\n" + RESULTS)
    assert "1002001 variants" in problems(lambda: variants_of(read_study(path)))[0][1]


def test_a_case_file_that_names_no_part_is_refused(tmp_path: Path) -> None:
    path = write_study(tmp_path)
    cases = tmp_path / "cases.toml"
    cases.write_text(cases.read_text().replace('part = "part.vtu"', ""))
    assert "names no part" in problems(lambda: read_study(path))[0][1]
