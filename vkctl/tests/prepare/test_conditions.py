"""Consistent nodal forces: resultants and moments are those of the loads."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
import pyvista
from new_parts import brick, case_file, forces, plate, prepared

from vkctl.prepare import Prepared, build

KINDS = ("tet4", "tet10", "hex8")

SETS = """
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }
[node_sets.right_nodes]
from = "right"
[node_sets.tip]
nearest = [4, 2, 1]
"""


def loaded(part: Path, tmp_path: Path, text: str, sets: str = SETS) -> Prepared:
    """Model of a part whose material has a density."""
    base = "[materials.steel]\nE = 210000.0\nnu = 0.3\ndensity = 0.5\n"
    base += '[supports.clamp]\nset = "left"\n'
    return prepared(part, tmp_path, sets + text, base)


@pytest.fixture(scope="module", params=KINDS)
def part(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), request.param) / "part.msh"


def test_forces_are_spread_by_area_by_node_or_given_to_each(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.by_area]
    type = "force"
    set = "right"
    value = [10, 0, -4]
    [loads.by_node]
    type = "force"
    set = "right_nodes"
    value = [10, 0, -4]
    [loads.each]
    type = "force"
    set = "right"
    spread = "each"
    value = [1, 0, 0]
    """
    cases = "".join(
        f'[[load_case]]\nname = "{n}"\nloads = ["{n}"]\n' for n in ("by_area", "by_node", "each")
    )
    result = loaded(part, tmp_path, text + cases)
    sums = result.resultants
    np.testing.assert_allclose(sums[0], (10, 0, -4, 1 * -4, 10 / 2 + 16, -10), atol=1e-5)
    np.testing.assert_allclose(sums[1, :3], (10, 0, -4), atol=1e-5)
    equal = result.model.load_cases[1].forces2["Force"]
    assert np.all(equal == equal[0])
    count = len(result.sets.nodes("right", ()))
    assert sums[2, 0] == pytest.approx(count)


def test_gravity_goes_to_the_second_list_and_weighs_what_is_there(
    part: Path, tmp_path: Path
) -> None:
    text = """
    [element_sets.far]
    where = "x > 2"
    [element_sets.end]
    where = "x > 10 / 3"
    [model]
    exclude = "end"
    [loads.weight]
    type = "gravity"
    value = [0, 0, -10]
    [loads.part]
    type = "gravity"
    set = "far"
    value = [0, 0, -10]
    [[load_case]]
    loads = ["weight"]
    [[load_case]]
    loads = { part = 2.0 }
    """
    result = loaded(part, tmp_path, text, "")
    case = result.model.load_cases[0]
    assert len(case.forces2) == 0 and len(case.forces3) > 0
    length = 10 / 3
    np.testing.assert_allclose(result.resultants[0, 2], -10 * 0.5 * length * 2, rtol=1e-5)
    np.testing.assert_allclose(
        result.resultants[0, 4], length / 2 * 10 * 0.5 * length * 2, rtol=1e-5
    )
    np.testing.assert_allclose(result.resultants[1, 2], -2 * 10 * 0.5 * (length - 2) * 2, rtol=1e-5)


def test_loads_of_a_case_add_up_node_by_node_with_their_factors(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.pull]
    type = "traction"
    set = "right"
    value = [3, 0, 0]
    [loads.push]
    type = "pressure"
    set = "right"
    value = 2
    [loads.tip]
    type = "force"
    set = "tip"
    value = [0, 5, 0]
    [[load_case]]
    loads = { pull = 2.0, push = 3.0, tip = -1.0 }
    """
    result = loaded(part, tmp_path, text)
    case = result.model.load_cases[0]
    numbers = case.forces2["Node"]
    assert len(np.unique(numbers)) == len(numbers)
    np.testing.assert_allclose(result.resultants[0, :3], (6 * 2 - 6 * 2, -5, 0), atol=1e-5)
    np.testing.assert_allclose(
        forces(case, result.mesh.nodes).sum(axis=0), result.resultants[0, :3], atol=1e-5
    )


def test_later_temperatures_hold_where_sets_overlap(part: Path, tmp_path: Path) -> None:
    text = """
    [node_sets.hot]
    where = "x > 3"
    [loads.base]
    type = "temperature"
    value = "20 + 10 * z"
    reference = 20
    [loads.end]
    type = "temperature"
    set = "hot"
    value = 100
    [[load_case]]
    loads = ["base", "end"]
    [[load_case]]
    loads = { base = 2.0 }
    """
    result = loaded(part, tmp_path, text)
    first, second = result.model.load_cases
    x, _, z = result.mesh.nodes[first.scalars["Node"] - 1].T
    assert len(first.scalars) == len(result.mesh.nodes)
    np.testing.assert_allclose(first.scalars["Value"], np.where(x > 3, 100, 10 * z), rtol=1e-6)
    np.testing.assert_allclose(second.scalars["Value"], 20 * z, rtol=1e-6)


def test_temperature_and_level_come_from_node_data(tmp_path: Path) -> None:
    brick(tmp_path, "hex8")
    grid = pyvista.read(tmp_path / "part.vtu")
    grid.point_data["T"] = grid.points[:, 0].astype(float)
    grid.point_data["phi"] = 1.0 - grid.points[:, 2]
    grid.save(tmp_path / "part.vtu")
    text = """
    [node_sets.left]
    where = "x < 1e-6"
    [node_sets.design]
    where = "x > 1"
    [loads.heat]
    type = "temperature"
    array = "T"
    [level]
    set = "design"
    array = "phi"
    """
    result = build(tmp_path / "part.vtu", case_file(tmp_path, text))
    nodes = result.mesh.nodes
    np.testing.assert_allclose(result.model.load_cases[0].scalars["Value"], nodes[:, 0], atol=1e-6)
    index = result.model.node_tp_index
    assert index is not None
    np.testing.assert_array_equal(index > 0, nodes[:, 0] > 1)
    design = nodes[index > 0]
    np.testing.assert_allclose(result.model.tp[index[index > 0] - 1], 1 - design[:, 2], atol=1e-6)


def test_pressure_on_a_curved_hole_is_in_balance_and_pushes_outwards(tmp_path: Path) -> None:
    part = plate(tmp_path) / "part.msh"
    text = """
    [face_sets.hole]
    cylinder = { point = [2, 1, 0], axis = [0, 0, 1], radius = 0.5 }
    [face_sets.half_hole]
    from = "hole"
    where = "x >= 1.9999"
    [loads.oil]
    type = "pressure"
    set = "hole"
    value = 7.0
    """
    result = prepared(part, tmp_path, text)
    np.testing.assert_allclose(result.resultants[0], 0, atol=2e-4)
    case = result.model.load_cases[0]
    offset = result.mesh.nodes[case.forces2["Node"] - 1] - (2, 1, 0)
    outward = np.einsum("ij,ij->i", offset[:, :2], case.forces2["Force"][:, :2]).sum() / 0.5
    assert outward == pytest.approx(7.0 * 2 * np.pi * 0.5, rel=2e-3)
