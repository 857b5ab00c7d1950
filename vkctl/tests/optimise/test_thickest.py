"""Members of a largest thickness: measured on a part, and what a loop does for them."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from wished_boxes import plate

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.optimise import Optimised, OptimiseError, measured_sizes, optimise, read_settings
from vkctl.optimise.wishes.entries import SizeWishes
from vkctl.optimise.wishes.sampling import Field
from vkctl.optimise.wishes.sizes import make_sized
from vkctl.optimise.wishes.thickest import Thickest, most_filled
from vkctl.prepare import CaseFileError
from vkctl.shapes.boxes import box

THIRD = 0.35  # of an edge: the measure's grid


def thickest_of(model: Model, size: float, kept: Array | None = None) -> Thickest:
    nothing = np.zeros(len(model.nodes), np.bool_)
    wishes = SizeWishes(thickest=size)
    field = Field(model, model.nodes, 1.0)
    found = make_sized(field, wishes, nothing if kept is None else kept, nothing).thickest
    assert found is not None
    return found


def levels_in(model: Model) -> Array:
    return np.clip(model.tp.astype(np.float64), -1.0, 1.0)


def test_the_largest_ball_in_a_part_is_measured() -> None:
    bar = plate(lambda x, y: 2.5 - np.abs(y - 12.25))
    assert measured_sizes(bar).thickest == pytest.approx(5.0, abs=THIRD)
    cross = plate(lambda x, y: np.maximum(2.0 - np.abs(y - 12), 2.0 - np.abs(x - 12)))
    joint = 4.0 * np.sqrt(2.0)  # the ball where bars of 4 cross touches their inner corners
    assert measured_sizes(cross).thickest == pytest.approx(joint, abs=2 * THIRD)
    disc = plate(lambda x, y: 4.0 - np.hypot(x - 12, y - 12))
    assert measured_sizes(disc).thickest == pytest.approx(8.0, abs=2 * THIRD)
    along_a_face = plate(lambda x, y: 4.0 - y)
    assert measured_sizes(along_a_face).thickest == pytest.approx(4.0, abs=THIRD)
    assert measured_sizes(plate(lambda x, y: -np.ones_like(x))).thickest is None


def test_balls_stand_out_across_a_part_that_is_thinner_than_the_size_alone() -> None:
    part = box("hex8", (12, 12, 4), (12.0, 12.0, 4.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    assert measured_sizes(model).thickest == pytest.approx(4.0, abs=THIRD)
    assert measured_sizes(model, 5.0).thickest == pytest.approx(12.0, abs=THIRD)


@pytest.mark.parametrize(("width", "left"), [(4.6, 0.4), (9.0, 0.4), (20.0, 0.2)])
def test_what_is_too_thick_is_opened_in_its_middle(width: float, left: float) -> None:
    part = plate(lambda x, y: 0.5 * width - np.abs(y - 12.0))
    before = levels_in(part)
    limit, levels = thickest_of(part, 4.0), before
    for _ in range(8 if width < 16 else 24):  # what is wide is halved more than once
        levels = limit.opened(levels)
    part.tp = levels.astype(np.float32)
    found = measured_sizes(part, 4.0).thickest
    assert found is not None and found <= 4.0
    assert (part.tp <= before.astype(np.float32)).all()
    assert (part.tp > 0).sum() > left * (before > 0).sum()


def test_members_of_the_size_are_left_as_they_are() -> None:
    part = plate(lambda x, y: 2.0 - np.abs(y - 12.25))
    levels = levels_in(part)
    limit = thickest_of(part, 5.0)
    assert np.array_equal(limit.opened(levels), levels)
    assert np.array_equal(limit.held(levels, levels - 0.5), levels)
    assert not limit.following(levels).taken.any()


def test_growth_is_taken_back_where_it_is_too_thick_alone() -> None:
    thin = plate(lambda x, y: 1.9 - np.abs(y - 12))
    thick = plate(lambda x, y: 3.4 - np.abs(y - 12))
    both = plate(lambda x, y: np.where(x < 12, 3.4, 1.9) - np.abs(y - 12))
    limit = thickest_of(thin, 4.0)
    part, before = plate(lambda x, y: x), levels_in(thin)
    part.tp = limit.held(levels_in(both), before).astype(np.float32)
    found = measured_sizes(part, 4.0).thickest
    assert found is not None and found <= 4.0
    away = thin.nodes[:, 0] > 16
    assert np.array_equal(limit.held(levels_in(both), before)[away], before[away])
    assert np.array_equal(limit.held(levels_in(thick), before) > 0, before > 0)


def test_the_criterion_loses_weight_in_the_middle_of_what_is_too_thick_and_gets_it_back() -> None:
    part = plate(lambda x, y: 4.0 - np.abs(y - 12.0))
    limit = thickest_of(part, 4.0)
    for _ in range(4):
        limit = limit.following(levels_in(part))
    x, y, _ = part.nodes.T
    away = np.abs(x - 12) < 8
    assert limit.taken[(np.abs(y - 12) < 1) & away] == pytest.approx(0.4)
    assert not limit.taken[np.abs(y - 12) > 4].any()
    assert (limit.weakened(-np.ones(len(x))) <= -1.0).all()  # material that harms does so no less
    for _ in range(8):
        limit = limit.following(np.full(len(x), -1.0))
    assert not limit.taken.any()


def test_what_such_members_can_fill_is_bounded_by_coverings() -> None:
    """Of a plate far larger than the balls: holes of 4 in the triangles that circles of 4 touch."""
    part = plate(lambda x, y: np.ones_like(x))
    triangles = np.sqrt(3.0) / 2.0 * (np.sqrt(3.0) * 4.0) ** 2  # of the plane, for each hole
    inner = (20 / 24) ** 2  # what is further than half of the thickness from the faces
    expected = 1.0 - inner * np.pi * 2.0**2 / triangles
    assert most_filled(thickest_of(part, 4.0), 4.0) == pytest.approx(expected, abs=0.02)
    assert most_filled(thickest_of(part, 4.0), None) > most_filled(thickest_of(part, 3.0), None)


SETTINGS = "steps = 24\nvolume = 0.65\nreduction = 0.05\nsizes = { thickest = 2.5 }\n"


@pytest.fixture(scope="module")
def done(tmp_path_factory: pytest.TempPathFactory) -> Optimised:
    folder = tmp_path_factory.mktemp("thickest")
    return optimise(write_small(folder, SETTINGS), folder / "d", vk_rund=VK_RUND)


def test_a_loop_ends_with_members_of_the_thickness_and_its_volume(done: Optimised) -> None:
    assert done.sizes == measured_sizes(done.directory, 2.5)
    assert done.sizes is not None and done.sizes.thickest is not None
    assert done.sizes.thickest <= 2.5
    assert done.rows[-1].volume == pytest.approx(0.65, abs=0.002)
    assert done.told_sizes == [f"largest thickness: {done.sizes.thickest:.4g} of at most 2.5"]
    assert not done.pieces.broken


def test_a_loop_without_the_wish_is_thicker(done: Optimised, tmp_path: Path) -> None:
    free = optimise(
        write_small(tmp_path, SETTINGS.rpartition("sizes")[0]), tmp_path / "d", vk_rund=VK_RUND
    )
    found = measured_sizes(free.directory, 2.5).thickest
    assert found is not None and found > 2.5


@pytest.mark.thorough
def test_a_loop_that_was_stopped_ends_with_the_same_part(done: Optimised, tmp_path: Path) -> None:
    """Stopped before the size is in force, in the step that brings it, and after it."""
    cases, stops = write_small(tmp_path, SETTINGS), [4, 15, 16, 17, 21]

    def on_step(shown: object) -> None:
        if stops and shown.row.step >= stops[0]:  # type: ignore[attr-defined]
            del stops[0]
            raise KeyboardInterrupt

    while stops:
        with pytest.raises(KeyboardInterrupt):
            optimise(cases, tmp_path / "d", vk_rund=VK_RUND, on_step=on_step)
    again = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert np.abs(again.levels - done.levels).max() < 1e-3
    assert again.sizes == done.sizes


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        (
            "sizes = { thickest = 1.5 }",
            "thickest = 1.5 .* below two edges of the mesh, which are 2",
        ),
        (
            "sizes = { thickest = 3 }\nkeep = ['far']\nthickness = { far = 4.0 }",
            "to be kept is .* thick at .*, more than thickest = 3 .*: keep less",
        ),
        (
            "sizes = { thickest = 2, hole = 2 }\nvolume = 0.9",
            "members of at most 2 fill no more than .* and volume = 0.9",
        ),
    ],
)
def test_a_thickness_that_the_part_can_not_have_is_refused(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    with pytest.raises(OptimiseError, match=message):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


def test_a_thickness_below_that_of_members_is_told_by_line(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "sizes = { member = 3, thickest = 2.5 }\n")
    line = cases.read_text().splitlines().index("sizes = { member = 3, thickest = 2.5 }") + 1
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert "thickest in [optimise.sizes] is below member = 3" in str(problem)
    assert problem.line == line
