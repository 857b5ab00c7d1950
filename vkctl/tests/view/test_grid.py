"""VTK grids, exported files and pictures."""

from __future__ import annotations

import numpy as np
import pytest
import pyvista
from closed_surfaces import open_edges
from results_on_disk import make_model, with_hole

from vkctl.directory import formats
from vkctl.directory.levels import level_field
from vkctl.view import grid

KINDS = ("tet4", "hex8", "tet10")


@pytest.mark.parametrize("kind", KINDS)
def test_the_grid_has_the_volume_of_the_mesh(kind: str) -> None:
    model = make_model(kind)
    sizes = grid.mesh_grid(model).compute_cell_sizes()
    assert sizes.cell_data["Volume"].sum() == pytest.approx(128.0, rel=1e-6)


def test_curved_mid_edge_nodes_keep_their_places() -> None:
    model = make_model("tet10", (1, 1, 1))
    row = model.elements.tet10[0] - 1
    bulge = np.arange(6)[:, None] * [0.01, -0.02, 0.03]
    model.nodes[row[4:]] += bulge
    cell = grid.mesh_grid(model).get_cell(0)
    np.testing.assert_array_equal(cell.point_ids, row)
    corners = [(0, 1), (1, 2), (2, 0), (0, 3), (1, 3), (2, 3)]
    middle = cell.points[:4][corners].mean(axis=1)
    np.testing.assert_allclose(cell.points[4:] - middle, bulge, atol=1e-6)


def test_levels_are_scaled_like_the_solver_scales_them() -> None:
    model = make_model()
    model.set_level([2.0, -6.0], nodes=[1, 3])
    levels = level_field(model)
    np.testing.assert_allclose(levels[:4], [0.25, 1.0, -0.75, 1.0])


def test_excluded_elements_are_left_out() -> None:
    model = make_model()
    model.exclude_elements([1, 2, 3])
    assert grid.mesh_grid(model).n_cells == len(model.elements) - 3
    assert 1 not in grid.mesh_grid(model).cell_data["element"]


def test_the_grid_tells_labels_of_nodes_and_elements_where_they_are_known() -> None:
    model = make_model()
    assert "label" not in grid.mesh_grid(model).point_data
    nodes, elements = np.arange(len(model.nodes)) + 100, np.arange(len(model.elements)) + 1000
    model.labels = formats.Labels(nodes, elements)
    model.exclude_elements([1])
    made = grid.mesh_grid(model)
    np.testing.assert_array_equal(made.point_data["label"], nodes)
    np.testing.assert_array_equal(made.cell_data["label"], elements[1:])


@pytest.mark.parametrize("kind", KINDS)
def test_the_whole_mesh_is_the_part_where_all_levels_are_positive(kind: str) -> None:
    surface = grid.part_surface(make_model(kind))
    assert open_edges(surface) == 0
    assert surface.volume == pytest.approx(128.0, rel=1e-6)


@pytest.mark.parametrize("kind", KINDS)
def test_the_part_ends_at_level_zero(kind: str) -> None:
    surface = grid.part_surface(with_hole(make_model(kind, (32, 2, 16))))
    assert open_edges(surface) == 0
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
    assert open_edges(surface) == 0


def test_a_field_without_material_has_no_surface() -> None:
    model = make_model()
    model.set_level(-1.0)
    with pytest.raises(ValueError, match="no material"):
        grid.part_surface(model)


def test_open_edges_are_counted() -> None:
    assert open_edges(pyvista.Plane(i_resolution=1, j_resolution=1).triangulate()) == 4
