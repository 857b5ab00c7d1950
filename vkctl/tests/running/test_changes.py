"""What counts as a change, and when a load case has settled."""

from __future__ import annotations

import math

import numpy as np
import pytest

from vkctl.running.changes import Change, Solution, change, has_vanished, left, ratio, verdict


def solution(displacements=((3.0, 4.0, 0.0), (0.0, 0.0, 0.0)), energy=2.0, state=None):
    rows = None if displacements is None else np.array(displacements, np.float32)
    factors = None if state is None else np.array(state, np.float32)
    return Solution(energy, 1.0, displacements is None, rows, factors)


def equal(value: float) -> Change:
    return Change(value, 0.0, value)


def shrinking(first: float, factor: float, count: int) -> list[Change]:
    return [equal(first * factor**k) for k in range(count)]


def test_displacements_change_by_the_largest_vector_of_a_node() -> None:
    moved = solution(((3.0, 4.0, 0.0), (0.3, 0.0, 0.4)))
    assert change(solution(), moved).displacements == pytest.approx(0.1)


def test_a_states_change_is_that_of_its_own_factor_and_counted() -> None:
    found = change(solution(state=[1.0, 0.002, 0.5]), solution(state=[1.0, 0.001, 0.4]))
    assert found.state == pytest.approx(0.5)
    assert found.elements == 2 and found.stiffness == pytest.approx(0.1)


def test_a_first_state_is_compared_with_full_material() -> None:
    found = change(solution(), solution(state=[1.0, 0.9]))
    assert found.state == pytest.approx(0.1)


def test_energies_are_compared_by_the_larger_and_none_is_no_change() -> None:
    assert change(solution(energy=4.0), solution(energy=5.0)).energy == pytest.approx(0.2)
    assert change(solution(energy=0.0), solution(energy=0.0)).energy == 0


def test_what_cannot_be_compared_counts_as_an_unbounded_change() -> None:
    other_mesh = solution(((1.0, 0.0, 0.0),))
    undefined = solution(((math.nan, 0.0, 0.0), (0.0, 0.0, 0.0)), energy=math.nan)
    for before, after in (
        (None, solution()),
        (solution(), None),
        (solution(), other_mesh),
        (solution(), undefined),
        (undefined, solution()),
        (solution(None), solution()),
    ):
        assert math.isinf(change(before, after).displacements)
    assert math.isinf(change(solution(), undefined).energy)
    assert math.isinf(change(solution(state=[1.0]), solution(state=[1.0, 1.0])).state)


def test_only_an_exact_start_vector_can_make_a_solution_vanish() -> None:
    """A poor solution leaves none, so that zeros after it are the solution of an unloaded part."""
    moved, zero = solution(), Solution(0.0, 0.0, False, np.zeros((2, 3), np.float32), None)
    assert has_vanished(moved, zero)
    assert not has_vanished(solution(None), zero)
    assert not has_vanished(zero, zero) and not has_vanished(None, zero)


def test_what_is_left_is_the_sum_of_all_rounds_to_come() -> None:
    assert left([0.08, 0.04]) == pytest.approx(0.04)
    assert left([0.08, 0.07]) == pytest.approx(0.49)
    assert math.isinf(left([0.04])) and math.isinf(left([0.04, 0.04]))
    assert math.isinf(left([math.inf, 0.04]))
    assert left([0.04, 0.0]) == 0 and left([1e-7]) == 1e-7


def test_small_changes_that_hardly_shrink_are_not_settled() -> None:
    assert verdict(shrinking(9e-5, 0.875, 2), 1e-4) == "open"
    assert verdict(shrinking(9e-5, 0.5, 2), 1e-4) == "settled"
    assert verdict([equal(9e-5)], 1e-4) == "open"


def test_noise_of_single_precision_is_settled_whatever_came_before() -> None:
    assert verdict([equal(2e-7), equal(3e-7)], 1e-6) == "settled"


def test_an_unknown_change_is_never_settled_and_stalls_in_the_end() -> None:
    assert verdict([], 1e-4) == "open"
    assert verdict([equal(math.inf)] * 7, 0.5) == "open"
    assert verdict([equal(math.inf)] * 8, 0.5) == "stalled"


def test_changes_may_grow_for_a_while_before_they_count_as_stalled() -> None:
    growing = [equal(0.001 * k) for k in range(1, 8)]
    assert verdict(growing, 1e-4) == "open"
    assert verdict([*growing, equal(0.008)], 1e-4) == "stalled"
    assert verdict([*growing, *shrinking(0.008, 0.3, 4)], 1e-4) == "open"


@pytest.mark.parametrize(("factor", "expected"), [(0.99, "open"), (0.999, "stalled")])
def test_next_to_no_shrinking_counts_as_none(factor, expected) -> None:
    assert verdict(shrinking(0.1, factor, 12), 1e-4) == expected


def test_fewer_elements_that_change_count_as_shrinking() -> None:
    opening = [Change(0.5, 0.9, 0.5, elements) for elements in range(20, 8, -1)]
    assert verdict(opening, 1e-4) == "open"
    flipping = [Change(0.5, 0.9, 0.5, 3)] * 8
    assert verdict(flipping, 1e-4) == "stalled"


def test_the_ratio_needs_two_known_changes() -> None:
    assert ratio(shrinking(0.1, 0.5, 3)) == pytest.approx(0.5)
    assert ratio([equal(math.inf), equal(0.1)]) is None
    assert ratio([equal(0.0), equal(0.1)]) is None


def test_factors_that_fall_by_the_same_part_count_as_shrinking() -> None:
    falling = [Change(0.125, 0.125, 0.125, 9, 0.125 * 0.875**k) for k in range(10)]
    assert verdict(falling, 1e-3) == "open"
