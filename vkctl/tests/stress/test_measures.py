"""Principal stresses and equivalents of stresses that are known."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.stress import (
    mean_normal,
    principal,
    principal_directions,
    signed_von_mises,
    tresca,
    von_mises,
)

RANDOM = np.random.default_rng(3).normal(size=(200, 6))


@pytest.mark.parametrize(
    ("stress", "values", "equivalent", "shear"),
    [
        ((100, 0, 0, 0, 0, 0), (100, 0, 0), 100.0, 100.0),
        ((-100, 0, 0, 0, 0, 0), (0, 0, -100), 100.0, 100.0),
        ((0, 0, 0, 40, 0, 0), (40, 0, -40), 40 * np.sqrt(3), 80.0),
        ((0, 0, 0, 0, 40, 0), (40, 0, -40), 40 * np.sqrt(3), 80.0),
        ((0, 0, 0, 0, 0, 40), (40, 0, -40), 40 * np.sqrt(3), 80.0),
        ((70, 70, 70, 0, 0, 0), (70, 70, 70), 0.0, 0.0),
        ((30, 10, -20, 0, 0, 0), (30, 10, -20), np.sqrt(1900), 50.0),
    ],
)
def test_simple_stresses_have_their_known_values(stress, values, equivalent, shear) -> None:
    given = np.array([stress], float)
    np.testing.assert_allclose(principal(given), [values], atol=1e-12)
    assert von_mises(given)[0] == pytest.approx(equivalent)
    assert tresca(principal(given))[0] == pytest.approx(shear)


def test_principal_directions_rebuild_the_stress() -> None:
    values, rows = principal_directions(RANDOM)
    rebuilt = np.einsum("nk,nki,nkj->nij", values, rows, rows)
    for place, (i, j) in enumerate(((0, 0), (1, 1), (2, 2), (0, 1), (1, 2), (0, 2))):
        np.testing.assert_allclose(rebuilt[:, i, j], RANDOM[:, place], atol=1e-12)
    np.testing.assert_allclose(np.linalg.det(rows), 1.0)
    np.testing.assert_array_equal(values, np.sort(values, axis=1)[:, ::-1])
    np.testing.assert_allclose(values, principal(RANDOM))


def test_the_sign_of_the_equivalent_stress_is_that_of_the_mean_stress() -> None:
    signed = signed_von_mises(RANDOM)
    np.testing.assert_array_equal(np.abs(signed), von_mises(RANDOM))
    np.testing.assert_array_equal(signed < 0, mean_normal(RANDOM) < 0)
    assert signed_von_mises(np.array([0, 0, 0, 5.0, 0, 0])) > 0


def test_what_is_not_finite_has_no_principal_stress() -> None:
    stresses = RANDOM.copy()
    stresses[3, 4], stresses[7, 0] = np.nan, np.inf
    values, directions = principal_directions(stresses)
    missing = np.isin(np.arange(len(stresses)), (3, 7))
    np.testing.assert_array_equal(np.isnan(values).all(axis=1), missing)
    np.testing.assert_array_equal(np.isnan(directions).all(axis=(1, 2)), missing)
    np.testing.assert_array_equal(np.isnan(principal(stresses)).all(axis=1), missing)
