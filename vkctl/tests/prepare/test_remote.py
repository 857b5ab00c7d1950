"""Moments, remote forces, bearings and remote displacements of a case file."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from box_parts import part_of
from new_parts import (
    CASES,
    brick,
    case_file,
    forces,
    plate,
    prepared,
    problems,
    schema_problems,
    solve,
)

from vkctl.directory.results import read_results
from vkctl.prepare import Prepared, build_model, make_mesh, read_cases
from vkctl.prepare.build import put
from vkctl.shapes.boxes import box

SETS = """
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }
[node_sets.right_nodes]
from = "right"
[node_sets.edge]
from = "right"
where = "z > 0.999"
[node_sets.tip]
nearest = [4, 2, 1]
"""
TARGETS = ("right", "right_nodes", "all")


@pytest.fixture(scope="module", params=["tet4", "tet10", "hex8"])
def part(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), request.param) / "part.msh"


def sums_about(result: Prepared, point: tuple[float, ...]) -> tuple[np.ndarray, np.ndarray]:
    """Force and moment about a point of the first load case's records, in double precision."""
    loads = forces(result.model.load_cases[0], result.mesh.nodes)
    return loads.sum(axis=0), np.cross(result.mesh.nodes - point, loads).sum(axis=0)


@pytest.mark.parametrize("target", TARGETS)
def test_a_moment_has_no_force_and_the_moment_asked_for(
    part: Path, target: str, tmp_path: Path
) -> None:
    moment = (30.0, -20.0, 7.0)
    text = f'[loads.twist]\ntype = "moment"\nset = "{target}"\nvalue = {list(moment)}\n'
    force, turning = sums_about(prepared(part, tmp_path, SETS + text), (1.0, 5.0, -2.0))
    scale = float(np.linalg.norm(moment))
    np.testing.assert_allclose(force, 0, atol=1e-6 * scale)
    np.testing.assert_allclose(turning, moment, atol=1e-6 * scale)


@pytest.mark.parametrize("target", TARGETS)
def test_a_remote_force_acts_as_if_at_its_point(part: Path, target: str, tmp_path: Path) -> None:
    text = f"""
    [loads.hook]
    type = "remote_force"
    set = "{target}"
    point = [9, 3, -2]
    value = [10, -4, 25]
    moment = [5, 0, -8]
    """
    force, turning = sums_about(prepared(part, tmp_path, SETS + text), (9, 3, -2))
    np.testing.assert_allclose(force, (10, -4, 25), atol=1e-6 * 30)
    np.testing.assert_allclose(turning, (5, 0, -8), atol=1e-6 * 30 * 5)


def test_a_remote_force_through_the_centroid_is_a_uniform_traction(
    part: Path, tmp_path: Path
) -> None:
    text = """
    [loads.hook]
    type = "remote_force"
    set = "right"
    point = [4, 1, 0.5]
    value = [10, -4, 25]
    [loads.same]
    type = "traction"
    set = "right"
    value = [5, -2, 12.5]
    [[load_case]]
    loads = { hook = 1.0, same = -1.0 }
    """
    result = prepared(part, tmp_path, SETS + text)
    np.testing.assert_allclose(result.model.load_cases[0].forces2["Force"], 0, atol=1e-5)


def test_a_bending_moment_is_a_traction_linear_over_the_face(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.bend]
    type = "moment"
    set = "right"
    value = [0, 6, 0]
    [loads.same]
    type = "traction"
    set = "right"
    value = ["36 * (z - 0.5)", 0, 0]
    [[load_case]]
    loads = { bend = 1.0, same = -1.0 }
    """
    # M z / I with I = 2 * 1 ** 3 / 12.
    result = prepared(part, tmp_path, SETS + text)
    np.testing.assert_allclose(result.model.load_cases[0].forces2["Force"], 0, atol=1e-5)


def test_a_moment_about_a_line_of_nodes_is_a_mistake_and_square_to_it_is_none(
    part: Path, tmp_path: Path
) -> None:
    text = '[loads.twist]\ntype = "moment"\nset = "edge"\nvalue = [0, {}, 3]\n'
    found = problems(lambda: prepared(part, tmp_path, SETS + text.format(1)))
    assert [line for line, _ in found] == [
        (CASES + SETS + text).split("\n").index('set = "edge"') + 1
    ]
    assert "gives a moment about a line on which all of its nodes lie" in found[0][1]
    turning = sums_about(prepared(part, tmp_path, SETS + text.format(0)), (0, 0, 0))[1]
    np.testing.assert_allclose(turning, (0, 0, 3), atol=3e-6)


def test_a_force_in_line_with_nodes_is_none_though_coordinates_are_rounded(
    part: Path, tmp_path: Path
) -> None:
    text = (
        SETS
        + """
    [mesh]
    scale = 33.3
    [loads.hook]
    type = "remote_force"
    set = "edge"
    point = [133.2, 500, 33.3]
    value = [10, 3, -7]
    """
    )
    text = text.replace("[4, 0, 0]", "[133.2, 0, 0]").replace("0.999", "33.2")
    force, turning = sums_about(prepared(part, tmp_path, text), (133.2, 500, 33.3))
    np.testing.assert_allclose(force, (10, 3, -7), atol=1e-5)
    np.testing.assert_allclose(turning, 0, atol=1e-6 * 500 * 10)


def test_a_bearing_that_a_factor_makes_pull_is_a_mistake(tmp_path: Path) -> None:
    text = bearing("[1, 0, 0]") + "[[load_case]]\nloads = { pin = -1.0 }\n"
    ((line, told),) = schema_problems(tmp_path, text, CASES)
    assert line == (CASES + text).split("\n").index("loads = { pin = -1.0 }") + 1
    assert "would make a bearing pull; give a bearing of its own with the opposite 'value'" in told


def test_what_a_remote_load_needs_is_told(tmp_path: Path) -> None:
    text = """
[loads.hook]
type = "remote_force"
set = "right"
value = [1, 0, 0]
coupling = "rigid"
[loads.pin]
type = "bearing"
set = "hole"
axis = [0, 0, 1]
value = [0, 0, 0]
[supports.grip]
type = "remote_displacement"
set = "left"
directions = "x"
"""
    base = "[materials.a]\nE = 1\nnu = 0"
    assert schema_problems(tmp_path, text, base) == [
        (4, "[loads.hook] has no 'point'"),
        (
            8,
            "coupling in [loads.hook] can't be 'rigid': the solver has no equations that keep a "
            "loaded set rigid; prescribe its motion by a support of type = 'remote_displacement'",
        ),
        (
            9,
            "[loads.pin] has no 'point'; an axis needs both; without both the wall's is taken",
        ),
        (13, "value in [loads.pin] must not be the zero vector"),
        (14, "[supports.grip] has no 'point'"),
        (
            17,
            "unknown key 'directions' in [supports.grip]; "
            "known: type, set, point, translation, rotation",
        ),
    ]


# --- remote displacements ------------------------------------------------------------------------


def test_a_set_that_turns_about_a_point_turns_the_part_with_it(tmp_path: Path) -> None:
    text = """
    [materials.steel]
    E = 1000.0
    nu = 0.3
    [supports.grip]
    type = "remote_displacement"
    set = "x-"
    point = [-5, 2, 1]
    translation = [0.1, 0, -0.2]
    rotation = [0.01, -0.02, 0.03]
    """
    made = make_mesh(part_of(box("tet10", (4, 2, 2), (4, 2, 1))))
    result = build_model(made, read_cases(case_file(tmp_path, text, "")))
    put(result, tmp_path / "run")
    solve(tmp_path / "run")
    found = read_results(tmp_path / "run", 1)
    arms = made.nodes - (-5, 2, 1)
    expected = np.array((0.1, 0, -0.2)) + np.cross((0.01, -0.02, 0.03), arms)
    assert found.displacements is not None
    np.testing.assert_allclose(np.asarray(found.displacements, float), expected, atol=2e-6)


# --- bearings ------------------------------------------------------------------------------------

HOLE = """
[face_sets.hole]
cylinder = { point = [2, 1, 0], axis = [0, 0, 1], radius = 0.5 }
"""


@pytest.fixture(scope="module", params=[1, 2])
def holed(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Path:
    return plate(tmp_path_factory.mktemp("plate"), request.param) / "part.msh"


def bearing(value: str, more: str = "") -> str:
    return f'{HOLE}[loads.pin]\ntype = "bearing"\nset = "hole"\nvalue = {value}\n{more}'


AXIS = "axis = [0, 0, -2]\npoint = [2, 1, 7]\n"


@pytest.mark.parametrize("axis", ["", AXIS])
@pytest.mark.parametrize("degrees", [0.0, 37.0, 180.0])
def test_a_bearing_has_the_force_asked_for_and_pushes_one_half(
    holed: Path, axis: str, degrees: float, tmp_path: Path
) -> None:
    unit = np.array((np.cos(np.radians(degrees)), np.sin(np.radians(degrees)), 0))
    result = prepared(holed, tmp_path, bearing(str((100 * unit).tolist()), axis))
    force, turning = sums_about(result, (2, 1, 0.5))
    np.testing.assert_allclose(force, 100 * unit, atol=1e-4)
    np.testing.assert_allclose(turning[2], 0, atol=1e-3)
    case = result.model.load_cases[0]
    places = result.mesh.nodes[case.forces2["Node"] - 1] - (2, 1, 0)
    along = places @ unit
    assert np.abs(case.forces2["Force"][along < -0.4]).max() < 1e-6 * 100


def test_a_bearing_pressure_goes_with_the_cosine(tmp_path: Path) -> None:
    """p = 2 F / (pi R L) cos: the pressure at the nodes of an even ring, by the area of each."""
    ring = box("hex8", (64, 1, 1), (1, 1, 1), mapping=around)
    part = part_of(ring)
    nodes = ring.nodes
    force = 100.0
    text = f"""
    [materials.steel]
    E = 1.0
    nu = 0.3
    [supports.rim]
    set = "y+"
    [face_sets.wall]
    cylinder = {{ point = [0, 0, 0], axis = [0, 0, 1], radius = 2 }}
    [loads.pin]
    type = "bearing"
    set = "wall"
    value = [{force}, 0, 0]
    """
    result = build_model(make_mesh(part), read_cases(case_file(tmp_path, text, "")))
    loads = forces(result.model.load_cases[0], nodes)
    angles = np.arctan2(nodes[:, 1], nodes[:, 0])
    inner = np.hypot(nodes[:, 0], nodes[:, 1]) < 2.01
    area = 2 * np.pi * 2.0 * 3.0 / 64 / 2  # of a node: of its ring and half of the length
    radial = np.einsum("ij,ij->i", loads[:, :2], np.column_stack((np.cos(angles), np.sin(angles))))
    expected = 2 * force / (np.pi * 2.0 * 3.0) * np.maximum(np.cos(angles), 0) * area
    smooth = inner & (np.abs(np.abs(angles) - np.pi / 2) > 0.2)
    np.testing.assert_allclose(radial[smooth], expected[smooth], atol=2e-3 * expected.max())


def around(points: np.ndarray) -> np.ndarray:
    """A ring of inner radius 2, outer radius 3, length 3, closed but for the seam at x < 0."""
    angles, radii = np.pi * (1 - 2 * points[:, 0]), 2 + points[:, 1]
    return np.column_stack((radii * np.cos(angles), radii * np.sin(angles), 3 * points[:, 2]))


def test_one_half_of_a_symmetric_hole_tells_what_stands_across_its_force(
    holed: Path, tmp_path: Path
) -> None:
    half = """
    [face_sets.half]
    from = "hole"
    where = "y >= 0.9999"
    """
    text = bearing("[100, 0, 0]", AXIS).replace('set = "hole"', 'set = "half"') + half
    result = prepared(holed, tmp_path, text)
    force, _ = sums_about(result, (2, 1, 0.5))
    assert force[0] == pytest.approx(100, rel=1e-6)
    assert force[1] == pytest.approx(100 * 2 / np.pi, rel=0.1)  # 1/2 over pi/4
    assert any("across it" in note for note in result.notes)


def test_a_shaft_is_pushed_on_the_other_side(tmp_path: Path) -> None:
    ring = box("hex8", (48, 1, 2), (1, 1, 1), mapping=around)
    text = """
    [materials.steel]
    E = 1.0
    nu = 0.3
    [supports.bore]
    set = "y-"
    [loads.pin]
    type = "bearing"
    set = "y+"
    value = [60, 80, 0]
    """
    result = build_model(make_mesh(part_of(ring)), read_cases(case_file(tmp_path, text, "")))
    force, _ = sums_about(result, (0, 0, 0))
    np.testing.assert_allclose(force, (60, 80, 0), atol=1e-4)
    case = result.model.load_cases[0]
    places = ring.nodes[case.forces2["Node"] - 1] @ (0.6, 0.8, 0)
    assert np.abs(case.forces2["Force"][places > 0.5]).max() < 1e-6


@pytest.mark.parametrize(
    ("text", "words"),
    [
        (bearing("[1, 0, 0.5]"), "has 44.7 % of its force along the cylinder's axis; a bearing"),
        (
            bearing("[1, 0, 0]", "axis = [0, 0, 1]\npoint = [2.2, 1, 0]\n"),
            "no cylinder's wall: it is",
        ),
        (
            '[loads.pin]\ntype = "bearing"\nset = "left"\nvalue = [0, 0, 1]\n',
            "the set of [loads.pin] is no cylinder's wall: it is plane",
        ),
        (
            bearing("[-1, 0, 0]", AXIS).replace('"hole"\nv', '"half"\nv')
            + '[face_sets.half]\nfrom = "hole"\nwhere = "x > 2.1"\n',
            "nothing of the set of [loads.pin] lies on the side that its force pushes",
        ),
    ],
)
def test_bearings_that_make_no_sense_are_told(
    holed: Path, text: str, words: str, tmp_path: Path
) -> None:
    (found,) = problems(lambda: prepared(holed, tmp_path, text))
    assert words in found[1]
