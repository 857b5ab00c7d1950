"""Shapes that a mould or a tool can be drawn from."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from wished_boxes import design_of, shape_of

from vkctl.basics.types import Array
from vkctl.directory.model import read
from vkctl.optimise import history, optimise, read_settings
from vkctl.optimise.wishes.entries import Draw, Wishes
from vkctl.prepare import CaseFileError

VOLUMES = [0.6, 0.5, 0.5, 0.5]
UP, DOWN, SIDE = (0.0, 0.0, 1.0), (0.0, 0.0, -2.0), (1.0, 0.0, 0.0)


def grid(design, values: Array) -> Array:
    """Values (x, y, z) of the box's nodes."""
    return values[np.lexsort(design.points.T[::1])].reshape(7, 7, 9).transpose(2, 1, 0)


def rising(values: Array, axis: int) -> Array:
    """The highest value from each place on along an axis."""
    return np.flip(np.maximum.accumulate(np.flip(values, axis), axis), axis)


def test_a_field_is_raised_to_the_highest_along_each_direction() -> None:
    values = np.random.default_rng(3).uniform(-1, 1, 441)
    design = design_of(Wishes())
    given = grid(design, values)
    up, down = rising(given, 2), np.maximum.accumulate(given, 2)
    for draw, wanted in (
        (Draw((UP,)), up),
        (Draw((DOWN,)), down),
        (Draw((UP, DOWN)), np.minimum(up, down)),
        (Draw((UP, SIDE)), np.minimum(up, rising(given, 0))),
        (Draw((UP,), (9, 9, 2.5)), np.concatenate((down[..., :3], up[..., 3:]), 2)),
    ):
        shape = shape_of(Wishes(draw=draw))
        found = shape.criterion(values, values)
        assert np.array_equal(grid(design, found), wanted)
        assert np.array_equal(shape.begun(found), found)


def test_on_an_unlike_mesh_what_falls_along_the_direction_stays_and_what_rises_is_level() -> None:
    design = design_of(Wishes(draw=Draw((UP,))), 0.25)
    z = design.points[:, 2]
    assert design.shape.criterion(-z, z) == pytest.approx(-z, abs=0.02)
    risen = design.shape.criterion(z, z)
    # The highest station is half a step of half an edge below the top.
    assert (risen >= 5.7).all() and (risen <= 6.0).all()


def test_on_an_unlike_mesh_a_bump_fills_what_is_below_it() -> None:
    design = design_of(Wishes(draw=Draw((UP,))), 0.25)
    x, y, z = design.points.T
    bump = np.exp(-((x - 4) ** 2 + (y - 3) ** 2 + (z - 4) ** 2) / 4)
    found = design.shape.criterion(bump, bump)
    beyond = np.where(z < 4, 1.0, np.exp(-((z - 4) ** 2) / 4))
    exact = np.exp(-((x - 4) ** 2 + (y - 3) ** 2) / 4) * beyond
    # Linear between points up to 1.5 apart, of a curvature of 0.5 along each of three axes.
    assert np.abs(found - exact).max() < 1.5**2 / 8 * 0.5 * 3
    assert np.abs(found - exact).mean() < 0.02


def test_kept_sets_fill_what_is_below_them_and_void_sets_empty_what_is_above() -> None:
    kept, void = np.array([441]), np.array([1])  # the last node and the first
    shape = shape_of(Wishes(draw=Draw((UP,))), kept=kept, void=void)
    assert shape.kept.sum() == shape.void.sum() == 7
    parted = shape_of(Wishes(draw=Draw((UP,), (0, 0, 2.5))), kept=kept, void=void)
    assert (parted.kept.sum(), parted.void.sum()) == (4, 1)
    with pytest.raises(ValueError, match="the wishes put .* such as"):
        shape_of(Wishes(draw=Draw((DOWN,))), kept=np.array([1]), void=np.array([379]))


@pytest.mark.parametrize(
    "draw",
    [
        "directions = [0, 1, 0]",
        "directions = [0, 1, 0], parting = [0, 2.5, 0]",
        "directions = [[0, 1, 0], [0, -1, 0]]",
    ],
)
def test_every_design_of_a_loop_can_be_drawn_and_has_its_volume(tmp_path: Path, draw: str) -> None:
    settings = f"steps = 8\nvolume = 0.5\nreduction = 0.1\ndraw = {{ {draw} }}\n"
    done = optimise(write_small(tmp_path, settings), tmp_path / "d", vk_rund=VK_RUND)
    nodes = read(tmp_path / "d").nodes
    for row in done.rows:
        levels = history.load_array(history.levels_file(tmp_path / "d", row.step))
        lines = levels[np.lexsort((nodes[:, 1], nodes[:, 0], nodes[:, 2]))].reshape(-1, 7)
        change = np.diff(lines, axis=1)
        if "parting" in draw:
            assert (change[:, :2] >= 0).all() and (change[:, 3:] <= 0).all()
        elif "[[" in draw:
            both = np.minimum(np.maximum.accumulate(lines, 1), rising(lines, 1))
            assert np.array_equal(both, lines)
        else:
            assert (change <= 0).all()
    # A first move of 0.3 leaves all levels above 0.
    assert [row.volume for row in done.rows[4:]] == pytest.approx(VOLUMES, abs=1e-4)
    assert done.levels.min() < -0.5


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("draw = { directions = [0, 0, 0] }", "directions in [optimise.draw] must not hold"),
        (
            "draw = { directions = [[0, 0, 1], [1, 0, 0]], parting = [0, 0, 0] }",
            "parting in [optimise.draw] goes with one direction",
        ),
        (
            "draw = { directions = [1, 0, 0] }\n"
            "cyclic = { point = [0, 0, 0], axis = [0, 0, 1], count = 3 }",
            "draw doesn't go together with symmetry or cyclic",
        ),
        (
            "draw = { directions = [0, 1, 0], parting = [0, 2, 0] }\n"
            "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]",
            "draw doesn't go together with symmetry or cyclic",
        ),
        (
            "draw = { directions = [0, 1, 1] }\nextruded = { direction = [0, 0, 1] }",
            "draw doesn't go together with extruded at a slant",
        ),
        (
            "draw = { directions = [[0, 0, 1], [0, 0, -1]] }\nvoid = ['far']",
            "draw doesn't go together with void where it has several directions",
        ),
        (
            "overhang = { direction = [0, 1, 0] }\ndraw = { directions = [0, 1, 0] }",
            "overhang doesn't go together with draw",
        ),
        (
            "overhang = { direction = [0, 1, 0] }\n"
            "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]",
            "overhang doesn't go together with symmetry or cyclic",
        ),
        ("overhang = { direction = [0, 1, 0], angle = 90 }", "must be at most 80"),
    ],
)
def test_tools_that_can_not_be_are_told_by_line(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    line = cases.read_text().splitlines().index(settings.splitlines()[0]) + 1
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert message in str(problem) and problem.line == line


def test_opposite_directions_and_a_plane_between_them_go_together(tmp_path: Path) -> None:
    half = "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]\n"
    both = "draw = { directions = [[0, 1, 0], [0, -1, 0]] }\n"
    parted = "draw = { directions = [0, 1, 0], parting = [5, 3, 0] }\n"
    for draw in (both, parted):
        assert read_settings(write_small(tmp_path, half + draw)).wishes.draw is not None
