"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import NOBODY, VK_RUND

from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.results import read_results
from vkctl.optimise.design import make_design
from vkctl.optimise.smoothing import near_points, smoothing_of, smoothing_over
from vkctl.running.run import run
from vkctl.shapes.boxes import box
from vkctl.shapes.measures import element_volumes, select_nodes


def design_of(kind: str, radius: float = 1.0):
    part = box(kind, (6, 4, 4), (6.0, 4.0, 4.0))  # type: ignore[arg-type]
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    return model, make_design(model, radius, NOBODY)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])
def test_the_volume_of_a_half_space_is_what_it_cuts_off(kind: str) -> None:
    model, design = design_of(kind)
    assert design.volume(np.ones(len(model.tp))) == pytest.approx(1.0, abs=1e-5)
    assert design.volume(model.nodes[:, 0] - 3.0) == pytest.approx(0.5005, abs=1e-5)
    assert design.volume(model.nodes[:, 0] - 1.47) == pytest.approx(1 - 1.47 / 6, abs=0.04)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8", "mixed"])
def test_the_volume_is_the_one_that_the_solver_tells(kind: str, tmp_path: Path) -> None:
    part = box(kind, (6, 4, 4), (6.0, 4.0, 4.0))  # type: ignore[arg-type]
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.load_cases[0].support(select_nodes(part.nodes, x=0.0))
    model.load_cases[0].load([len(part.nodes)], [(0.0, 0.0, 1.0)])
    model.set_level(1.0)
    model.tp = (np.sin(1.3 * part.nodes).sum(axis=1) + 0.2).astype(np.float32)
    design = make_design(model, 1.0, NOBODY)
    write(model, tmp_path)
    assert run(tmp_path, vk_rund=VK_RUND, threads=1).ok
    total = element_volumes(part.nodes, part.elements).sum()
    told = read_results(tmp_path, 1).material_volume / total
    assert 0.4 < told < 0.8
    assert design.volume(model.tp.astype(np.float64)) == pytest.approx(told, rel=2e-5)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])
@pytest.mark.parametrize("volume", [0.25, 0.8])
def test_the_threshold_meets_the_volume(kind: str, volume: float) -> None:
    model, design = design_of(kind)
    criterion = 1.0 + np.sin(model.nodes).sum(axis=1) ** 2
    levels, threshold = design.next_levels(np.ones(len(model.tp)), criterion, volume, 1.0)
    assert design.volume(levels) == pytest.approx(volume, abs=0.01)
    moved = np.isclose(levels, design.evening @ np.clip(criterion / threshold - 1.0, -1.0, 1.0))
    assert moved.mean() > 0.9  # all but teeth and dents
    above = design.evening @ (criterion > threshold)
    assert (levels[moved & (above == 1.0)] > 0).all() and (levels[moved & (above == 0.0)] < 0).all()
    assert np.abs(levels).max() <= 1.0


def test_a_single_row_of_points_is_material_only_where_much_is_asked_for() -> None:
    """It would be a chain of beads."""
    model, design = design_of("hex8", radius=1.5)
    y, z = model.nodes[:, 1], model.nodes[:, 2]

    def left(rows: np.ndarray, asked: float) -> bool:
        found = (design.evening @ np.where(rows, asked, -1.0))[rows]
        assert (found > 0).all() or (found < 0).all()
        return bool((found > 0).all())

    row, bar = (y == 2.0) & (z == 2.0), (y >= 2.0) & (z >= 2.0)
    assert not left(row, 0.3) and left(row, 0.9) and left(bar, 0.3)


def test_what_is_void_pulls_no_levels_down_and_a_short_radius_smooths_none() -> None:
    points = np.array([[0.0, 0, 0], [1, 0, 0], [2, 0, 0]])
    void = np.array([True, False, False])
    assert np.allclose(smoothing_over(points, 1.25, void) @ [-1.0, 1, 1], [-1.0, 1, 1])
    assert np.allclose(smoothing_over(points, 0.9) @ [-1.0, 1, 1], [-1.0, 1, 1])


def test_a_shorter_radius_takes_of_the_same_pairs() -> None:
    points = np.random.default_rng(3).random((60, 3))
    near, void = near_points(points, 0.5), np.arange(60) % 7 == 0
    for radius in (0.5, 0.2):
        apart = np.linalg.norm(points[:, None] - points, axis=2)
        apart[void], apart[:, void] = 1.0, 1.0
        np.fill_diagonal(apart, 0.0)
        weights = np.maximum(radius - apart, 0.0)
        weights /= weights.sum(axis=1, keepdims=True)
        np.testing.assert_allclose(smoothing_of(near, radius, void).toarray(), weights, atol=1e-14)


def test_smoothing_keeps_constants_and_reaches_as_far_as_its_radius() -> None:
    model, design = design_of("hex8", radius=1.5)
    assert np.allclose(design.smoothing @ np.full(len(model.tp), 7.0), 7.0)
    peak = np.zeros(len(model.tp))
    peak[70] = 1.0
    smooth = design.smoothing @ peak
    distance = np.linalg.norm(model.nodes - model.nodes[70], axis=1)
    assert (smooth[distance < 1.49] > 0).all() and (smooth[distance >= 1.5] == 0).all()
