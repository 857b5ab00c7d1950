"""The size of a factor against known ones."""

import os
import subprocess
import sys

import numpy as np
import pytest

from vkctl.check import dissection
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


def _crowded_parts():
    """Points of which half or more share a plane, a line or a place, each with its edges."""
    random = np.random.default_rng(7)
    free = 10.0 * random.random((3000, 3))
    thick = np.arange(3000)[:, None] % 5
    parts = {
        "a flange below a pipe": free * np.where(thick < 3, (1, 1, 0), (1, 1, 9)),
        "a rib on its base": free * np.where(thick < 4, (0, 0.1, 0.1), (9, 0.1, 0.1)),
        "a plate": free * (1, 1, 0),
        "two plates": free * (0, 1, 1) + (np.arange(3000) % 2)[:, None] * (50.0, 0, 0),
        "a line": free * (1, 0, 0),
        "a point": free * 0,
        "every node twice": np.repeat(free[:1500], 2, axis=0),
        "most of them on a plane": free * np.where(np.arange(3000)[:, None] % 10, (0, 1, 1), 1),
    }
    for name, points in parts.items():
        ends = np.sort(random.integers(0, len(points), (5 * len(points), 2)), axis=1)
        ends = np.unique(ends[ends[:, 0] < ends[:, 1]], axis=0)
        yield name, points.astype(np.float64), (ends[:, 0], ends[:, 1])


def _dissect_crowded_parts():
    for name, points, edges in _crowded_parts():
        size = factor_size(points, edges, 1)
        dense = len(points) * (len(points) + 1) / 2
        assert len(points) < size.entries <= dense, name


def test_a_part_with_most_of_its_nodes_on_a_plane_is_dissected_to_its_end():
    # In a process of its own: one that doesn't end can be ended.
    program = f"import {__name__} as here; here._dissect_crowded_parts()"
    path = os.pathsep.join(sys.path)
    subprocess.run(
        [sys.executable, "-c", program],
        check=True,
        timeout=300,
        env={**os.environ, "PYTHONPATH": path},
    )


def test_halves_of_a_part_are_at_most_three_quarters_of_it():
    for name, points, edges in _crowded_parts():
        parts = dissection._Parts(points, edges)
        while (count := parts.renumber()) > 0:
            sizes = np.bincount(parts.part[parts.part >= 0], minlength=count)
            split = sizes > dissection._LEAF
            upper = parts.upper_halves(sizes)
            of_upper = np.bincount(parts.part[upper], minlength=count)
            largest = np.maximum(of_upper, sizes - of_upper)[split]
            assert (4 * largest <= 3 * sizes[split]).all(), name
            parts.divide(upper, parts.separators(upper, split), split)
