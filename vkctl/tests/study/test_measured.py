"""The values that a study reports, against the results themselves."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest
from small_loops import TWO_CASES, VK_RUND, write_small

from vkctl import stress
from vkctl.directory.model import read
from vkctl.directory.results import read_results
from vkctl.prepare import new
from vkctl.running.run import run
from vkctl.study import Wanted
from vkctl.study.measured import FIELDS, Values, measure

STRENGTH, DENSITY = 3.0, 0.25


@pytest.fixture(scope="module")
def solved(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The plate of 12 x 6 x 1 under two load cases."""
    folder = tmp_path_factory.mktemp("measured")
    cases = write_small(folder, "", TWO_CASES)
    text = f"nu = 0.3\nyield_stress = {STRENGTH}\ndensity = {DENSITY}\n"
    cases.write_text(cases.read_text().replace("nu = 0.3\n", text))
    new(None, cases, folder / "d")
    assert run(folder / "d", vk_rund=VK_RUND).ok
    return folder / "d"


def values(directory: Path, *columns: str, run: Values | None = None, **said) -> Values:
    wanted = Wanted("a", (), **said)
    found, mistakes = measure(directory, run or {}, [wanted], columns or ("a",))
    assert mistakes == []
    return found


def von_mises(directory: Path, number: int) -> np.ndarray:
    found = stress.nodal_stress(stress.read_solution(directory, number)).merged()
    return stress.von_mises(found.stress)


def test_the_largest_stress_is_that_of_the_nodes(solved: Path) -> None:
    each = [von_mises(solved, number).max() for number in (1, 2)]
    assert values(solved, value="von_mises")["a"] == max(each)
    assert values(solved, value="von_mises", load_case="along")["a"] == each[1]
    assert values(solved, "a.down", "a.along", value="von_mises", load_case="each") == {
        "a.down": each[0],
        "a.along": each[1],
    }


def test_takes_are_those_of_the_values_at_the_nodes_of_a_set(solved: Path) -> None:
    nodes = read(solved).nodes
    far = (nodes[:, 0] > 9.99) & (nodes[:, 1] > 3.99)
    there = von_mises(solved, 2)[far]
    said: dict[str, Any] = {"value": "von_mises", "set": "far", "load_case": "along"}
    assert values(solved, take="max", **said)["a"] == there.max()
    assert values(solved, take="min", **said)["a"] == there.min()
    assert values(solved, take="mean", **said)["a"] == pytest.approx(there.mean())
    assert values(solved, take="percentile", percentile=30.0, **said)["a"] == pytest.approx(
        np.percentile(there, 30)
    )


@pytest.mark.parametrize(("over", "combine"), [("largest", max), ("smallest", min), ("sum", sum)])
def test_load_cases_are_combined_as_told(solved: Path, over: str, combine) -> None:
    energies = [read_results(solved, number).strain_energy for number in (1, 2)]
    assert values(solved, value="strain_energy", over=over)["a"] == combine(energies)


def test_every_field_has_a_value(solved: Path) -> None:
    for field in FIELDS:
        found = values(solved, value=field, load_case="down")["a"]
        assert found is not None and np.isfinite(found)
    shift = read_results(solved, 1).displacements
    assert shift is not None
    least = values(solved, value="displacement_y", take="min", load_case="down")["a"]
    assert least == shift[:, 1].min()
    largest = values(solved, value="magnitude", load_case="down")["a"]
    assert largest == pytest.approx(np.linalg.norm(shift, axis=1).max(), rel=1e-6)


def test_safety_is_the_strength_over_the_largest_stress(solved: Path) -> None:
    worst = max(von_mises(solved, number).max() for number in (1, 2))
    found = values(solved, value="safety", over="smallest")["a"]
    assert found == pytest.approx(STRENGTH / worst, rel=1e-6)


def test_totals_and_what_the_whole_run_tells(solved: Path) -> None:
    assert values(solved, value="material_volume")["a"] == pytest.approx(72.0, rel=1e-5)
    assert values(solved, value="mass")["a"] == pytest.approx(72.0 * DENSITY, rel=1e-6)
    assert values(solved, value="nodes")["a"] == 182
    assert values(solved, value="elements")["a"] == 72
    assert values(solved, value="applied_load_y", load_case="down")["a"] == pytest.approx(-1.0)
    assert values(solved, value="memory_gb", run={"memory_gb": 0.5})["a"] == 0.5


@pytest.mark.parametrize(
    ("said", "words"),
    [
        ({"value": "von_mises", "set": "farr"}, "a: there is no set 'farr'; did you mean 'far'?"),
        ({"value": "strain_energy", "load_case": "up"}, "a: there is no load case 'up'"),
    ],
)
def test_what_a_variant_does_not_have_is_told_and_left_empty(
    solved: Path, said: dict[str, str], words: str
) -> None:
    other = Wanted("b", (), "strain_energy", load_case="down")
    wanted = [Wanted("a", (), **said), other]  # type: ignore[arg-type]
    found, mistakes = measure(solved, {}, wanted, ("a", "b"))
    assert mistakes == [words]
    assert found["a"] is None and found["b"] == read_results(solved, 1).strain_energy
