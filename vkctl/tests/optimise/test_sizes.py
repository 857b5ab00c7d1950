"""Smallest members and holes: measured on a part, and what a loop does for them."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from wished_boxes import plate

from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.optimise import (
    Optimised,
    OptimiseError,
    StepShown,
    history,
    measured_sizes,
    optimise,
    read_settings,
)
from vkctl.optimise.wishes.entries import SizeWishes
from vkctl.optimise.wishes.sampling import Field
from vkctl.optimise.wishes.sizes import THIN, make_sized
from vkctl.prepare import CaseFileError

NONE = np.zeros(25 * 25 * 2, np.bool_)


def test_the_smallest_member_and_the_smallest_hole_are_measured() -> None:
    """To a third of an edge, below and above, as the grid is."""
    third = 0.35
    cross = plate(lambda x, y: np.maximum(2.5 - np.abs(y - 12), 3.5 - np.abs(x - 12)))
    assert measured_sizes(cross).member == pytest.approx(5.0, abs=third)
    ring = plate(lambda x, y: 2.0 - np.abs(np.hypot(x - 12, y - 12) - 8))
    assert measured_sizes(ring).member == pytest.approx(4.0, abs=2 * third)
    holes = plate(
        lambda x, y: np.minimum(np.hypot(x - 7, y - 7) - 2.0, np.hypot(x - 16, y - 16) - 4.5)
    )
    assert measured_sizes(holes).hole == pytest.approx(4.0, abs=2 * third)
    slot = plate(lambda x, y: np.abs(y - 12) - 1.5)
    sizes = measured_sizes(slot)
    assert sizes.hole == pytest.approx(3.0, abs=third)
    assert sizes.member is not None and sizes.member > 10.0
    full = measured_sizes(plate(lambda x, y: np.ones_like(x)))
    assert full.hole is None and full.member is not None


def sized_plate(sizes: SizeWishes, levels: Array, model: Model) -> Model:
    """The plate with the sizes in force that its members then have."""
    sized = make_sized(Field(model, model.nodes, 1.0), sizes, NONE, NONE)
    model.tp = np.asarray(
        replace(sized, centres=sized.begun(levels, THIN)).sized(levels), np.float32
    )
    return model


@pytest.mark.parametrize(("width", "thickened"), [(2.0, 4.0), (3.2, 4.0), (7.0, 7.0), (0.6, None)])
def test_thin_members_are_thickened_to_the_size_and_others_are_left(
    width: float, thickened: float | None
) -> None:
    part = plate(lambda x, y: 0.5 * width - np.abs(y - 12.25))
    levels = np.clip(part.tp.astype(np.float64), -1.0, 1.0)
    found = measured_sizes(sized_plate(SizeWishes(member=4.0), levels, part)).member
    assert found == (None if thickened is None else pytest.approx(thickened, abs=0.4))


def test_members_along_a_face_lie_inside_of_it() -> None:
    """They are as thick as the size there, not half of it."""
    part = plate(lambda x, y: 2.2 - y)
    levels = np.clip(part.tp.astype(np.float64), -1.0, 1.0)
    found = sized_plate(SizeWishes(member=4.0), levels, part)
    x, y, _ = found.nodes.T
    away = np.abs(x - 12) < 11.5  # from the ends
    assert (found.tp[(y < 3.6) & away] > 0).all() and (found.tp[y > 4.4] < 0).all()


def test_holes_below_the_size_are_filled_and_others_are_left() -> None:
    part = plate(
        lambda x, y: np.minimum(np.hypot(x - 6, y - 6) - 1.6, np.hypot(x - 16, y - 16) - 4.0)
    )
    levels = np.clip(part.tp.astype(np.float64), -1.0, 1.0)
    found = sized_plate(SizeWishes(hole=5.0), levels, part)
    x, y, _ = found.nodes.T
    assert (found.tp[np.hypot(x - 6, y - 6) < 3] > 0).all()
    assert np.array_equal(found.tp > 0, (np.hypot(x - 16, y - 16) > 4.0))


def test_what_is_kept_is_a_member_of_the_size() -> None:
    part = plate(lambda x, y: -np.ones_like(x))
    kept = (part.nodes[:, 0] == 24) & (part.nodes[:, 1] == 0)
    sized = make_sized(Field(part, part.nodes, 1.0), SizeWishes(member=4.0), kept, NONE)
    levels = np.full(len(kept), -1.0)
    found = replace(sized, centres=sized.begun(levels, THIN)).sized(levels)
    x, y, _ = part.nodes.T
    assert (found[np.hypot(x - 22, y - 2) < 1.9] > 0).all() and (found[kept] > 0).all()
    assert (found[np.hypot(x - 22, y - 2) > 3.2] < 0).all()


SETTINGS = "steps = 18\nvolume = 0.5\nreduction = 0.1\nsizes = { member = 2.5, hole = 2.0 }\n"


@pytest.fixture(scope="module")
def done(tmp_path_factory: pytest.TempPathFactory) -> Optimised:
    folder = tmp_path_factory.mktemp("sized")
    return optimise(write_small(folder, SETTINGS), folder / "d", vk_rund=VK_RUND)


def test_a_loop_ends_with_its_sizes_and_its_volume(done: Optimised) -> None:
    assert done.sizes == measured_sizes(done.directory)
    assert done.sizes is not None and done.sizes.member is not None
    assert done.sizes.member >= 2.5
    assert done.sizes.hole is None or done.sizes.hole >= 2.0
    assert done.rows[-1].volume == pytest.approx(0.5, abs=0.005)
    assert done.told_sizes[0].endswith("of at least 2.5")
    assert not done.pieces.broken


@pytest.mark.thorough
def test_a_loop_that_was_stopped_ends_with_the_same_part(done: Optimised, tmp_path: Path) -> None:
    """Stopped before the sizes are in force, in the step that brings them, and after it."""
    cases, stops = write_small(tmp_path, SETTINGS), [5, 11, 12, 13, 16]

    def on_step(shown: StepShown) -> None:
        if stops and shown.row.step >= stops[0]:
            del stops[0]
            raise KeyboardInterrupt

    while stops:
        with pytest.raises(KeyboardInterrupt):
            optimise(cases, tmp_path / "d", vk_rund=VK_RUND, on_step=on_step)
    again = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert np.abs(again.levels - done.levels).max() < 1e-3
    assert again.sizes == done.sizes


def test_sizes_that_are_taken_back_are_gone_with_the_next_step(tmp_path: Path) -> None:
    cases, directory = write_small(tmp_path, SETTINGS), tmp_path / "d"
    optimise(cases, directory, vk_rund=VK_RUND, steps=4)
    begun = history.read_state(directory)
    assert begun is not None and begun.sized == 4
    write_small(tmp_path, SETTINGS.rpartition("sizes")[0])
    done = optimise(cases, directory, vk_rund=VK_RUND, steps=6)
    ended = history.read_state(directory)
    assert done.sizes is None and ended is not None and ended.sized == 0


@pytest.mark.parametrize(
    ("sizes", "message"),
    [
        ("member = 1.5", "member = 1.5 .* below two edges of the mesh, which are 2:"),
        ("hole = 1.9", "hole = 1.9 .* below two edges"),
        ("member = 40", "member = 40 .* thicker than the design volume"),
    ],
)
def test_sizes_that_the_part_can_not_have_are_refused(
    tmp_path: Path, sizes: str, message: str
) -> None:
    cases = write_small(tmp_path, f"sizes = {{ {sizes} }}\n")
    with pytest.raises(OptimiseError, match=message):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("sizes = { }", "sizes in [optimise] says nothing"),
        ("sizes = { member = 0 }", "member in [optimise.sizes] must be above 0"),
        (
            "sizes = { member = 3 }\noverhang = { direction = [0, 1, 0] }",
            "sizes doesn't go together with overhang",
        ),
    ],
)
def test_sizes_that_can_not_be_are_told_by_line(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    line = cases.read_text().splitlines().index(settings.splitlines()[0]) + 1
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert message in str(problem) and problem.line == line
