"""Mistakes in a case file are told with their line and a suggestion."""

from __future__ import annotations

from pathlib import Path

import pytest
from case_texts import GOOD
from new_parts import schema_problems

from vkctl.prepare import CaseFileError, read_cases


def test_a_good_file_is_read_completely(tmp_path: Path) -> None:
    path = tmp_path / "good.toml"
    path.write_text(GOOD)
    cases = read_cases(path)
    assert cases.part == "plate.msh" and cases.run_order == [2, 1]
    assert cases.mesh.size == 1.5 and cases.mesh.order == 1 and cases.scale == 0.001
    assert cases.exclude == ("void",) and cases.ignore_level == ("rim", "bolt")
    assert cases.materials["rubber"].material.has_state
    assert cases.materials["wood"].material.shear == (700.0, 600.0, 100.0)
    assert [name for name, _ in cases.sets] == ["tip", "core", "top"]
    assert cases.supports["push"].directions == "xz"
    assert cases.supports["bed"].stiffness == (1.0, 2.0, 3.0)
    assert cases.loads["heat"].reference == 20
    assert cases.load_cases[0].loads == {"tip": 1.0, "heat": 1.0}
    assert cases.load_cases[1].loads == {"tip": 1.5, "oil": -1.0}
    assert cases.load_cases[1].supports == ("clamp", "push", "bed")
    assert not cases.load_cases[1].requested
    assert cases.options == {"Sta.BStressExp": 6, "Sys.ComputationMode": 2}


def test_without_load_cases_one_holds_everything(tmp_path: Path) -> None:
    path = tmp_path / "good.toml"
    head, rest = GOOD.replace('run_order = ["second", "first"]\n', "").split("[[load_case]]", 1)
    path.write_text(head)
    (entry,) = read_cases(path).load_cases
    assert entry.supports == ("clamp", "push", "bed")
    assert entry.loads == {"tip": 1.0, "oil": 1.0, "heat": 1.0}


# A line of GOOD, what stands there instead, and what the message has to say.
MISTAKES = [
    ("nu = 0.3", "nuu = 0.3", "unknown key 'nuu' in [materials.steel]; did you mean 'nu'?"),
    ("nu = 0.3", "nu = 0.5", "nu in [materials.steel] must be below 0.5, not 0.5"),
    ("nu = 0.3", "nu = '0.3'", "nu in [materials.steel] must be a number, not '0.3'"),
    ("E = 210000.0", "E = -1", "E in [materials.steel] must be above 0, not -1"),
    ("E = 210000.0", "E = inf", "E in [materials.steel] must be finite, not inf"),
    ("E = 210000.0", "E = 1e39", "E in [materials.steel] is too large for a 32-bit number: 1e+39"),
    ("density = 7.85e-9", "densty = 1", "unknown key 'densty' in [materials.steel]; did you mean"),
    ('kind = "compression_only"', 'kind = "compresion"', "did you mean 'compression_only'?"),
    ("G = [700, 600, 100]", "G = [700, 600]", "G in [materials.wood] must be three numbers"),
    ("nu = [0.4, 0.4, 0.3]", "nu = [4, 4, 3]", "gives a material of negative stiffness; the"),
    ("E = [12000, 800, 400]", "E = [0, 800, 400]", "must be three numbers above 0"),
    ("order = 1", "order = 3", "order in [mesh] must be 1 or 2, not 3"),
    ("order = 1", "order = 1.0", "order in [mesh] must be a whole number, not 1.0"),
    ("size = 1.5", "siz = 1.5", "unknown key 'siz' in [mesh]; did you mean 'size'?"),
    ("scale = 0.001", "scale = 0", "scale in [mesh] must be above 0, not 0"),
    ('exclude = "void"', "exclude = 3", "must be a name or a list of names, not 3"),
    ("nearest = [4, 1, 1]", "nearest = [4, 1, true]", "must be a number, not True"),
    ("nearest = [4, 1, 1]", "nearst = [4, 1, 1]", "did you mean 'nearest'?"),
    ("box = { min = [0, 0, 0], max = [1, 1, 1] }", "box = { min = [0, 0, 0] }", "has no 'max'"),
    (
        "box = { min = [0, 0, 0], max = [1, 1, 1] }",
        "box = { min = [0, 0, 2], max = [1, 1, 1] }",
        "min in [element_sets.core.box] is above max",
    ),
    ("normal = { direction = [0, 0, 1], angle = 20 }", "normal = [0, 0, 1]", "must be a table"),
    (
        "normal = { direction = [0, 0, 1], angle = 20 }",
        "normal = { direction = [0, 0, 0] }",
        "must not be the zero vector",
    ),
    ('where = "x**2 + y**2 < 1"', 'where = "r < 1"', "unknown name 'r'; known are x, y, z"),
    ('where = "x**2 + y**2 < 1"', 'where = "sgrt(x)"', "did you mean 'sqrt'?"),
    ('where = "x**2 + y**2 < 1"', 'where = "x <"', "a formula that can't be read as a formula"),
    ('where = "x**2 + y**2 < 1"', 'where = "x.real"', "'x.real' is not arithmetic of x, y and z"),
    ('set = "left"', 'sets = "left"', "unknown key 'sets' in [supports.clamp]; did you mean 'set'"),
    ('type = "prescribed"', 'type = "fixd"', "did you mean 'fixed'?"),
    ('type = "prescribed"', "", "has no effect on a fixed support; write type = 'prescribed'"),
    ('directions = "xz"', 'directions = "xw"', "must be letters of 'xyz', not 'xw'"),
    ('value = [0.1, 0, "x / 10"]', "value = 0.1", "must be three numbers or formulas, not 0.1"),
    ("stiffness = [1, 2, 3]", "stiffness = [1, -2, 3]", "must not be negative"),
    ("stiffness = [1, 2, 3]", "", "per in [supports.bed] 'area' needs a 'stiffness'"),
    ('per = "area"', 'per = "face"', "can't be 'face'"),
    ("axes = [[1, 1, 0], [1, -1, 0], [0, 0, 1]]", "axes = [[1, 1, 0]]", "must be 3 vectors"),
    (
        "axes = [[1, 1, 0], [1, -1, 0], [0, 0, 1]]",
        "axes = [[1, 1, 0], [1, -1, 0], [0, 0, 0]]",
        "axes in [supports.bed] holds a zero vector",
    ),
    ('type = "pressure"', 'type = "presure"', "did you mean 'pressure'?"),
    ('type = "pressure"', "", "[loads.oil] has no 'type'"),
    ("value = [0, 0, -1000]", "valu = [0, 0, -1000]", "[loads.tip] has no 'value'"),
    ("value = 80", "", "has neither 'value' nor 'array'; give one of them"),
    ("value = 80", 'value = 80\narray = "T"', "has both 'value' and 'array'"),
    ('supports = ["clamp"]', 'supports = ["clmp"]', "isn't in [supports]; did you mean 'clamp'?"),
    ('loads = ["tip", "heat"]', 'loads = ["tpi"]', "isn't in [loads]; did you mean 'tip'?"),
    ("loads = { tip = 1.5, oil = -1 }", 'loads = { tip = "1" }', "must be a number, not '1'"),
    ('name = "second"', 'name = "first"', "'first' is taken by an earlier load case"),
    ("requested = false", "requested = 0", "must be a truth value, not 0"),
    ("requested = false", "requestd = false", "did you mean 'requested'?"),
    ('run_order = ["second", "first"]', 'run_order = ["second"]', "leaves out first; it has to"),
    (
        'run_order = ["second", "first"]',
        'run_order = ["second", "frist", "first"]',
        "names 'frist', which isn't a load case; did you mean 'first'?",
    ),
    (
        'run_order = ["second", "first"]',
        'run_order = ["second", "first", "first"]',
        "names a load case twice",
    ),
    ("Sta.BStressExp = 6", "Sta.BStresExp = 6", "did you mean 'Sta.BStressExp'?"),
    ("Sta.BStressExp = 6", "Sta.BStressExp = 30", "is 30, the solver takes 24 at most"),
    ("Sta.BStressExp = 6", "Sta.BStressExp = 6.5", "must be a whole number, not 6.5"),
    ('"Sys.ComputationMode" = 2', '"Sys.ComputationMode" = -1', "the solver takes 0 at least"),
    ("[optimise]", "[optimize]", "unknown key 'optimize' in the file; did you mean 'optimise'?"),
]


@pytest.mark.parametrize(("line", "wrong", "words"), MISTAKES)
def test_each_mistake_is_told_with_its_line(
    tmp_path: Path, line: str, wrong: str, words: str
) -> None:
    assert GOOD.count(line + "\n") >= 1
    before, after = GOOD.split(line + "\n", 1)
    found = schema_problems(tmp_path, before + wrong + "\n" + after)
    matching = [number for number, text in found if words in text]
    assert matching, found
    # What is missing is told at the table's header, what contradicts another key at that key.
    number = before.count("\n") + 1
    header = before[: before.rfind("\n[") + 1].count("\n") + 1
    assert matching[0] in (number, number + 1, number + 2, header), found


def test_all_mistakes_are_told_at_once_with_file_and_line(tmp_path: Path) -> None:
    path = tmp_path / "bad.toml"
    path.write_text(GOOD.replace("nu = 0.3\n", "nuu = 0.3\n").replace("size = 1.5", "size = 'big'"))
    with pytest.raises(CaseFileError) as caught:
        read_cases(path)
    lines = str(caught.value).splitlines()
    assert lines[0] == f"{path}:5: size in [mesh] must be a number, not 'big'"
    assert lines[1] == f"{path}:14: [materials.steel] has no 'nu'; is 'nuu' meant to be it?"
    assert lines[2] == f"{path}:16: unknown key 'nuu' in [materials.steel]; did you mean 'nu'?"


@pytest.mark.parametrize(
    ("text", "line", "words"),
    [
        ("[a]\nb = \n", 2, "not TOML: Invalid value in column 5"),
        ("[a]\nb = 1\nb = 2\n", 3, "not TOML: Cannot overwrite a value"),
        ("a = [1,\n2\n", 3, "not TOML"),
        ("", 0, "no materials; add a table [materials.NAME]"),
        ("[materials.a]\nE = 1\nnu = 0\n", 0, "no supports: nothing holds the part"),
        ("materials = 3\n", 1, "must be a table, not 3"),
        (
            "[materials]\nE = 3\n",
            2,
            "E in [materials] must be a table, not 3; write [materials.NAME]",
        ),
        ("[load_case]\nname = 'x'\n", 1, "write [[load_case]] instead of [load_case]"),
        ("[materials.a]\nE=1\nnu=0\n[materials.b]\nE=1\nnu=0\n", 4, "both have no 'elements'"),
    ],
)
def test_mistakes_of_the_file_as_a_whole(tmp_path: Path, text: str, line: int, words: str) -> None:
    assert any(n == line and words in t for n, t in schema_problems(tmp_path, text)), (
        schema_problems(tmp_path, text)
    )


def test_a_missing_file_and_one_that_is_no_text_are_told(tmp_path: Path) -> None:
    with pytest.raises(CaseFileError, match="gone.toml: can't be read"):
        read_cases(tmp_path / "gone.toml")
    (tmp_path / "binary.toml").write_bytes(b"\xff\xfe")
    with pytest.raises(CaseFileError, match="isn't UTF-8"):
        read_cases(tmp_path / "binary.toml")


def test_a_byte_order_mark_is_passed_over(tmp_path: Path) -> None:
    path = tmp_path / "good.toml"
    path.write_bytes(b"\xef\xbb\xbf" + GOOD.encode())
    assert read_cases(path).part == "plate.msh"
    path.write_bytes(b"\xef\xbb\xbf\n" + GOOD.replace("part =", "prat =", 1).encode())
    with pytest.raises(CaseFileError, match="prat"):
        read_cases(path)
