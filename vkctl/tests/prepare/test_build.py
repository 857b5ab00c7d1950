"""Models from parts and case files, solved and compared with closed forms."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from new_parts import CASES, ROOT, brick, case_file, plate, prepared, solve

from vkctl.directory import formats, model
from vkctl.directory.formats import file_names
from vkctl.directory.results import read_results
from vkctl.prepare import CaseFileError, PartError, build, new

KINDS = ("tet4", "tet10", "hex8")
DIRECTORY = "run"


@pytest.fixture(scope="module", params=KINDS)
def part(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), request.param) / "part.msh"


# Holds the block so that it can stretch freely in all directions.
SLIDING = """
[materials.steel]
E = 1000.0
nu = 0.25
density = 2.0
expansion = 1e-3

[face_sets.front]
plane = { point = [0, 0, 0], normal = [0, 1, 0] }
[face_sets.bottom]
plane = { point = [0, 0, 0], normal = [0, 0, 1] }
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }

[supports.no_x]
set = "left"
directions = "x"
[supports.no_y]
set = "front"
directions = "y"
[supports.no_z]
set = "bottom"
directions = "z"
"""

# Share of the stiffness at the level 1 with the default steepness 500.
PRESENCE = (np.arctan(500.0) / np.pi + 0.5) * 0.999 + 0.001


def displacements(directory: Path, number: int = 1) -> np.ndarray:
    result = read_results(directory, number)
    assert result.quality > 0.9 and result.displacements is not None
    return np.asarray(result.displacements, float)


def test_a_stretched_heated_and_pushed_block_moves_as_it_should(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.pull]
    type = "traction"
    set = "right"
    value = [10, 0, 0]
    [loads.force]
    type = "force"
    set = "right"
    value = [20, 0, 0]
    [loads.suction]
    type = "pressure"
    set = "right"
    value = -10
    [loads.heat]
    type = "temperature"
    value = "30"
    reference = 20
    [supports.push]
    type = "prescribed"
    set = "right"
    directions = "x"
    value = ["0.01 * x", 0, 0]

    [[load_case]]
    name = "traction"
    supports = ["no_x", "no_y", "no_z"]
    loads = ["pull"]
    [[load_case]]
    name = "moved"
    loads = []
    [[load_case]]
    name = "force"
    supports = ["no_x", "no_y", "no_z"]
    loads = ["force"]
    [[load_case]]
    name = "pressure"
    supports = ["no_x", "no_y", "no_z"]
    loads = ["suction"]
    [[load_case]]
    name = "heat"
    supports = ["no_x", "no_y", "no_z"]
    loads = ["heat"]
    """
    directory = tmp_path / DIRECTORY
    result = new(part, case_file(tmp_path, text, SLIDING), directory)
    assert [case.pattern for case in result.model.load_cases] == [1, 2, 1, 1, 1]
    solve(directory)
    nodes = result.model.nodes
    stretched = nodes * (0.01, -0.0025, -0.0025)
    np.testing.assert_allclose(displacements(directory, 2), stretched, atol=1e-6)
    for number in (1, 3, 4):
        moved = displacements(directory, number)
        np.testing.assert_allclose(moved, stretched / PRESENCE, atol=1e-6)
    np.testing.assert_allclose(displacements(directory, 5), nodes * 0.01, atol=1e-6)


def test_a_standing_column_sinks_under_its_weight(part: Path, tmp_path: Path) -> None:
    base = SLIDING.replace("nu = 0.25", "nu = 0.0")
    text = '[loads.weight]\ntype = "gravity"\nvalue = [-5, 0, 0]\n'
    directory = tmp_path / DIRECTORY
    result = new(part, case_file(tmp_path, text, base), directory)
    solve(directory)
    x = result.model.nodes[:, 0]
    moved = displacements(directory)[:, 0]
    exact = -2.0 * 5 / 1000 * (4 * x - x**2 / 2)
    at_end = np.abs(x - 4) < 1e-6
    assert moved[at_end].mean() == pytest.approx(exact[at_end].mean(), rel=1e-2)
    assert result.resultants[0, 0] == pytest.approx(-2 * 5 * 8, rel=1e-5)


ELASTIC = """
[materials.stiff]
E = 1e6
nu = 0.0
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }
[supports.bed]
type = "elastic"
set = "left"
"""


@pytest.mark.parametrize(
    ("keys", "unit"),
    [
        ('stiffness = 200\nper = "total"\n', 1.0),
        ('stiffness = 100\nper = "area"\n', 1.0),
        ('stiffness = 100\nper = "area"\n', 40.0),
    ],
)
def test_a_stiff_block_on_springs_moves_by_force_over_stiffness(
    part: Path, tmp_path: Path, keys: str, unit: float
) -> None:
    text = keys + "offset = [0.05, 0, 0]\n"
    text += '[loads.f]\ntype = "force"\nset = "right"\nvalue = [10, 0, 0]\n'
    text += f"[options]\nSta.SupportStiffness = {unit}\n"
    directory = tmp_path / DIRECTORY
    new(part, case_file(tmp_path, text, ELASTIC), directory)
    solve(directory)
    # The left face has the area 2; the offset moves the springs' rest by 0.05.
    moved = displacements(directory)
    assert moved[:, 0].mean() == pytest.approx(10 / 200 + 0.05, rel=1e-3)
    np.testing.assert_allclose(moved[:, 1:], 0, atol=1e-4)


def test_springs_act_along_their_axes(block: Path, tmp_path: Path) -> None:
    text = "axes = [[3, 0, 4], [0, 7, 0], [-4, 0, 3]]\nstiffness = [200, 50, 800]\n"
    text += 'per = "total"\n[loads.f]\ntype = "force"\nset = "right"\nvalue = [6, 0, 8]\n'
    directory = tmp_path / DIRECTORY
    result = new(block, case_file(tmp_path, text, ELASTIC), directory)
    rows = result.model.load_cases[0].constraints
    axes = rows["Axis"].astype(float)
    stiffness = np.einsum("nki,nkj->ij", axes, axes)
    unit = np.array(((0.6, 0, 0.8), (0, 1, 0), (-0.8, 0, 0.6)))
    np.testing.assert_allclose(stiffness, unit.T @ np.diag((200, 50, 800)) @ unit, rtol=1e-5)
    # Moments tilt the block, so only the mean over the bed follows from the forces.
    solve(directory)
    moved = displacements(directory)[rows["Node"] - 1].mean(axis=0)
    np.testing.assert_allclose(moved, np.array((0.6, 0, 0.8)) * 10 / 200, rtol=1e-3, atol=1e-5)


def test_elastic_supports_without_a_stiffness_have_unit_axes(block: Path, tmp_path: Path) -> None:
    rows = prepared(block, tmp_path, "", ELASTIC).model.load_cases[0].constraints
    np.testing.assert_array_equal(rows["Axis"], np.broadcast_to(np.eye(3), rows["Axis"].shape))
    assert np.all(rows["Kind"] == 1) and np.all(rows["DofMask"] == 7)


def test_patterns_follow_from_the_supports(block: Path, tmp_path: Path) -> None:
    text = """
    [supports.push]
    type = "prescribed"
    set = "right"
    value = [0.1, 0, 0]
    directions = "x"
    [supports.push_more]
    type = "prescribed"
    set = "right"
    value = [0.2, 0, 0]
    directions = "x"
    [supports.hold]
    type = "prescribed"
    set = "right"
    value = [0, 0, 0]
    directions = "x"
    [supports.bed]
    type = "elastic"
    set = "right"
    [supports.shifted_bed]
    type = "elastic"
    set = "right"
    offset = [0.1, 0, 0]
    [supports.turned_bed]
    type = "elastic"
    set = "right"
    axes = [[1, 1, 0], [1, -1, 0], [0, 0, 1]]
    [face_sets.right]
    plane = { point = [4, 0, 0], normal = [1, 0, 0] }
    """
    chosen = [
        ("push", 1),
        ("hold", 2),
        ("push_more", 1),
        ("bed", 3),
        ("turned_bed", 4),
        ("shifted_bed", 3),
        ("hold", 2),
    ]
    for name, _ in chosen:
        text += f'[[load_case]]\nsupports = ["clamp", "{name}"]\nloads = []\n'
    text += '[[load_case]]\nsupports = ["push", "clamp"]\nloads = []\n'
    result = prepared(block, tmp_path, text)
    found = [case.pattern for case in result.model.load_cases]
    # Prescribed values are found by row, so another order of the rows is another pattern.
    assert found == [pattern for _, pattern in chosen] + [5]
    assert np.asarray(result.model.run_order).tolist() == [1, 3, 2, 7, 4, 6, 5, 8]


def test_load_cases_of_one_pattern_give_what_they_give_alone(block: Path, tmp_path: Path) -> None:
    sets = "[face_sets.right]\nplane = { point = [4, 0, 0], normal = [1, 0, 0] }\n"
    text = sets
    for name, value in (("a", 0.1), ("b", -0.3)):
        text += f'[supports.{name}]\ntype = "prescribed"\nset = "right"\n'
        text += f"value = [{value}, 0, 0]\n"
    both = '[[load_case]]\nsupports = ["clamp", "a"]\n[[load_case]]\nsupports = ["clamp", "b"]\n'
    result = new(block, case_file(tmp_path, text + both), tmp_path / DIRECTORY)
    assert [case.pattern for case in result.model.load_cases] == [1, 1]
    solve(tmp_path / DIRECTORY)
    first, second = (displacements(tmp_path / DIRECTORY, n) for n in (1, 2))
    np.testing.assert_allclose(second, -3 * first, atol=1e-6)


def test_flags_names_and_order_of_load_cases_are_written(block: Path, tmp_path: Path) -> None:
    text = """
    [[load_case]]
    name = "größer"
    [[load_case]]
    name = "later"
    requested = false
    [[load_case]]
    name = "never"
    excluded = true
    """
    base = 'run_order = ["never", "größer", "later"]\n' + CASES
    new(block, case_file(tmp_path, text, base), tmp_path / DIRECTORY)
    cases, order = model.read_load_cases(tmp_path / DIRECTORY)
    assert [case.flags for case in cases] == [1, 0, 5]
    assert [case.will_run for case in cases] == [True, False, False]
    assert order.tolist() == [3, 1, 2]
    assert cases[0].reserved.decode() == "größer"


def test_materials_flags_options_and_level_survive_the_files(block: Path, tmp_path: Path) -> None:
    text = """
    [materials.rubber]
    kind = "compression_only"
    E = 10
    nu = 0.45
    yield_stress = 3
    elements = "pad"
    [materials.soft]
    kind = "yielding"
    E = 70000
    nu = 0.33
    yield_stress = 200
    hardening_ratio = 0.01
    limit_stress = 150
    elements = "rim"
    [materials.wood]
    kind = "orthotropic"
    E = [12000, 800, 400]
    nu = [0.4, 0.4, 0.3]
    G = [700, 600, 100]
    expansion = [1e-6, 2e-6, 3e-6]
    elements = "beam"
    [element_sets.pad]
    where = "x < 0.9"
    [element_sets.rim]
    where = "x > 3.1"
    [element_sets.beam]
    where = "0.9 < x < 2"
    [model]
    ignore_level = "rim"
    marked_nodes = "left"
    [level]
    set = "pad"
    value = "z - 0.5"
    [loads.f]
    type = "force"
    set = "left"
    value = [0, 0, 1]
    [options]
    Sta.YieldStressFac = 2.5
    Sys.MaxNumCompThreads = -1
    """
    result = new(block, case_file(tmp_path, text), tmp_path / DIRECTORY)
    read = model.read(tmp_path / DIRECTORY)
    assert [m.name for m in read.materials] == ["steel", "rubber", "soft", "wood"]
    assert [m.flags for m in read.materials] == [1 << 8, 1 << 10, 1 << 9, 1 << 11]
    assert [m.yield_stress for m in read.materials] == [0, 3, 200, 0]
    assert read.materials[2].limit_stress == 150 and read.materials[3].moduli[0] == 12000
    assert np.bincount(read.elements.materials).tolist() == [0, 12, 6, 6, 12]
    assert read.element_flags is not None and read.node_flags is not None
    assert np.count_nonzero(read.element_flags == formats.ELEMENT_NO_LEVEL) == 6
    left = result.sets.nodes("left", ())
    assert (np.flatnonzero(read.node_flags == formats.NODE_NO_LOADS) + 1).tolist() == left.tolist()
    assert len(read.tp) == len(result.sets.nodes("pad", ()))
    assert read.options == {"Sta.YieldStressFac": 2.5, "Sys.MaxNumCompThreads": -1}
    assert any("skips forces on 12 marked nodes" in note for note in result.notes)


def test_results_of_an_earlier_model_are_removed_and_nothing_else(
    block: Path, tmp_path: Path
) -> None:
    directory = tmp_path / DIRECTORY
    case = '[[load_case]]\nname = "a"\n'
    text = '[loads.f]\ntype = "force"\nset = "free"\nvalue = [0, 0, 1]\n'
    text += "[node_sets.free]\nnearest = [4, 2, 1]\n"
    new(block, case_file(tmp_path, text + case + case.replace('"a"', '"b"')), directory)
    solve(directory)
    (directory / "notes.txt").write_text("mine")
    assert (directory / "ws.sstate.0002").exists()
    result = new(block, case_file(tmp_path, text + case), directory)
    assert not list(directory.glob("ws.*")) and (directory / "notes.txt").exists()
    assert not (directory / "mxs.lcmap.0002").exists()
    assert any("result files of an earlier model" in note for note in result.notes)


def test_the_same_part_from_all_formats_gives_the_same_directory(tmp_path: Path) -> None:
    plate(tmp_path)
    for ending in ("msh", "inp", "vtu"):
        name = "CellEntityIds:1" if ending == "vtu" else "left"
        text = """
        [face_sets.hole]
        cylinder = { point = [2, 1, 0], axis = [0, 0, 1], radius = 0.5, tolerance = 1e-4 }
        [loads.oil]
        type = "pressure"
        set = "hole"
        value = "1 + z"
        """
        path = case_file(tmp_path, text, CASES.replace('"left"', f'"{name}"'))
        new(tmp_path / f"part.{ending}", path, tmp_path / ending)
    for file in sorted((tmp_path / "msh").iterdir()):
        if file.name == file_names.SETS:  # each format brings other sets along
            continue
        assert file.read_bytes() == (tmp_path / "inp" / file.name).read_bytes(), file.name
    read = [model.read(tmp_path / ending) for ending in ("msh", "vtu")]
    holes = [next(s for s in m.sets or [] if s.name == "hole").own_nodes() for m in read]
    np.testing.assert_array_equal(holes[0], holes[1])
    np.testing.assert_array_equal(read[0].elements.tet10, read[1].elements.tet10)
    np.testing.assert_allclose(read[0].nodes, read[1].nodes, atol=1e-6)
    forces = [m.load_cases[0].forces2 for m in read]
    np.testing.assert_array_equal(forces[0]["Node"], forces[1]["Node"])
    np.testing.assert_allclose(forces[0]["Force"], forces[1]["Force"], atol=1e-5)


def test_the_case_file_can_name_its_part(tmp_path: Path) -> None:
    brick(tmp_path, "hex8", (2, 1, 1))
    path = case_file(tmp_path, "", 'part = "part.msh"\n' + CASES)
    assert len(build(None, path).mesh.elements) == 2
    with pytest.raises(CaseFileError, match="names no part; add part = 'FILE'"):
        build(None, case_file(tmp_path, ""))
    with pytest.raises(PartError, match="gone.msh: no such file"):
        build(None, case_file(tmp_path, "", 'part = "gone.msh"\n' + CASES))


FOLDER = ROOT / "vkctl" / "examples"
EXAMPLES = sorted(path for path in FOLDER.glob("*.toml") if not path.stem.endswith("-study"))


@pytest.mark.parametrize("path", EXAMPLES, ids=lambda path: path.stem)
def test_examples_make_a_model(path: Path, tmp_path: Path) -> None:
    result = new(None, path, tmp_path / DIRECTORY)
    assert len(result.model.nodes) > 500 and len(result.model.load_cases) >= 1
    is_designed = "[level]" in path.read_text()
    assert (len(result.model.tp) > 500) == is_designed
    assert all(case.will_run for case in result.model.load_cases)
    assert np.all(np.abs(result.resultants[:, :3]).max(axis=1) > 0)


def test_the_example_of_the_reference_makes_a_model(tmp_path: Path) -> None:
    brick(tmp_path, "tet10").joinpath("part.msh").rename(tmp_path / "block.msh")
    text = (ROOT / "docs" / "case-file.md").read_text("utf-8")
    example = text.split("```toml\n")[1].split("```")[0]
    result = build(None, case_file(tmp_path, example, ""))
    assert result.case_names == ["pull", "pull and weight"]
    np.testing.assert_allclose(result.resultants[1, :3], (30, 0, -7.85e-9 * 9810 * 8), rtol=1e-5)


def test_there_are_examples() -> None:
    names = {path.stem for path in EXAMPLES}
    assert {"cantilever", "mbb-beam", "l-bracket", "bracket"} <= names
