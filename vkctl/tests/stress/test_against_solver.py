"""Stresses of models that the solver has solved, against its own sums and against closed forms."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.directory.log import digest, read_log
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.directory.results import Results
from vkctl.shapes.boxes import box
from vkctl.stress import Solution, element_means, nodal_stress, read_solution, solution_of

from .states import KINDS, STEEL, WOOD, solved, solved_again, with_states

ALL_KINDS = ["mixed", *KINDS]


def cut_bar(kind: str) -> Model:
    """A bar of two materials with a hole, hot on one side, bent by its own end."""
    part = box(kind, (6, 3, 3), (6.0, 3.0, 3.0), distortion=0.05)  # type: ignore[arg-type]
    part.elements.materials[:] = np.where(part.centroids()[:, 1] < 1.5, 1, 2)
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "z", 0.03)
    case.load(*part.traction("x+", (0.5, -1.0, 0.0)))
    case.heat(np.arange(1, len(part.nodes) + 1), part.nodes[:, 1] * 2.0)
    model = Model(part.nodes, part.elements, [STEEL, WOOD], [case])
    model.set_level(np.hypot(part.nodes[:, 0] - 3.1, part.nodes[:, 2] - 1.4) - 0.9)
    assert model.element_flags is not None
    model.element_flags[5] |= 1 << 1  # ignores the level
    return model


def solver_values(model: Model, solution: Solution) -> Array:
    """What the solver writes per node, of the means over the material of each element."""
    means, elements = element_means(solution), model.elements
    total, signs, counts = np.zeros((3, len(model.nodes)))
    bits = np.array([m.flags for m in model.materials])[elements.materials - 1]
    for code in np.unique(elements.type_codes):
        numbers, rows = elements.of_type(int(code))
        place = numbers - 1
        taken = (means.share[place] > 0.5) & (bits[place] & 0x400 == 0)
        for column in rows[taken].T - 1:
            np.add.at(total, column, means.von_mises[place[taken]])
            np.add.at(signs, column, means.mean_normal[place[taken]])
            np.add.at(counts, column, 1)
    found = np.abs(total / np.maximum(counts, 1))
    signed: Array = np.where(signs < 0, -found, found)
    return signed


def assert_same_as_solver(model: Model, results: Results, solution: Solution) -> None:
    values = solver_values(model, solution)
    np.testing.assert_allclose(
        np.abs(values), np.abs(results.stress), atol=1e-5 * np.abs(results.stress).max()
    )
    # The sign of a mean stress near zero is chance.
    clear = np.abs(results.stress) > 0.1 * np.abs(results.stress).max()
    assert np.mean(np.sign(values[clear]) == np.sign(results.stress[clear])) > 0.99


@pytest.mark.parametrize("kind", ALL_KINDS)
def test_energy_and_element_means_are_those_that_the_solver_tells(
    tmp_path: Path, kind: str
) -> None:
    model = cut_bar(kind)
    results = solved(model, tmp_path)
    solution = read_solution(tmp_path, 1)
    logged = digest(read_log(tmp_path)).load_cases[0].data["SEner"]
    assert np.nansum(element_means(solution).energy) == pytest.approx(logged, rel=1e-5)
    assert_same_as_solver(model, results, solution)


def test_states_of_elements_enter_as_in_the_solver(tmp_path: Path) -> None:
    part = box("hex8", (6, 2, 3), (6.0, 2.0, 3.0))
    part.elements.materials[:] = np.where(part.centroids()[:, 2] < 1.0, 1, 2)
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0.0, 0.0, 2.0)))
    materials = [Material.compression_only(500.0, 0.2), Material.yielding(1000.0, 0.3, 4.0)]
    model = Model(part.nodes, part.elements, materials, [case])
    first = solved(model, tmp_path, runs=1)
    assert first.element_state is not None and first.element_state.min() < 0.9
    second = solved_again(tmp_path)
    # A run computes with the states that the one before it left.
    solution = solution_of(model, with_states(second, first.element_state))
    assert_same_as_solver(model, second, solution)
    energies = element_means(solution).energy[model.elements.materials == 2]
    assert energies.sum() == pytest.approx(second.strain_energy, rel=1e-5)


@pytest.mark.parametrize(("kind", "bound"), [("tet4", 0.2), ("hex8", 0.04), ("tet10", 0.01)])
def test_a_bent_beam_has_the_surface_stress_of_the_beam_formula(
    tmp_path: Path, kind: str, bound: float
) -> None:
    length, height, width, force = 10.0, 2.0, 1.0, 1.0
    cells = (10, 3, 3) if kind == "tet10" else (20, 2, 4)
    part = box(kind, cells, (length, width, height))  # type: ignore[arg-type]
    case = LoadCase().prescribe(part.face("x-"))
    case.load(*part.traction("x+", (0.0, 0.0, -force / (height * width))))
    model = Model(part.nodes, part.elements, [Material.isotropic(1e5, 0.0)], [case])
    results = solved(model, tmp_path)
    top = part.select(x=length / 2, z=height)
    wanted = force * (length / 2) * (height / 2) / (width * height**3 / 12)
    recovered = nodal_stress(read_solution(tmp_path, 1)).merged().stress[top - 1]
    np.testing.assert_allclose(recovered[:, 0], wanted, rtol=bound)
    assert abs(results.stress[top - 1]).max() < 0.9 * wanted  # which is why it isn't taken


def test_a_thick_cylinder_has_the_stress_of_the_closed_form_at_its_bore(tmp_path: Path) -> None:
    inner, outer, pressure = 1.0, 2.0, 10.0

    def bent(points: Array) -> Array:
        radius, angle = inner + (outer - inner) * points[:, 0], points[:, 1] * np.pi / 2
        return np.column_stack((radius * np.cos(angle), radius * np.sin(angle), points[:, 2]))

    part = box("tet10", (4, 6, 1), (1.0, 1.0, 0.3), mapping=bent, curved=True)
    case = LoadCase().prescribe(part.face("z-"), "z").prescribe(part.face("z+"), "z")
    case.prescribe(part.face("y-"), "y").prescribe(part.face("y+"), "x")
    case.load(*part.traction("x-", pressure))
    model = Model(part.nodes, part.elements, [Material.isotropic(1e5, 0.3)], [case])
    results = solved(model, tmp_path)
    found = nodal_stress(read_solution(tmp_path, 1)).merged().stress
    bore = part.face("x-") - 1
    cos, sin = (part.nodes[bore, :2] / inner).T
    x, y, xy = found[bore, 0], found[bore, 1], found[bore, 3]
    hoop = x * sin**2 + y * cos**2 - 2 * xy * sin * cos
    wanted = pressure * (inner**2 + outer**2) / (outer**2 - inner**2)
    np.testing.assert_allclose(hoop, wanted, rtol=0.04)
    assert abs(hoop.mean() / wanted - 1) < 0.01
    assert len(results.stress) == len(found)
