"""Shapes that can be printed along a direction."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from wished_boxes import design_of

from vkctl.directory.model import LoadCase, Material, Model, read
from vkctl.optimise import Optimised, history, optimise
from vkctl.optimise.design import make_design
from vkctl.optimise.wishes.entries import Overhang, Wishes
from vkctl.optimise.wishes.overhang import held_points
from vkctl.optimise.wishes.sampling import Field
from vkctl.shapes.boxes import box

NONE = np.empty(0, np.int64)


def plate_of(overhang: Overhang, kept=NONE):
    """Of 12 x 6 x 1 cells of size 1."""
    part = box("hex8", (12, 6, 1), (12.0, 6.0, 1.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    return make_design(model, 1.0, kept, NONE, Wishes(overhang=overhang))


def lost(design, levels) -> set[tuple[int, int]]:
    printed = design.shape.levels(levels)
    assert (printed <= levels).all()
    x, y, _ = design.points[(printed <= 0) & (levels > 0)].round().astype(int).T
    return set(zip(x.tolist(), y.tolist(), strict=True))


def test_over_a_gap_a_roof_of_the_angle_is_all_that_stays() -> None:
    design = plate_of(Overhang((0, 1, 0)))
    x, y, _ = design.points.T
    gap = (np.abs(x - 6) < 2.5) & (y < 2.5)
    assert lost(design, np.where(gap, -1.0, 1.0)) == {(5, 3), (6, 3), (7, 3), (6, 4)}
    steep = plate_of(Overhang((0, 3, 0), 30.0))  # holds from straight below alone on this grid
    every = {(k, row) for k in range(4, 9) for row in range(3, 7)}
    assert lost(steep, np.where(gap, -1.0, 1.0)) == every


def test_what_hangs_from_above_is_lost_and_what_is_kept_holds_itself_and_others() -> None:
    x, y, _ = plate_of(Overhang((0, 1, 0))).points.T
    stalactite = np.where((np.abs(x - 6) < 0.5) | (y > 4.5) | (np.abs(x) < 0.5), 1.0, -1.0)
    stalactite[(np.abs(x - 6) < 0.5) & (y < 1.5)] = -1.0
    hung = {(6, row) for row in (2, 3, 4)} | {(k, row) for row in (5, 6) for k in range(2, 13)}
    free = plate_of(Overhang((0, 1, 0)))
    assert lost(free, stalactite) == hung - {(2, 6)}
    foot = np.flatnonzero((np.abs(x - 6) < 0.5) & (np.abs(y - 2) < 0.5)) + 1
    held = lost(plate_of(Overhang((0, 1, 0)), foot), stalactite)
    assert held == {(k, 5) for k in (2, 3, 4, 8, 9, 10, 11, 12)} | {
        (k, 6) for k in (3, 9, 10, 11, 12)
    }


def test_the_plate_may_lie_higher_than_the_part() -> None:
    design = plate_of(Overhang((0, 1, 0), plate=(0, 3, 0)))
    gap = np.where(design.points[:, 1] < 2.5, -1.0, 1.0)
    assert lost(design, gap) == set()


def test_levels_in_the_middle_of_edges_hold_nothing() -> None:
    """The material there follows the corners: what looked held by them would hang free."""
    part = box("tet10", (4, 4, 1), (4.0, 4.0, 1.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    design = make_design(model, 1.0, NONE, NONE, Wishes(overhang=Overhang((0, 1, 0))))
    corner = (np.abs(design.points - design.points.round()) < 0.01).all(axis=1)
    height = design.points[:, 1]
    layer = (height > 0.75) & (height < 2.25)
    printed = design.shape.levels(np.where(layer & corner, -1.0, 1.0))
    assert (printed[corner & (height > 2.25)] == -1.0).all()
    assert (printed[corner & (height < 0.75)] == 1.0).all()


@pytest.mark.parametrize("distortion", [0.0, 0.2])
def test_a_criterion_that_holds_what_it_wants_can_be_printed_at_any_threshold(
    distortion: float,
) -> None:
    design = design_of(Wishes(), distortion)
    rng = np.random.default_rng(5)
    every = np.arange(1, len(design.points) + 1, dtype=np.int32)
    part = box("hex8", (8, 6, 6), (8.0, 6.0, 6.0))
    model = Model(part.nodes, part.elements, [], [], node_tp_index=every)
    field = Field(model, design.points, 1.0)
    held = held_points(field, Overhang((0, 0, 1)), np.zeros(len(design.points), np.bool_))
    assert not len(held.loose)
    for _ in range(3):
        criterion = rng.uniform(0, 1, len(design.points)) ** 4
        wanted = held.holding(criterion, rng.uniform(-1, 1, len(criterion)))
        assert (wanted >= criterion).all() and wanted.max() == criterion.max()
        assert np.array_equal(held.printed(wanted), wanted)
        assert not np.array_equal(held.printed(criterion), criterion)


def designs_of(directory: Path, done: Optimised) -> list[np.ndarray]:
    return [history.load_array(history.levels_file(directory, row.step)) for row in done.rows]


def test_every_design_of_a_loop_can_be_printed_and_has_its_volume(tmp_path: Path) -> None:
    settings = "steps = 10\nvolume = 0.5\nreduction = 0.1\noverhang = { direction = [0, -1, 0] }\n"
    done = optimise(write_small(tmp_path, settings), tmp_path / "d", vk_rund=VK_RUND)
    design = plate_of(Overhang((0, -1, 0)))
    nodes = read(tmp_path / "d").nodes
    assert np.allclose(design.points, nodes)
    assert not any(lost(design, levels) for levels in designs_of(tmp_path / "d", done))
    assert [row.volume for row in done.rows[5:]] == pytest.approx([0.5] * 5, abs=1e-4)
    free = optimise(
        write_small(tmp_path / "free", settings.rpartition("over")[0]),
        tmp_path / "free" / "d",
        vk_rund=VK_RUND,
    )
    assert any(lost(design, levels) for levels in designs_of(tmp_path / "free" / "d", free))
    assert done.rows[-1].objective < 1.5 * free.rows[-1].objective
