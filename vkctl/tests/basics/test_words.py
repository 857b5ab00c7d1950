"""Words of messages."""

from __future__ import annotations

import pytest

from vkctl.basics.words import clock


@pytest.mark.parametrize(
    ("seconds", "text"), [(0.04, "0.0 s"), (61.4, "1:01 min"), (3723.0, "1:02:03 h")]
)
def test_times_are_told_shortly(seconds: float, text: str) -> None:
    assert clock(seconds) == text
