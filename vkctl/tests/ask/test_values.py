"""Values at points of fields that are known everywhere."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from vkctl.ask import AskError, case_fields, find_spots, line_points, values_at, why_nothing
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box

from .models import bar, model_of, solve
from .test_extremes import solved_to, stretched, two_materials

KINDS = ("tet4", "hex8", "tet10")
POINTS = ((0.31, 0.42, 0.17), (2.0, 1.0, 0.5), (3.0, 2.0, 1.0), (1.234, 0.0, 0.999))


@pytest.mark.parametrize("kind", KINDS)
def test_linear_displacements_come_back_at_any_point(kind: str) -> None:
    part = box(kind, (4, 3, 2), (3.0, 2.0, 1.0), distortion=0.1)  # type: ignore[arg-type]
    gradient = np.array(((0.01, 0.002, -0.003), (0.004, -0.005, 0.001), (0.0, 0.003, 0.006)))
    material = Material.isotropic(1000.0, 0.25)
    model = Model(part.nodes, part.elements, [material], [LoadCase()])
    fields = case_fields(model, solved_to(model, part.nodes @ gradient.T))
    names = ("displacement_x", "displacement_z", "magnitude", "stress_xx", "stress_xy", "von_mises")
    found = values_at(model, fields, find_spots(model, POINTS), names)
    shift = np.array(POINTS) @ gradient.T
    strain = (gradient + gradient.T) / 2
    stress = 2 * 400.0 * strain + 400.0 * np.trace(strain) * np.eye(3)  # both constants of Lame
    deviator = stress - np.trace(stress) / 3 * np.eye(3)
    assert found[:, 0] == pytest.approx(shift[:, 0], rel=1e-6)
    assert found[:, 1] == pytest.approx(shift[:, 2], rel=1e-6)
    assert found[:, 2] == pytest.approx(np.linalg.norm(shift, axis=1), rel=1e-6)
    assert found[:, 3] == pytest.approx(stress[0, 0], rel=1e-5)
    assert found[:, 4] == pytest.approx(stress[0, 1], rel=1e-5)
    assert found[:, 5] == pytest.approx(np.sqrt(1.5 * (deviator**2).sum()), rel=1e-5)


def test_a_quadratic_element_follows_a_quadratic_displacement() -> None:
    part = box("tet10", (3, 2, 2), (3.0, 2.0, 1.0))
    x, y, z = part.nodes.T
    model = model_of(part, LoadCase())
    fields = case_fields(model, solved_to(model, np.column_stack((x * y, z * z, x * x - y))), False)
    found = values_at(
        model, fields, find_spots(model, POINTS), ("displacement_x", "displacement_z")
    )
    px, py, _ = np.array(POINTS).T
    assert found == pytest.approx(np.column_stack((px * py, px * px - py)), abs=1e-6)


def test_a_beam_sags_as_beams_do(tmp_path: Path) -> None:
    part = bar("tet10")
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0.0, 0.0, -0.005)))
    model, solution = solve(model_of(part, case), tmp_path)
    spots = find_spots(model, line_points((0.0, 1.0, 0.5), (8.0, 1.0, 0.5), 9))
    sag = values_at(model, case_fields(model, solution, False), spots, ("displacement_z",))[:, 0]
    x, stiffness, shear = np.linspace(0, 8, 9), 1000.0 * 2.0 / 12, 5 / 6 * 500.0 * 2.0
    beam = -0.01 * ((8 * x**2 / 2 - x**3 / 6) / stiffness + x / shear)
    # The mesh is coarse, and the clamp holds what a beam's leaves free.
    assert sag == pytest.approx(beam, rel=0.02, abs=2e-5)


def test_where_materials_meet_the_element_says_whose_stress_it_is() -> None:
    model = two_materials()
    fields = case_fields(model, solved_to(model, stretched(model)))
    spots = find_spots(model, ((3.999, 1.0, 0.5), (4.001, 1.0, 0.5), (4.0, 1.0, 0.5)))
    found = values_at(model, fields, spots, ("stress_xx",))[:, 0]
    assert found == pytest.approx([2000.0 * 4 / 500, 1000.0 * 4 / 500, 2000.0 * 4 / 500], rel=1e-3)
    assert spots.elements[2] == spots.elements[:2].min()


def test_a_point_outside_or_in_the_void_is_told_apart() -> None:
    model = two_materials()
    model.set_level(4.5 - model.nodes[:, 0])
    spots = find_spots(model, ((5.0, 1.0, 0.5), (8.5, 2.0, 1.0), (4.4, 1.0, 0.5)))
    assert spots.elements.tolist()[:2] == [0, 0] and spots.elements[2] > 0
    assert why_nothing(model, spots, 0) == (
        "(5, 1, 0.5) lies in the void, where the level field leaves no material"
    )
    assert why_nothing(model, spots, 1) == (
        f"(8.5, 2, 1) lies outside of the mesh; the nearest node is {len(model.nodes)}, 0.5 off"
    )
    fields = case_fields(model, solved_to(model, stretched(model)))
    found = values_at(model, fields, spots)
    assert np.isnan(found[:2]).all() and np.isfinite(found[2]).all()
    # Elements that follow no level hold material there.
    assert model.element_flags is not None
    model.element_flags[:] = formats.ELEMENT_NO_LEVEL
    assert find_spots(model, ((5.0, 1.0, 0.5),)).elements[0] > 0


def test_what_is_left_out_of_the_model_holds_no_points() -> None:
    model = two_materials()
    model.exclude_elements(np.flatnonzero(model.elements.materials == 2) + 1)
    spots = find_spots(model, ((3.0, 1.0, 0.5), (6.0, 1.0, 0.5)))
    assert spots.elements[0] > 0 and spots.outside.tolist() == [False, True]
    assert "outside of the mesh" in why_nothing(model, spots, 1)


def test_a_line_has_both_ends_and_is_no_point() -> None:
    points = line_points((0.1, 2.0, 3.0), (0.7, 2.0, -3.0), 4)
    assert points[0].tolist() == [0.1, 2.0, 3.0] and points[-1].tolist() == [0.7, 2.0, -3.0]
    assert points[1].tolist() == pytest.approx([0.3, 2.0, 1.0])
    with pytest.raises(AskError, match="1 points is none"):
        line_points((0, 0, 0), (1, 0, 0), 1)
    with pytest.raises(AskError, match="begins where it ends"):
        line_points((1, 2, 3), (1, 2, 3), 5)
