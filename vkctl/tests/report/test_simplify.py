"""Surfaces that are too fine for a browser."""

from __future__ import annotations

import numpy as np
import pytest
import pyvista

from vkctl.report.simplify import simplified


@pytest.mark.parametrize("most", [200, 1000, 5000])
def test_a_sphere_stays_a_sphere_of_at_most_so_many_triangles(most: int) -> None:
    sphere = pyvista.Sphere(radius=3.0, theta_resolution=120, phi_resolution=120)
    sphere.point_data["row"] = np.arange(sphere.n_points)
    assert sphere.n_cells > 20000
    found = simplified(sphere, most)
    assert 0.5 * most < found.n_cells <= most
    assert np.linalg.norm(found.points, axis=1) == pytest.approx(3.0, rel=1e-5)
    assert found.area == pytest.approx(4 * np.pi * 9.0, rel=20.0 / most)


def test_points_that_stay_keep_their_own_data() -> None:
    plate = pyvista.Plane(i_resolution=60, j_resolution=60).triangulate()
    plate.point_data["row"] = np.arange(plate.n_points)
    found = simplified(plate, 500)
    assert np.array_equal(plate.points[found.point_data["row"]], found.points)


def test_a_flat_plate_and_a_long_bar_are_simplified_too() -> None:
    for box in (pyvista.Box((0, 100, 0, 1, 0, 1), level=60), pyvista.Plane(i_resolution=90)):
        fine = box.triangulate()
        fine.point_data["row"] = np.arange(fine.n_points)
        found = simplified(fine, 100)
        assert 0 < found.n_cells <= 100
