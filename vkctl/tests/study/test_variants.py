"""The variants of a study: lists crossed, samples, tables."""

from __future__ import annotations

import itertools
import math
from pathlib import Path

import numpy as np
import pytest

from vkctl.study import Sample, read_study, variants_of
from vkctl.study.entries import Method
from vkctl.study.variants import sample_points

from .small_studies import RESULTS, write_study

FORCE = '[parameters.force]\nkey = "loads.down.value.y"\n'
MODULUS = '[parameters.modulus]\nkey = "materials.unit.E"\n'
RATIO = '[parameters.ratio]\nkey = "materials.unit.nu"\n'


def variants(folder: Path, text: str, head: str = "") -> list[dict[str, object]]:
    return variants_of(read_study(write_study(folder, text + RESULTS, head)))  # type: ignore[return-value]


def test_lists_and_ranges_are_crossed_the_last_fastest(tmp_path: Path) -> None:
    found = variants(tmp_path, FORCE + "values = [5, 3]\n" + MODULUS + "range = [1, 3, 3]\n")
    assert found == [
        {"force": force, "modulus": modulus}
        for force, modulus in itertools.product([5, 3], [1.0, 2.0, 3.0])
    ]


def test_a_range_meets_both_its_ends_and_may_go_by_factors(tmp_path: Path) -> None:
    found = variants(tmp_path, MODULUS + 'range = [0.1, 1000, 5]\nspacing = "log"\n')
    assert [v["modulus"] for v in found] == pytest.approx([0.1, 1, 10, 100, 1000], rel=1e-14)
    assert (found[0]["modulus"], found[-1]["modulus"]) == (0.1, 1000)


def test_rows_of_a_table_stay_together_and_are_crossed_with_lists(tmp_path: Path) -> None:
    (tmp_path / "table.csv").write_text("\ufeffnu;F\n0.2;-1\n0.3;-2.5\n\n")
    text = FORCE + 'column = "F"\n' + MODULUS + "values = [1, 2]\n" + RATIO + 'column = "nu"\n'
    assert variants(tmp_path, text, 'table = "table.csv"') == [
        {"force": -1, "modulus": 1, "ratio": 0.2},
        {"force": -1, "modulus": 2, "ratio": 0.2},
        {"force": -2.5, "modulus": 1, "ratio": 0.3},
        {"force": -2.5, "modulus": 2, "ratio": 0.3},
    ]


def test_texts_take_texts(tmp_path: Path) -> None:
    found = variants(
        tmp_path, '[parameters.where]\nkey = "loads.down.set"\nvalues = ["tip", "far"]\n'
    )
    assert [v["where"] for v in found] == ["tip", "far"]


METHODS: tuple[Method, ...] = ("latin hypercube", "sobol")


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("dimensions", [1, 2, 5, 9])
def test_a_sample_is_told_by_its_seed(method: Method, dimensions: int) -> None:
    random = np.random.default_rng(dimensions)
    for _ in range(20):
        count, seed = int(random.integers(1, 70)), int(random.integers(0, 2**31))
        points = sample_points(Sample(method, count, seed), dimensions)
        assert np.array_equal(points, sample_points(Sample(method, count, seed), dimensions))
        assert not np.array_equal(
            points, sample_points(Sample(method, count, seed + 1), dimensions)
        )
        assert points.shape == (count, dimensions)
        assert (points >= 0).all() and (points < 1).all()


def test_a_latin_hypercube_has_one_point_in_each_slice_of_each_axis() -> None:
    for seed, count in itertools.product(range(10), (1, 2, 7, 40)):
        points = sample_points(Sample("latin hypercube", count, seed), 3)
        slices = np.sort(np.floor(points * count), axis=0)
        assert np.array_equal(slices, np.repeat(np.arange(count)[:, None], 3, axis=1))


def test_a_sobol_sample_of_a_power_of_two_fills_every_half_of_each_axis_alike() -> None:
    for seed in range(10):
        points = sample_points(Sample("sobol", 64, seed), 4)
        assert ((points < 0.5).sum(axis=0) == 32).all()


def test_sampled_values_lie_between_their_ends(tmp_path: Path) -> None:
    text = (
        FORCE
        + 'between = [1e-3, 1e3]\nspacing = "log"\n'
        + MODULUS
        + "between = [1, 9]\nwhole = true\n"
    )
    found = variants(tmp_path, text + "[sample]\ncount = 40\nseed = 3\n")
    exponents = [math.log10(float(str(v["force"]))) for v in found]
    assert len(found) == 40 and all(-3 <= e <= 3 for e in exponents)
    # One in each of forty slices between the ends, in powers of ten.
    assert sorted(math.floor((e + 3) / 6 * 40) for e in exponents) == list(range(40))
    assert all(isinstance(v["modulus"], int) and 1 <= v["modulus"] <= 9 for v in found)
