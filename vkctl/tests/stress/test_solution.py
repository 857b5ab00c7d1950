"""What is gathered for a load case, and what can't be."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import pytest
from results_on_disk import write_results

from vkctl.directory.model import LoadCase, Material
from vkctl.directory.results import read_results
from vkctl.shapes.boxes import box
from vkctl.stress import nodal_stress, read_solution, solution_of

from .states import STEEL, given, model_of


def test_a_directory_gives_the_stress_of_each_load_case(tmp_path) -> None:
    model = model_of(box("hex8", (3, 3, 3)), Material.isotropic(1000.0, 0.0))
    write_results(model, tmp_path, numbers=(1, 2))  # stretched by 1 and 2 percent in all directions
    for number in (1, 2):
        found = nodal_stress(read_solution(tmp_path, number)).merged().stress
        np.testing.assert_allclose(found[:, :3], 10.0 * number, rtol=1e-5)


def test_a_poor_solve_has_no_stresses(tmp_path) -> None:
    model = model_of(box("hex8", (2, 2, 2)), STEEL)
    write_results(model, tmp_path)
    results = read_results(tmp_path, 1)
    for poor in (replace(results, quality=0.8), replace(results, displacements=None)):
        with pytest.raises(ValueError, match="load case 1 was solved too poorly"):
            solution_of(model, poor)


def test_results_of_another_model_are_refused(tmp_path) -> None:
    model = model_of(box("hex8", (2, 2, 2)), STEEL)
    write_results(model, tmp_path)
    other = model_of(box("hex8", (2, 2, 3)), STEEL)
    with pytest.raises(ValueError, match="27 displacements, the model has 36"):
        solution_of(other, read_results(tmp_path, 1))


def test_elements_of_a_material_that_is_not_there_are_refused() -> None:
    model = model_of(box("hex8", (2, 2, 2)), STEEL)
    model.elements.materials[3] = 2
    with pytest.raises(ValueError, match="element 4 is of material 2"):
        given(model, np.zeros_like(model.nodes))
    model.exclude_elements([4])
    given(model, np.zeros_like(model.nodes))


def test_of_a_temperature_given_twice_the_later_counts() -> None:
    model = model_of(box("hex8", (2, 2, 2)), STEEL)
    model.load_cases = [LoadCase().heat([1, 2], 5.0).heat([2], 7.0)]
    temperatures = given(model, np.zeros_like(model.nodes)).temperatures
    assert temperatures is not None
    np.testing.assert_array_equal(temperatures[:4], [5.0, 7.0, 0.0, 0.0])


def test_a_temperature_at_a_node_that_is_not_there_is_refused() -> None:
    model = model_of(box("hex8", (2, 2, 2)), STEEL)
    model.load_cases = [LoadCase().heat([99], 5.0)]
    with pytest.raises(ValueError, match="temperature at a node that isn't there"):
        given(model, np.zeros_like(model.nodes))
