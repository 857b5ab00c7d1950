"""VTK grids, exported files and pictures."""

from __future__ import annotations

import xml.etree.ElementTree as ElementTree
from pathlib import Path

import numpy as np
import pytest
import pyvista

from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.results import Results
from vkctl.shapes.boxes import box
from vkctl.view import export, grid, plot

KINDS = ("tet4", "hex8", "tet10")


def make_model(kind: str = "tet4", cells: tuple[int, int, int] = (8, 4, 4)) -> Model:
    """A box of 8 x 4 x 4."""
    part = box(kind, cells, (8.0, 4.0, 4.0))  # type: ignore[arg-type]
    return Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [LoadCase()])


def with_hole(model: Model, radius: float = 1.3) -> Model:
    """A hole along y through the middle."""
    model.set_level(np.hypot(model.nodes[:, 0] - 4.0, model.nodes[:, 2] - 2.0) - radius)
    return model


def write_results(model: Model, directory: Path, numbers: tuple[int, ...] = (1,)) -> None:
    """A working directory with results that are simple functions of the coordinates."""
    model.load_cases = [LoadCase() for _ in numbers]
    write(model, directory)
    for number in numbers:
        shift = 0.01 * number * model.nodes.astype(np.float32)
        formats.write_displacements(directory, number, shift)
        formats.write_magnitude(directory, number, np.linalg.norm(shift, axis=1))
        formats.write_stress(directory, number, model.nodes[:, 0] - 4.0)
        formats.write_criterion(directory, number, model.tp)
        totals = np.zeros((), formats.TOTALS)
        totals["LoadCase"], totals["Kind"], totals["ARQua"] = number, 1, 1.0
        formats.write_totals(directory, number, totals)


@pytest.mark.parametrize("kind", KINDS)
def test_the_grid_has_the_volume_of_the_mesh(kind: str) -> None:
    model = make_model(kind)
    sizes = grid.mesh_grid(model).compute_cell_sizes()
    assert sizes.cell_data["Volume"].sum() == pytest.approx(128.0, rel=1e-6)


def test_curved_mid_edge_nodes_keep_their_places() -> None:
    model = make_model("tet10", (1, 1, 1))
    middle = model.elements.tet10[0, 4:] - 1
    cell = grid.mesh_grid(model).get_cell(0)
    np.testing.assert_array_equal(np.asarray(cell.point_ids)[4:], middle)


def test_levels_are_scaled_like_the_solver_scales_them() -> None:
    model = make_model()
    model.set_level([2.0, -6.0], nodes=[1, 3])
    levels = grid.level_field(model)
    np.testing.assert_allclose(levels[:4], [0.25, 1.0, -0.75, 1.0])


def test_excluded_elements_are_left_out() -> None:
    model = make_model()
    model.exclude_elements([1, 2, 3])
    assert grid.mesh_grid(model).n_cells == len(model.elements) - 3
    assert 1 not in grid.mesh_grid(model).cell_data["element"]


@pytest.mark.parametrize("kind", KINDS)
def test_the_whole_mesh_is_the_part_where_all_levels_are_positive(kind: str) -> None:
    surface = grid.part_surface(make_model(kind))
    assert grid.open_edges(surface) == 0
    assert surface.volume == pytest.approx(128.0, rel=1e-6)


@pytest.mark.parametrize("kind", KINDS)
def test_the_part_ends_at_level_zero(kind: str) -> None:
    surface = grid.part_surface(with_hole(make_model(kind, (32, 2, 16))))
    assert grid.open_edges(surface) == 0
    # The cut runs straight through each element: its polygon is a little smaller than the circle.
    assert surface.volume == pytest.approx(128 - np.pi * 1.3**2 * 4, rel=3e-3)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("values", [(-1.0, 0.0, 1.0), (-1.0, 1e-9, 1e-5, 1.0)])
def test_the_surface_is_watertight_for_any_level_field(
    kind: str, values: tuple[float, ...]
) -> None:
    model = make_model(kind, (4, 4, 4))
    random = np.random.default_rng(7)
    model.set_level(random.choice(values, size=len(model.nodes)))
    surface = grid.part_surface(model)
    assert surface.n_cells > 100
    assert grid.open_edges(surface) == 0


def test_a_field_without_material_has_no_surface() -> None:
    model = make_model()
    model.set_level(-1.0)
    with pytest.raises(ValueError, match="no material"):
        grid.part_surface(model)


def test_open_edges_are_counted() -> None:
    assert grid.open_edges(pyvista.Plane(i_resolution=1, j_resolution=1).triangulate()) == 4


def test_the_stl_is_watertight_and_read_back_with_its_volume(tmp_path: Path) -> None:
    write(with_hole(make_model()), tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "part.stl")
    surface = pyvista.read(tmp_path / "part.stl").clean()
    assert grid.open_edges(surface) == 0
    assert surface.volume == pytest.approx(128 - np.pi * 1.3**2 * 4, rel=0.03)


def test_a_vtu_holds_every_field_of_the_load_case(tmp_path: Path) -> None:
    model = with_hole(make_model())
    write_results(model, tmp_path / "dir", (1, 2))
    formats.write_element_state(tmp_path / "dir", 2, np.arange(1, len(model.elements) + 1))
    export.export(tmp_path / "dir", tmp_path / "out.vtu", case=2)
    read_back = pyvista.read(tmp_path / "out.vtu")
    np.testing.assert_allclose(read_back.point_data["displacement"], 0.02 * model.nodes, rtol=1e-6)
    np.testing.assert_allclose(read_back.point_data["criterion"], model.tp)
    np.testing.assert_array_equal(
        read_back.cell_data["element_state"], read_back.cell_data["element"]
    )
    assert {"magnitude", "stress", "level", "node_flags"} <= set(read_back.point_data.keys())
    assert {"material", "element_flags"} <= set(read_back.cell_data.keys())


def test_a_vtu_of_a_model_without_results_holds_the_model(tmp_path: Path) -> None:
    write(make_model(), tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "out.vtu")
    assert "level" in pyvista.read(tmp_path / "out.vtu").point_data


def test_a_series_has_one_step_per_solved_load_case(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir", (1, 2, 3))
    files = export.export(tmp_path / "dir", tmp_path / "series.pvd")
    steps = ElementTree.parse(tmp_path / "series.pvd").getroot().findall(".//DataSet")
    assert [step.get("timestep") for step in steps] == ["1", "2", "3"]
    assert all((tmp_path / str(step.get("file"))).exists() for step in steps)
    assert len(files) == 4
    assert pyvista.get_reader(tmp_path / "series.pvd").time_values == [1.0, 2.0, 3.0]


def test_export_refuses_what_it_cannot_do(tmp_path: Path) -> None:
    write(make_model(), tmp_path / "dir")
    with pytest.raises(ValueError, match="suffix"):
        export.export(tmp_path / "dir", tmp_path / "out.obj")
    with pytest.raises(ValueError, match="load case 5"):
        export.export(tmp_path / "dir", tmp_path / "out.vtu", case=5)
    with pytest.raises(FileNotFoundError):
        export.export(tmp_path / "dir", tmp_path / "out.pvd")


def colours(picture: Path) -> int:
    """Number of different colours of a picture."""
    from matplotlib import image

    pixels = np.asarray(image.imread(picture))[:, :, :3]
    return len(np.unique((pixels * 255).astype(np.uint8).reshape(-1, 3), axis=0))


@pytest.mark.parametrize("field", plot.FIELDS)
def test_a_picture_shows_the_part_in_varying_colours(tmp_path: Path, field: plot.Field) -> None:
    write_results(with_hole(make_model()), tmp_path / "dir")
    view = plot.View(field=field, size=(500, 400))
    plot.plot(tmp_path / "dir", tmp_path / "out.png", view=view)
    assert colours(tmp_path / "out.png") > 500


def test_the_deformation_is_exaggerated_to_be_seen(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir")
    pictures = []
    for scale in (0.0, 20.0):
        target = tmp_path / f"{scale}.png"
        plot.plot(tmp_path / "dir", target, view=plot.View(scale=scale, size=(400, 300)))
        pictures.append(target.read_bytes())
    assert pictures[0] != pictures[1]


def test_a_load_case_without_results_is_refused(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir")
    with pytest.raises(ValueError, match="load case 4"):
        plot.plot(tmp_path / "dir", tmp_path / "out.png", case=4)


def test_a_poor_solve_without_displacements_is_drawn_undeformed(tmp_path: Path) -> None:
    model = make_model()
    fields = grid.point_fields(
        model,
        Results(
            1,
            1,
            0.6,
            0.0,
            0.0,
            0.0,
            0.0,
            (0.0, 0.0, 0.0),
            np.zeros(0),
            model.nodes[:, 0],
            model.nodes[:, 1],
            None,
            None,
        ),
    )
    target = tmp_path / "out.png"
    plot.draw(model, fields, target, plot.View(field="stress", size=(400, 300)), "poor")
    assert colours(target) > 100
