"""The volume of a loop for the least mass, by the ratios of its steps."""

from __future__ import annotations

import math

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.optimise.limits.mass import next_volume

MOST = 0.03


def volumes(ratios: list[float] | list[list[float]], begins_full: bool = False) -> list[float]:
    """Volumes that steps with these ratios go to, from 0.5."""
    found = [0.5]
    for k in range(1, len(ratios) + 1):
        found.append(next_volume(as_table(ratios[:k]), found[-1], MOST, begins_full))
    return found


def as_table(ratios: list[float] | list[list[float]]) -> Array:
    """Steps by terms, of which there may be one."""
    return np.array(ratios, np.float64).reshape(len(ratios), -1)


def test_far_below_its_limits_the_volume_falls_by_the_longest_steps() -> None:
    assert volumes([0.5] * 3) == pytest.approx([0.5, 0.47, 0.44, 0.41])


def test_the_step_of_one_part_that_breaks_a_limit_is_passed_over() -> None:
    assert volumes([0.5, 0.5, 2.0, 0.5]) == pytest.approx([0.5, 0.47, 0.44, 0.41, 0.38])


def test_two_steps_of_three_turn_the_volume_by_half_a_step() -> None:
    found = volumes([0.5, 0.5, 2.0, 2.0])
    assert found[-1] - found[-2] == pytest.approx(MOST / 2)


def test_steps_shorten_with_each_turn_and_lengthen_between() -> None:
    ways = [0.5, 0.5, 2.0, 2.0, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5]
    found = volumes(ways)
    moves = [(b - a) / MOST for a, b in zip(found[3:-1], found[4:], strict=True)]
    expected = [0.5, 0.6, -0.3, -0.36, -0.432, -0.5184, -0.62208, -0.746496]
    assert moves == pytest.approx(expected)


def test_near_a_limit_steps_are_as_short_as_the_ratio_says() -> None:
    assert volumes([0.99])[-1] == pytest.approx(0.5 * 0.99**0.3)
    assert volumes([1.0]) == [0.5, 0.5]


def test_a_volume_is_at_most_all() -> None:
    assert next_volume(as_table([3.0, 3.0]), 0.99, MOST, begins_full=False) == 1.0


def test_a_ratio_without_bounds_raises_the_volume_by_a_step() -> None:
    assert volumes([math.inf, math.inf])[-1] == pytest.approx(0.56)


def test_all_material_that_breaks_a_limit_is_taken_away_until_that_makes_it_worse() -> None:
    assert volumes([1.1, 1.1, 1.11], begins_full=True) == pytest.approx([0.5, 0.47, 0.44, 0.41])
    found = volumes([1.1, 1.1, 1.2, 1.2, 1.2], begins_full=True)
    assert found[-1] > found[-2] > found[-3]
    assert volumes([1.1], begins_full=False)[-1] > 0.5


def test_all_material_near_a_limit_is_taken_away_by_the_longest_steps_until_it_matters() -> None:
    found = volumes([0.98, 0.98, 0.99, 1.01, 1.01], begins_full=True)
    assert found[:4] == pytest.approx([0.5, 0.47, 0.44, 0.41]) and found[-1] > found[-2]


def test_material_that_never_makes_it_worse_is_not_taken_away_to_nothing() -> None:
    assert all(volume > 0 for volume in volumes([1.1] * 60, begins_full=True))


def test_the_fall_from_all_material_ends_where_another_limit_would_be_broken() -> None:
    found = volumes([[2.0, 0.8], [2.0, 0.9], [2.0, 1.1], [2.0, 1.1]], begins_full=True)
    assert found[:4] == pytest.approx([0.5, 0.47, 0.44, 0.41]) and found[4] > found[3]


def test_a_single_worse_step_does_not_end_the_fall() -> None:
    found = volumes([1.1, 1.16, 1.1, 1.1, 1.3, 1.1], begins_full=True)
    assert found == pytest.approx([0.5, 0.47, 0.44, 0.41, 0.38, 0.35, 0.32])


def test_ratios_that_scatter_around_a_limit_in_the_fall_are_no_turns() -> None:
    found = volumes([0.995, 1.005, 0.995, 1.005, 0.995, 1.005, 1.3, 1.3], begins_full=True)
    assert found[-1] - found[-2] == pytest.approx(MOST / 2)


def test_all_material_without_bounds_is_not_taken_away() -> None:
    assert volumes([math.inf], begins_full=True)[-1] > 0.5
