"""Triangles that cut through others, beside those that touch or only lie near."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.shapes.crossing import crossing

FLAT = ((0.0, 0.0, 0.0), (4.0, 0.0, 0.0), (0.0, 4.0, 0.0))


def cuts(points, triangles, only=None) -> list[bool]:
    triangles = np.array(triangles)
    wanted = np.ones(len(triangles), np.bool_) if only is None else np.array(only)
    return list(crossing(np.array(points, float), triangles, wanted))


def beside(*corners: tuple[float, float, float]) -> list[bool]:
    """The flat triangle and another, which share no corner."""
    return cuts((*FLAT, *corners), ((0, 1, 2), (3, 4, 5)))


@pytest.mark.parametrize(
    ("corners", "found"),
    [
        (((1, 1, -1), (1, 1, 1), (9, 9, 0)), True),  # one side goes through
        (((1, 1, -1), (1, 1.5, -1), (1, 1, 1)), True),  # two sides do
        (((2.5, 1, -1), (2.5, 1, 1), (9, 1, 0)), True),  # only the flat one's sides go through
        (((1, 1, 0.1), (2, 1, 0.1), (1, 2, 0.1)), False),  # lies above
        (((1, 1, 0), (1, 1, 1), (2, 1, 1)), False),  # stands on it
        (((3, 3, -1), (3, 3, 1), (9, 9, 0)), False),  # beyond the long side
        (((1, 1, 0), (2, 1, 0), (1, 2, 0)), False),  # within its plane
    ],
)
def test_a_triangle_cuts_through_another_or_not(corners, found) -> None:
    assert beside(*corners) == [found, found]
    turned = np.array(corners)[[2, 0, 1]]
    assert beside(*map(tuple, turned)) == [found, found]


def test_triangles_with_a_common_corner_may_cut_through_each_other() -> None:
    points = (*FLAT, (1.0, 1.0, -1.0), (2.0, 2.0, 1.0), (-1.0, -1.0, 1.0))
    assert cuts(points, ((0, 1, 2), (0, 3, 4))) == [True, True]
    assert cuts(points, ((0, 1, 2), (0, 3, 5))) == [False, False]


def test_triangles_with_a_common_side_are_neighbours() -> None:
    points = (*FLAT, (1.0, -1.0, 0.5))
    assert cuts(points, ((0, 1, 2), (1, 0, 3))) == [False, False]


def test_pairs_without_a_triangle_of_those_asked_for_are_left_out() -> None:
    points = (*FLAT, (1, 1, -1), (1, 1, 1), (9, 9, 0))
    assert cuts(points, ((0, 1, 2), (3, 4, 5)), (False, False)) == [False, False]
    assert cuts(points, ((0, 1, 2), (3, 4, 5)), (False, True)) == [True, True]


def test_many_triangles_are_found_as_one_by_one() -> None:
    rng = np.random.default_rng(2)
    middles = rng.uniform(0, 4.5, (120, 1, 3))
    points = (middles + rng.uniform(-1, 1, (120, 3, 3))).reshape(-1, 3)
    triangles = np.arange(360).reshape(-1, 3)
    found = crossing(points, triangles, np.ones(120, np.bool_))
    each = np.zeros(120, np.bool_)
    for first in range(120):
        for second in range(first):
            pair = np.array((triangles[first], triangles[second]))
            if crossing(points, pair, np.ones(2, np.bool_)).any():
                each[[first, second]] = True
    np.testing.assert_array_equal(found, each)
    assert 20 < found.sum() < 110
