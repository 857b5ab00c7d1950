"""Words of messages."""

from __future__ import annotations

import pytest

from vkctl.basics.words import clock, short


@pytest.mark.parametrize(
    ("seconds", "text"), [(0.04, "0.0 s"), (61.4, "1:01 min"), (3723.0, "1:02:03 h")]
)
def test_times_are_told_shortly(seconds: float, text: str) -> None:
    assert clock(seconds) == text


@pytest.mark.parametrize(
    ("number", "text"),
    [
        (0.0, "0"),
        (-2.5, "-2.5"),
        (0.123456, "0.1235"),
        (12000.4, "12000"),
        (-720051.2, "-720051"),
        (1234567.0, "1.235e+06"),
        (float("inf"), "inf"),
    ],
)
def test_numbers_have_four_digits_or_are_whole(number: float, text: str) -> None:
    assert short(number) == text
