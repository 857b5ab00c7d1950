"""Mistakes in a case file are told with their line and a suggestion."""

from __future__ import annotations

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
