"""Arrays as text: what a browser unpacks is what went in."""

from __future__ import annotations

import base64
import zlib
from typing import Any

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.report.packed import packed_numbers, packed_values


def unpacked(text: str, count: int, width: int) -> Array:
    """Whole numbers from a text, as the page's script does it."""
    planes = zlib.decompress(base64.b64decode(text))
    assert len(planes) == count * width
    numbers, last = [], 0
    for i in range(count):
        step = sum(planes[b * count + i] << (8 * b) for b in range(width))
        last = (last + step) % (1 << (8 * width))
        numbers.append(last)
    return np.array(numbers, np.int64)


def values_of(said: dict[str, Any]) -> Array:
    columns = []
    for column in said["columns"]:
        codes = unpacked(column["text"], said["count"], 2)
        values = column["low"] + column["step"] * (codes - 1.0)
        columns.append(np.where(codes == 0, np.nan, values))
    return np.stack(columns, axis=1)


@pytest.mark.parametrize("numbers", [[], [7], [0, 4_000_000_000, 3, 2**32 - 1, 0]])
def test_whole_numbers_come_back_exactly(numbers: list[int]) -> None:
    said = packed_numbers(np.array(numbers, np.int64))
    assert unpacked(said["text"], said["count"], 4).tolist() == numbers


def test_values_come_back_within_half_a_step_and_extremes_exactly() -> None:
    values = np.random.default_rng(1).normal(size=(500, 3)) * (1e-9, 1.0, 1e12)
    found = values_of(packed_values(values))
    steps = np.ptp(values, axis=0) / 65534
    assert (np.abs(found - values) <= 0.501 * steps).all()
    assert found.min(axis=0) == pytest.approx(values.min(axis=0), rel=1e-12)
    assert found.max(axis=0) == pytest.approx(values.max(axis=0), rel=1e-12)


def test_what_is_no_number_stays_none() -> None:
    values = np.array([1.0, np.nan, 3.0, np.inf])
    found = values_of(packed_values(values))[:, 0]
    assert np.isnan(found).tolist() == [False, True, False, True]
    assert found[[0, 2]].tolist() == [1.0, 3.0]


def test_equal_values_and_no_values_at_all_are_kept() -> None:
    assert values_of(packed_values(np.full(4, 2.5)))[:, 0].tolist() == [2.5] * 4
    assert np.isnan(values_of(packed_values(np.full(3, np.nan)))).all()
