"""The share of material at a point."""

from __future__ import annotations

import numpy as np

from vkctl.stress.points import sharp_presences


def test_sharp_presences_are_those_of_the_arctangent_for_any_level() -> None:
    sizes = np.concatenate((np.logspace(-320, 300, 5000), np.linspace(0.99e-2, 1.01e-2, 500)))
    levels = np.concatenate((-sizes, [-0.0, 0.0], sizes, [-np.inf, np.inf]))
    floor = float(np.float32(0.001))
    with np.errstate(over="ignore"):
        expected = floor + (1.0 - floor) * (np.arctan(1e3 * 100.0 * levels) / np.pi + 0.5)
    found = sharp_presences(levels, 100.0)
    np.testing.assert_allclose(found, expected, rtol=0, atol=3e-16)
    assert np.isnan(sharp_presences(np.array([np.nan]), 100.0)).all()
    assert sharp_presences(levels.reshape(2, -1), 100.0).shape == (2, len(levels) // 2)
