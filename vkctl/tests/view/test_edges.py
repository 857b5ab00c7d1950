"""Edges of elements on the surface that pictures draw in triangles."""

from __future__ import annotations

import numpy as np
import pytest
from results_on_disk import make_model

from vkctl.directory.model import Model
from vkctl.view.edges import edge_lines, element_edges
from vkctl.view.grid import part_surface


def lengths(model: Model) -> tuple[np.ndarray, np.ndarray]:
    """Ends (k, 2, 3) of the drawn edges, and how far they reach along each axis."""
    surface = part_surface(model)
    ends = np.asarray(surface.points, float)[element_edges(surface)]
    return ends, np.abs(ends[:, 1] - ends[:, 0])


def test_faces_of_hexahedra_have_no_diagonals() -> None:
    model = make_model("hex8", (4, 3, 2))
    _, reach = lengths(model)
    assert ((reach > 1e-6).sum(axis=1) == 1).all()
    # Lines of the grid on each of the six sides; those on the box's own edges are on two of them.
    sides = 2 * sum(a * (b + 1) + b * (a + 1) for a, b in ((4, 3), (3, 2), (4, 2)))
    assert len(reach) == sides - 4 * (4 + 3 + 2)


@pytest.mark.parametrize("kind", ["tet4", "tet10"])
def test_tetrahedra_keep_all_edges_of_their_outer_faces(kind: str) -> None:
    model = make_model(kind, (2, 2, 2))
    faces = 6 * 2 * 2 * 2  # two triangles a side of a cell
    pieces = 2 if kind == "tet10" else 1  # of an edge, at its mid-edge node
    assert len(lengths(model)[0]) == pieces * faces * 3 // 2


def test_where_level_zero_cuts_an_element_its_cut_is_one_face() -> None:
    model = make_model("hex8", (4, 2, 2))
    x = model.nodes[:, 0]
    model.set_level(np.where(x > x.max() / 2, -1.0, 1.0))
    ends, reach = lengths(model)
    cut = np.isclose(ends[..., 0], ends[..., 0].max(), atol=1e-4).all(axis=1)
    side = np.ptp(model.nodes[:, 1]) / 2
    assert reach[cut].sum() == pytest.approx(12 * side, rel=1e-5)  # two by two squares
    assert ((reach > 1e-4).sum(axis=1) == 1).all()


def test_lines_follow_the_places_that_are_given() -> None:
    surface = part_surface(make_model("hex8", (1, 1, 1)))
    moved = np.asarray(surface.points) + 5.0
    lines = edge_lines(surface, moved)
    assert lines.n_lines == 12
    assert np.asarray(lines.points).min() == pytest.approx(5.0 + surface.points.min())
