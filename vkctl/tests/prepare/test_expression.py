"""Mistakes in a case file are told with their line and a suggestion."""

from __future__ import annotations

import tracemalloc

import numpy as np
import pytest

from vkctl.prepare import Expression, ExpressionError

POINTS = np.array(((1.0, 2.0, 3.0), (-1.0, 0.5, 0.0)))


@pytest.mark.parametrize(
    ("text", "values"),
    [
        ("2", (2, 2)),
        ("x + 2*y - z/2", (3.5, 0)),
        ("-x**2", (-1, -1)),
        ("sqrt(abs(x)) + max(y, 1) % 2", (1, 2)),
        ("x > 0 and not y > 5", (1, 0)),
        ("0 < y <= 2 or z == 3", (1, 1)),
        ("10 if x < 0 else z", (3, 10)),
        ("sin(pi * y)", (0, 1)),
        ("atan2(y, x) - hypot(3, 4)", (np.arctan2(2, 1) - 5, np.arctan2(0.5, -1) - 5)),
    ],
)
def test_formulas_are_arithmetic_over_points(text: str, values: tuple[float, float]) -> None:
    np.testing.assert_allclose(Expression(text)(POINTS), values, atol=1e-12)


@pytest.mark.parametrize(
    "text",
    [
        "__import__('os').system('true')",
        "x.__class__",
        "(lambda: 1)()",
        "[x for x in y]",
        "x[0]",
        "sin(x, y)",
        "sin(x=1)",
        "open('f')",
        "'text'",
        "True",
        "x = 1",
        "x; y",
        "",
        "x @ y",
        "(" * 300 + "x" + ")" * 300,
        "-" * 100 + "x",
    ],
)
def test_anything_but_arithmetic_is_refused(text: str) -> None:
    with pytest.raises(ExpressionError):
        Expression(text)


def test_a_formula_without_a_finite_value_names_the_point() -> None:
    with pytest.raises(
        ExpressionError, match=r"no finite value at 1 points, such as \(-1, 0.5, 0\)"
    ):
        Expression("1 / z")(POINTS)
    with pytest.raises(ExpressionError, match="no finite value at 2"):
        Expression("9**9**9**9")(POINTS)


BOMBS = {
    "a tower of powers": "9**9**9**9",
    "a number beyond all": "1" + "0" * 400,
    "hexadecimal": "0x" + "f" * 1500,
    "infinity": "1e999",
    "signs": "-" * 1900 + "x",
    "brackets": "(" * 300 + "x" + ")" * 300,
    "a sum": "x" + "+x" * 900,
    "what is no arithmetic": "lambda: " + "-" * 1500 + "x",
    "a text": "'a' * 9**9",
    "no characters": "\ud800",
    "a byte of zero": "x\0",
    "length": "x + " * 1000 + "x",
}


@pytest.mark.parametrize("text", BOMBS.values(), ids=BOMBS)
def test_formulas_that_are_too_long_deep_or_large_are_refused(text: str) -> None:
    points = np.ones((10, 3))
    with pytest.raises(ExpressionError):
        Expression(text)(points)


def test_many_comparisons_need_no_more_memory_than_a_few(monkeypatch: pytest.MonkeyPatch) -> None:
    points = np.random.default_rng(1).random((1 << 18, 3))
    tracemalloc.start()
    values = Expression("0 <= " + "x <= " * 390 + "x")(points)
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert values.all() and peak < 5 * points.nbytes


def test_formulas_are_taken_piece_by_piece_with_the_same_values() -> None:
    points = np.random.default_rng(1).random((150_000, 3))
    expected = np.where(points[:, 0] > 0.5, np.sin(points[:, 1]), points[:, 2] ** 2)
    np.testing.assert_array_equal(Expression("sin(y) if x > 0.5 else z**2")(points), expected)
