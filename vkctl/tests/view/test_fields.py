"""Fields at nodes that files hold and pictures show."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
import pyvista
from results_on_disk import make_model, with_hole, write_results

from vkctl import stress
from vkctl.directory.model import read
from vkctl.directory.results import read_results
from vkctl.stress.fields import STRESS_FIELDS
from vkctl.view import export, fields, grid, plot

KINDS = ("tet4", "hex8", "tet10")


def test_a_file_holds_the_recovered_stresses_and_the_solvers_mean(tmp_path: Path) -> None:
    model = make_model("hex8")  # stretched by 1 percent in all directions, of modulus 1000
    write_results(model, tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "out.vtu")
    found = pyvista.read(tmp_path / "out.vtu").point_data
    wanted = np.tile((25.0, 25.0, 25.0, 0.0, 0.0, 0.0), (len(model.nodes), 1))
    np.testing.assert_allclose(found["stress"], wanted, atol=1e-4)
    np.testing.assert_allclose(found["principal"], wanted[:, :3], atol=1e-4)
    np.testing.assert_allclose(found["energy_density"], 0.375, rtol=1e-5)
    np.testing.assert_allclose(found["element_mean"], model.nodes[:, 0] - 4.0, atol=1e-6)
    assert {"von_mises", "signed_von_mises", "tresca"} <= set(found.keys())


@pytest.mark.parametrize("field", sorted(STRESS_FIELDS))
def test_a_picture_takes_the_field_that_its_name_says(tmp_path: Path, field: str) -> None:
    model = make_model("hex8", (4, 2, 2))
    write_results(model, tmp_path)
    x, y, z = model.nodes.T
    shift = 0.01 * np.column_stack((x * z + y * y, y * y + x * z, x + x * y))
    results = replace(read_results(tmp_path, 1), displacements=shift.astype(np.float32))
    found = stress.nodal_stress(stress.solution_of(model, results)).merged()
    principal = stress.principal(found.stress)
    wanted = {
        "von_mises": stress.von_mises(found.stress),
        "signed_von_mises": stress.signed_von_mises(found.stress),
        "tresca": principal[:, 0] - principal[:, 2],
        "energy_density": found.energy,
        **{f"principal_{k + 1}": principal[:, k] for k in range(3)},
        **{f"stress_{name}": found.stress[:, k] for k, name in enumerate(_ORDER)},
    }[field]
    np.testing.assert_allclose(fields.shown_fields(model, results, field)[field], wanted)
    assert np.ptp(wanted) > 0


def test_principal_stresses_in_files_have_their_directions(tmp_path: Path) -> None:
    model = make_model("hex8", (4, 2, 2))
    write_results(model, tmp_path)
    shift = 0.01 * model.nodes @ np.array(((3.0, 1.0, 0.0), (0.0, 1.0, 2.0), (0.5, 0.0, -2.0)))
    results = replace(read_results(tmp_path, 1), displacements=shift.astype(np.float32))
    found = grid.results_grid(model, results).point_data
    xx, yy, zz, xy, yz, xz = found["stress"].T
    matrices = np.array(((xx, xy, xz), (xy, yy, yz), (xz, yz, zz))).transpose(2, 0, 1)
    for k in range(3):
        unit = found[f"principal_direction_{k + 1}"]
        np.testing.assert_allclose(np.linalg.norm(unit, axis=1), 1.0, rtol=1e-5)
        along = found["principal"][:, k, None] * unit
        np.testing.assert_allclose(np.einsum("nij,nj->ni", matrices, unit), along, atol=1e-3)


@pytest.mark.filterwarnings("error")
def test_stresses_beyond_single_precision_are_infinite_without_noise(tmp_path: Path) -> None:
    model = make_model("hex8", (2, 2, 2))
    write_results(model, tmp_path)
    shift = (1e37 * model.nodes).astype(np.float32)
    results = replace(read_results(tmp_path, 1), displacements=shift)
    assert np.isinf(fields.stress_fields(model, results)["energy_density"]).all()


_ORDER = ("xx", "yy", "zz", "xy", "yz", "xz")


@pytest.mark.parametrize("kind", KINDS)
def test_the_whole_surface_of_a_cut_part_has_a_stress(tmp_path: Path, kind: str) -> None:
    model = with_hole(make_model(kind, (9, 5, 5)))
    write_results(model, tmp_path)
    found = fields.stress_fields(model, read_results(tmp_path, 1))
    surface = grid.part_surface(model, {"xx": found["stress"][:, 0].astype(np.float64)})
    np.testing.assert_allclose(surface.point_data["xx"], 25.0, rtol=1e-3)


def test_a_poor_solve_has_no_stress_to_show(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path)
    model, results = read(tmp_path), replace(read_results(tmp_path, 1), quality=0.7)
    assert fields.stress_fields(model, results) == {}
    assert "von_mises" not in grid.results_grid(model, results).point_data
    assert "element_mean" in fields.shown_fields(model, results, "element_mean")
    with pytest.raises(ValueError, match="load case 1 was solved too poorly"):
        fields.shown_fields(model, results, "von_mises")


def test_a_model_without_design_points_has_no_criterion(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path)
    model, results = read(tmp_path), read_results(tmp_path, 1)
    assert "criterion" not in fields.point_fields(model, results)
    with pytest.raises(ValueError, match="no criterion: there are no design points"):
        plot.plot(tmp_path, tmp_path / "out.png", view=plot.View(field="criterion"))
