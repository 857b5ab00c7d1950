"""Symmetry, cyclic and extruded patterns of the optimised shape."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import ONE_CASE, VK_RUND, write_small
from wished_boxes import design_of

from vkctl.directory.model import read
from vkctl.optimise import OptimiseError, optimise, read_settings
from vkctl.optimise.wishes.entries import Cyclic, Plane, Wishes
from vkctl.optimise.wishes.images import images
from vkctl.prepare import CaseFileError

ACROSS = Plane((0.0, 3.0, 0.0), (0.0, 1.0, 0.0))
HALF = "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]\n"


def test_planes_and_an_axis_make_as_many_images_as_their_angles_say() -> None:
    across, along = Plane((2, 0, 0), (1, 0, 0)), Plane((0, 5, 0), (0, 3, 0))
    assert len(images((across,), None)) == 2
    assert len(images((across, along), None)) == 4
    tilted = Plane((2, 5, 0), (0.5, 0.866, 0))
    assert len(images((across, tilted), None)) == 6
    assert len(images((), Cyclic((2, 5, 0), (0, 0, 1), 5))) == 5
    assert len(images((across,), Cyclic((2, 5, 0), (0, 0, 1), 5))) == 10
    with pytest.raises(ValueError, match="more than 60 images"):
        images((across,), Cyclic((3, 5, 0), (0, 0, 1), 5))


def test_a_step_around_an_axis_turns_by_the_right_hand() -> None:
    one = images((), Cyclic((2, 0, 0), (0, 0, 7), 4))[1]
    assert one @ (3, 0, 0, 1) == pytest.approx((2, 1, 0, 1))


@pytest.mark.parametrize("distortion", [0.0, 0.2])
def test_the_criterion_is_averaged_over_images_and_interpolated_where_no_point_is(
    distortion: float,
) -> None:
    """Trilinear elements hold linear fields, so their means are known on any mesh."""
    linear = np.array((1.0, -2.0, 0.5))
    turned = Cyclic((4, 3, 3), (1, 0, 0), 4)
    cases = (
        (Wishes(symmetry=(ACROSS,)), lambda p: p * (1, 0, 1) + (0, 3, 0)),
        (Wishes(cyclic=turned), lambda p: p * (1, 0, 0) + (0, 3, 3)),
        (Wishes(symmetry=(ACROSS,), cyclic=turned), lambda p: p * (1, 0, 0) + (0, 3, 3)),
        (Wishes(extruded=(1, 0, 0)), lambda p: p * (0, 1, 1) + (4, 0, 0)),
    )
    for wishes, middle in cases:
        design = design_of(wishes, distortion)
        found = design.shape.criterion(design.points @ linear, np.ones(len(design.points)))
        assert found == pytest.approx(middle(design.points) @ linear, abs=0.15 * distortion + 1e-5)


def test_fields_on_an_unlike_mesh_are_alike_where_they_are_interpolated() -> None:
    design = design_of(Wishes(symmetry=(ACROSS,)), 0.2)
    smooth = np.sin(design.points @ (0.5, 0.4, 0.3))
    found = design.shape.criterion(smooth, np.ones(len(smooth)))
    mirrored = design.points * (1, -1, 1) + (0, 6, 0)
    exact = 0.5 * (smooth + np.sin(mirrored @ (0.5, 0.4, 0.3)))
    largest = 1.4  # of an edge: half of the error of linear interpolation, that of one of two
    assert 0.001 < np.abs(found - exact).max() < 0.5 * largest**2 / 8 * (0.5**2 + 0.4**2 + 0.3**2)


def test_sets_to_keep_are_repeated_by_the_pattern() -> None:
    corner = np.array([1])
    kept = design_of(Wishes(symmetry=(ACROSS,)), kept=corner)
    assert kept.points[kept.shape.kept].tolist() == [[0, 0, 0], [0, 6, 0]]
    row = design_of(Wishes(extruded=(1, 0, 0)), 0.2, void=corner)
    assert row.shape.void.sum() == 9 and (row.points[row.shape.void][:, 1:] == 0).all()


def test_a_pattern_that_puts_what_is_void_on_what_is_kept_is_refused() -> None:
    last = np.array([9])
    with pytest.raises(ValueError, match="the wishes put 9 points both among"):
        design_of(Wishes(extruded=(1, 0, 0)), kept=np.array([1]), void=last)


def test_a_part_that_is_not_like_its_images_is_refused() -> None:
    with pytest.raises(ValueError, match="isn't like its images .* such as"):
        design_of(Wishes(symmetry=(Plane((0, 2, 0), (0, 1, 0)),)))


CORNERS = """
[loads.up]
type = "force"
set = "top_tip"
value = [0, 1, 0]
"""
BOTH = ONE_CASE + '\n[[load_case]]\nname = "up"\nloads = ["up"]\n'


def test_a_symmetric_shape_is_that_of_the_load_and_its_image(tmp_path: Path) -> None:
    wished = write_small(tmp_path / "wished", "steps = 8\nvolume = 0.5\n" + HALF)
    twice = write_small(tmp_path / "twice", "steps = 8\nvolume = 0.5\n", BOTH)
    twice.write_text(twice.read_text().replace("\n[[load_case]]", CORNERS + "\n[[load_case]]", 1))
    done = optimise(wished, tmp_path / "wished" / "d", vk_rund=VK_RUND)
    expected = optimise(twice, tmp_path / "twice" / "d", vk_rund=VK_RUND)
    assert done.levels == pytest.approx(expected.levels, abs=2e-3)
    nodes = read(tmp_path / "wished" / "d").nodes
    here, there = (np.lexsort((nodes * (1, sign, 1)).T) for sign in (1, -1))
    assert np.array_equal(done.levels[here], done.levels[there])
    assert done.rows[-1].volume == pytest.approx(done.rows[-1].target, abs=1e-4)


def test_a_pattern_wished_later_holds_from_the_next_step_on(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 3\nreduction = 0.15\n")
    free = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    cases = write_small(tmp_path, "steps = 4\nreduction = 0.15\n" + HALF)
    done = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert done.rows[:3] == free.rows
    nodes = read(tmp_path / "d").nodes
    here, there = (np.lexsort((nodes * (1, sign, 1)).T) for sign in (1, -1))
    assert not np.allclose(free.levels[here], free.levels[there], atol=0.1)
    assert np.array_equal(done.levels[here], done.levels[there])


def test_a_mesh_without_the_pattern_is_told_by_the_loop(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "symmetry = [{ point = [4, 0, 0], normal = [1, 0, 0] }]\n")
    with pytest.raises(OptimiseError, match="isn't like its images"):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("symmetry = [{ normal = [1, 0, 0] }]", "has no 'point'"),
        ("symmetry = [{ point = [0, 0, 0], normal = [0, 0, 0] }]", "must not be the zero vector"),
        ("cyclic = { point = [0, 0, 0], axis = [0, 0, 1], count = 1 }", "must be at least 2"),
        ("extruded = { direction = [0, 0, 1], angle = 3 }", "unknown key 'angle'"),
        ("void = ['fra']", "no set 'fra'; did you mean 'far'?"),
        ("thickness = { tip = 2.0 }", "'tip' is neither to keep nor to be left void"),
        (
            "symmetry = [{ point = [0, 0, 0], normal = [1, 0.1, 0] },"
            " { point = [0, 0, 0], normal = [0, 1, 0] }]",
            "symmetry and cyclic don't go together: they make more than 60 images",
        ),
        (
            "extruded = { direction = [1, 1, 0] }\n"
            "symmetry = [{ point = [0, 0, 0], normal = [0, 1, 0] }]",
            "extruded doesn't go together with symmetry or cyclic",
        ),
    ],
)
def test_patterns_and_regions_that_can_not_be_are_told_by_line(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    line = cases.read_text().splitlines().index(settings.splitlines()[0]) + 1
    with pytest.raises(CaseFileError) as raised:
        if settings.startswith("void"):
            optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
        read_settings(cases)
    (problem,) = raised.value.problems
    assert message in str(problem) and problem.line == line
