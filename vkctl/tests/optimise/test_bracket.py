"""The root of a falling function, in few trials."""

from __future__ import annotations

import math
from collections.abc import Callable

import pytest

from vkctl.optimise.bracket import Bracket


def search(function: Callable[[float], float], first: float, most: int = 80) -> tuple[float, int]:
    """Root between 0 and 1, and how many trials it took to a value of 1e-9."""
    bracket = Bracket(0.0, 1.0, first)
    tried: list[float] = []
    while len(tried) < most:
        tried.append(bracket.trial)
        value = function(bracket.trial)
        if abs(value) <= 1e-9 or not bracket.narrow(value):
            break
    return bracket.trial, len(tried)


@pytest.mark.parametrize("root", [1e-12, 1e-4, 0.3, 0.999])
@pytest.mark.parametrize("off", [1.0, 1.3, 40.0, 1e-3])
def test_the_root_is_found_in_few_trials_from_near_and_far(root: float, off: float) -> None:
    found, trials = search(lambda x: 0.5 - x / (x + root), min(root * off, 1.0))
    assert found == pytest.approx(root, rel=1e-8)
    assert trials <= 16


@pytest.mark.parametrize(
    "function",
    [
        lambda x: 1e6 * (0.2 - x) ** 3,  # flat at its root
        lambda x: 1.0 if x < 0.2 else -1e-3 - x,  # a step
        lambda x: math.exp(40 - 200 * x) - 1,  # steep
    ],
)
def test_awkward_functions_are_bracketed_down_to_the_last_digits(
    function: Callable[[float], float],
) -> None:
    assert search(function, 0.7)[0] == pytest.approx(0.2, rel=1e-3)


def test_without_a_root_the_search_ends_at_the_end_that_is_nearest_to_one() -> None:
    assert search(lambda x: 1.0 - 0.5 * x, 0.01)[0] == 1.0
    assert search(lambda x: -0.1 - x, 0.01)[0] < 1e-17


def test_a_steepness_that_is_known_leads_to_the_root_in_few_trials() -> None:
    def falling(x: float) -> float:
        return 0.5 - x / (x + 0.3)

    first = Bracket(0.0, 1.0, 0.31, steepness=4.0)
    tried: list[float] = []
    while abs(value := falling(first.trial)) > 1e-9 and len(tried) < 10:
        tried.append(first.trial)
        first.narrow(value)
    assert len(tried) <= 4
    assert first.learnt == pytest.approx(4.0, rel=0.05)  # 1 / (d value / d log x) at the root


@pytest.mark.parametrize("steepness", [1e-9, 1e9, math.inf, 0.0])
def test_a_steepness_that_is_wrong_costs_trials_but_not_the_root(steepness: float) -> None:
    bracket, trials = Bracket(0.0, 1.0, 0.9, steepness=steepness), 0
    while abs(value := 0.5 - bracket.trial / (bracket.trial + 1e-3)) > 1e-9 and trials < 40:
        trials += 1
        bracket.narrow(value)
    assert bracket.trial == pytest.approx(1e-3, rel=1e-7)
    assert trials <= 20
