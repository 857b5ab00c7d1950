"""The size of a factor against known ones."""

import numpy as np
import pytest

from vkctl.check.dissection import factor_size


def test_a_dense_part_has_the_factor_of_a_dense_matrix():
    points = np.random.default_rng(1).random((40, 3))
    a, b = np.triu_indices(40, 1)
    assert factor_size(points, (a, b)).entries == 120 * 121 / 2


def test_a_chain_has_a_factor_that_grows_with_its_length():
    def entries(count):
        points = np.zeros((count, 3))
        points[:, 0] = np.arange(count)
        return factor_size(points, (np.arange(count - 1), np.arange(1, count)), 1).entries

    assert entries(4000) / entries(1000) == pytest.approx(4.0, rel=0.05)
