"""Symmetry and frictionless supports: parts of a model move as the whole does."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest
from box_parts import part_of
from new_parts import case_file, problems, solve

from vkctl.directory.results import read_results
from vkctl.prepare import Prepared, build_model, make_mesh, read_cases
from vkctl.prepare.build import put
from vkctl.shapes.boxes import Box, box

MATERIAL = "[materials.steel]\nE = 1000.0\nnu = 0.3\n"
# Pulled at the ends and pushed from above, more so towards the outside.
LOADS = """
[loads.pull]
type = "pressure"
set = ["x+"{far}]
value = -10
[loads.push]
type = "pressure"
set = "z+"
value = "2 * (x * x + y * y)"
[supports.floor]
set = "z-"
directions = "z"
"""
QUARTER = """
[supports.middle]
type = "symmetry"
set = ["x-", "y-"]
"""
WHOLE = """
[node_sets.line]
where = "hypot(x, y) < 1e-4"
[node_sets.tip]
nearest = [4, 0, 0]
[supports.line]
set = "line"
directions = "xy"
[supports.tip]
set = "tip"
directions = "y"
"""


def turned(points: np.ndarray, degrees: float) -> np.ndarray:
    c, s = np.cos(np.radians(degrees)), np.sin(np.radians(degrees))
    result: np.ndarray = points @ np.array(((c, s, 0), (-s, c, 0), (0, 0, 1)))
    return result


def moved(part: Box, tmp_path: Path, text: str) -> tuple[Prepared, np.ndarray]:
    """Displacements that the solver finds for a box under a case file."""
    cases = read_cases(case_file(tmp_path, text, MATERIAL))
    result = build_model(make_mesh(part_of(part)), cases)
    put(result, tmp_path / "run")
    solve(tmp_path / "run")
    found = read_results(tmp_path / "run", 1)
    assert found.quality > 0.9 and found.displacements is not None
    return result, np.asarray(found.displacements, float)


def quarter(kind: str, degrees: float, tmp_path: Path, supports: str = QUARTER) -> np.ndarray:
    """Displacements of the turned quarter, turned back."""
    part = box(kind, (4, 2, 2), (4, 2, 1), mapping=lambda p: turned(p, degrees))  # type: ignore[arg-type]
    return turned(moved(part, tmp_path, LOADS.format(far="") + supports)[1], -degrees)


def differ(found: np.ndarray, expected: np.ndarray) -> float:
    return float(np.abs(found - expected).max() / np.abs(expected).max())


def test_a_quarter_between_planes_of_symmetry_moves_as_the_whole_does(tmp_path: Path) -> None:
    found = quarter("hex8", 0, tmp_path / "quarter")
    whole = box("hex8", (8, 4, 2), (8, 4, 1), (-4, -2, 0))
    _, every = moved(whole, tmp_path / "whole", LOADS.format(far=', "x-"') + WHOLE)
    x, y, _ = whole.nodes.T
    assert differ(found, every[(x > -1e-9) & (y > -1e-9)]) < 2e-6


@pytest.mark.parametrize("kind", ["hex8", "tet4", "tet10"])
@pytest.mark.parametrize(("degrees", "accuracy"), [(90, 2e-6), (30, 5e-5)])
@pytest.mark.parametrize("support", ["symmetry", "frictionless"])
def test_planes_off_the_axes_hold_as_those_along_them(
    kind: str, degrees: float, accuracy: float, support: str, tmp_path: Path
) -> None:
    supports = QUARTER.replace("symmetry", support)
    straight = quarter(kind, 0, tmp_path / "straight", supports)
    assert differ(quarter(kind, degrees, tmp_path / "turned", supports), straight) < accuracy


def test_a_tube_on_frictionless_walls_swells_as_lame_has_it(tmp_path: Path) -> None:
    """Outer wall held along its normals, pressure inside, ends held: u(a) of a thick tube."""
    a, b, e, nu, pressure = 2.0, 3.0, 1000.0, 0.3, 5.0
    text = f"""
    [supports.wall]
    type = "frictionless"
    set = "y+"
    [supports.ends]
    type = "symmetry"
    set = ["z-", "z+"]
    [supports.sides]
    type = "symmetry"
    set = ["x-", "x+"]
    [loads.oil]
    type = "pressure"
    set = "y-"
    value = {pressure}
    """
    sector = box("tet10", (12, 8, 2), (1, 1, 0.4), mapping=sector_of(70.0), curved=True)
    result, found = moved(sector, tmp_path, text)
    assert any("held along normals off the axes" in note for note in result.notes)
    nodes = result.mesh.nodes
    radii = np.hypot(nodes[:, 0], nodes[:, 1])
    radial = (found[:, :2] * nodes[:, :2]).sum(axis=1) / radii
    # u = A r + B / r with u(b) = 0 and the radial stress -p at a, plane strain.
    shape = (1 - 2 * nu) * b**2 / a**2
    big_b = pressure * (1 + nu) * (1 - 2 * nu) / e / (1 / b**2 + shape / b**2)
    expected = big_b * (1 / radii - radii / b**2)
    np.testing.assert_allclose(radial, expected, atol=2e-3 * expected.max())
    tangential = (found[:, 1] * nodes[:, 0] - found[:, 0] * nodes[:, 1]) / radii
    np.testing.assert_allclose(tangential, 0, atol=2e-3 * expected.max())


def sector_of(degrees: float) -> Callable[[np.ndarray], np.ndarray]:
    def bent(points: np.ndarray) -> np.ndarray:
        angles, radii = np.radians(degrees) * (0.6 - points[:, 0]), 2 + points[:, 1]
        return np.column_stack((radii * np.cos(angles), radii * np.sin(angles), points[:, 2]))

    return bent


def test_a_symmetry_on_a_curved_wall_is_a_mistake(tmp_path: Path) -> None:
    sector = box("tet10", (6, 4, 1), (1, 1, 0.4), mapping=sector_of(70.0), curved=True)
    text = '[supports.wall]\ntype = "symmetry"\nset = "y+"\n'
    cases = read_cases(case_file(tmp_path, text, MATERIAL))
    ((line, told),) = problems(lambda: build_model(make_mesh(part_of(sector)), cases))
    assert line == 6
    assert told.startswith("the set of [supports.wall] isn't plane: it lies up to 0.")
    assert "type = 'frictionless' holds any faces" in told


def test_springs_that_the_options_switch_off_are_a_mistake(tmp_path: Path) -> None:
    part = box("hex8", (2, 2, 2), mapping=lambda p: turned(p, 30))
    text = QUARTER + "[options]\nSta.SupportStiffness = 0\n"
    cases = read_cases(case_file(tmp_path, text, MATERIAL))
    found = problems(lambda: build_model(make_mesh(part_of(part)), cases))
    assert all("no effect with Sta.SupportStiffness 0" in told for _, told in found) and found
