"""What the page's viewer is given to draw."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest
from results_on_disk import make_model, with_hole, write_results

from vkctl.basics.types import Array
from vkctl.directory.model import read
from vkctl.report.facts import case_facts
from vkctl.report.scene import Scene, make_scene

from .test_packed import unpacked, values_of

FIELDS = ("magnitude", "von_mises")


def scene_of(directory: Path, most: int = 10**6) -> Scene:
    model = read(directory)
    return make_scene(model, [case_facts(model, directory, 1, FIELDS)], None, most)


def cells(said: dict[str, Any], corners: int) -> Array:
    return unpacked(said["text"], said["count"], 4).reshape(-1, corners)


def volume_inside(points: Array, triangles: Array) -> float:
    """By Gauss: of a closed surface that is seen from outside."""
    a, b, c = (points[triangles[:, k]] for k in range(3))
    return float(np.einsum("ij,ij->i", a, np.cross(b, c)).sum() / 6)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])
def test_surface_and_inside_have_the_parts_volume(kind: str, tmp_path: Path) -> None:
    write_results(make_model(kind), tmp_path)
    scene = scene_of(tmp_path)
    points = values_of(scene.values["points"])
    assert abs(volume_inside(points, cells(scene.values["triangles"], 3))) == pytest.approx(
        128.0, rel=1e-4
    )
    rows = cells(scene.values["tetrahedra"], 4)
    edges = points[rows[:, 1:]] - points[rows[:, :1]]
    assert np.abs(np.linalg.det(edges)).sum() / 6 == pytest.approx(128.0, rel=1e-4)


def test_fields_belong_to_the_points_they_are_drawn_at(tmp_path: Path) -> None:
    write_results(make_model("hex8"), tmp_path)
    values = scene_of(tmp_path).values
    points = values_of(values["points"])
    case = values["cases"][0]
    assert values_of(case["displacement"]) == pytest.approx(0.01 * points, abs=2e-5)
    found = values_of(case["fields"]["magnitude"])[:, 0]
    nodes = (np.abs(points - np.round(points)) < 1e-3).all(axis=1)  # not middles of cells
    assert nodes.sum() == 9 * 5 * 5
    wanted = 0.01 * np.linalg.norm(points, axis=1)
    assert found[nodes] == pytest.approx(wanted[nodes], abs=1e-5)
    assert case["fields"]["magnitude"]["limits"] == pytest.approx([0.0, 0.01 * np.sqrt(96.0)])
    assert case["largest"] == pytest.approx(0.01 * np.sqrt(96.0))


def test_a_part_is_cut_out_at_level_zero(tmp_path: Path) -> None:
    write_results(with_hole(make_model("hex8", (16, 4, 8))), tmp_path)
    scene = scene_of(tmp_path)
    points = values_of(scene.values["points"])
    assert (np.hypot(points[:, 0] - 4.0, points[:, 2] - 2.0) > 1.2).all()
    volume = abs(volume_inside(points, cells(scene.values["triangles"], 3)))
    assert volume == pytest.approx(128.0 - 4.0 * np.pi * 1.3**2, rel=0.02)


def test_too_fine_a_surface_is_simplified_and_keeps_no_inside(tmp_path: Path) -> None:
    write_results(make_model("tet4", (24, 12, 12)), tmp_path)
    scene = scene_of(tmp_path, 400)
    assert scene.found == 2 * 2 * (24 * 12 + 24 * 12 + 12 * 12)
    assert scene.triangles <= 400
    assert not scene.has_inside
    points = values_of(scene.values["points"])
    assert len(points) < 400
    assert volume_inside(points, cells(scene.values["triangles"], 3)) == pytest.approx(
        128.0, rel=0.2
    )


def test_where_nothing_is_material_there_is_no_scene(tmp_path: Path) -> None:
    model = make_model()
    model.set_level(np.full(len(model.nodes), -1.0))
    write_results(model, tmp_path)
    with pytest.raises(ValueError, match="no material"):
        scene_of(tmp_path)
