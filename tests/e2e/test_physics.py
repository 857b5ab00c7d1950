"""Answers that are known without a solver: linear fields, free expansion, beams, balances."""

from __future__ import annotations

from pathlib import Path
from typing import get_args

import numpy as np
import pytest
from models import MATERIALS, SIZE, part, pulled, written
from runs import clear_done, comval, counted, run, sstate

from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import Box, Kind, Side, box

CONFORMING: tuple[Kind, ...] = ("tet4", "hex8", "tet10")
E, NU = 1000.0, 0.25
GRADIENT = np.array(((1.0, 0.4, -0.3), (0.2, -0.5, 0.6), (-0.7, 0.1, 0.8))) * 1e-2

# The presence at full level with the default slope: a whole part is a little softer than its
# material, and its energy is counted with the presence of the sharp slope.
SOFT = (np.arctan(500.0) / np.pi + 0.5) * 0.999 + 0.001
SHARP = (np.arctan(500.0 * 1000.0) / np.pi + 0.5) * 0.999 + 0.001


def warped(kind: Kind, materials: list[Material]) -> tuple[Model, Box]:
    """A box with a distorted inside."""
    cells = (2, 2, 2) if kind == "tet10" else (4, 3, 3)
    mesh = box(kind, cells, SIZE, distortion=0.15)
    return Model(mesh.nodes, mesh.elements, materials), mesh


def settle(directory: Path) -> None:
    """Run twice: the second run starts from the first one's state, and its tolerance is relative
    to the little that is left."""
    run(directory)
    clear_done(directory)
    run(directory)


def surface(mesh: Box) -> np.ndarray:
    return np.unique(np.concatenate([mesh.face(side) for side in get_args(Side)]))


def resting(mesh: Box) -> LoadCase:
    """Held against rigid motion only."""
    case = LoadCase().prescribe(mesh.corner("x-", "y-", "z-"))
    case.prescribe(mesh.corner("x+", "y-", "z-"), "yz")
    return case.prescribe(mesh.corner("x-", "y+", "z-"), "z")


def stress_of(gradient: np.ndarray) -> np.ndarray:
    strain = 0.5 * (gradient + gradient.T)
    lame = E * NU / ((1 + NU) * (1 - 2 * NU))
    stress: np.ndarray = lame * np.trace(strain) * np.eye(3) + E / (1 + NU) * strain
    return stress


def mises(stress: np.ndarray) -> float:
    part = stress - np.trace(stress) / 3 * np.eye(3)
    return float(np.sqrt(1.5 * (part * part).sum()))


@pytest.mark.parametrize("sign", [1, -1])
@pytest.mark.parametrize("kind", CONFORMING)
def test_a_distorted_mesh_reproduces_a_linear_field_to_1e_6(tmp_path, kind, sign):
    model, mesh = warped(kind, [Material.isotropic(E, NU)])
    shown, exact = sign * GRADIENT, sign * model.nodes @ GRADIENT.T
    outside = surface(mesh)
    case = LoadCase().prescribe(outside, "xyz", exact[outside - 1])
    run(written(tmp_path, model, case))
    assert len(outside) < len(mesh.nodes)
    error = np.abs(sstate(tmp_path, 1) - exact).max()
    assert error <= 1e-6 * np.abs(exact).max()
    stress = stress_of(shown)
    signed = np.copysign(mises(stress), np.trace(stress))
    np.testing.assert_allclose(counted(tmp_path, "ws.amsval", 1), signed, rtol=1e-5)
    volume, energy = np.prod(SIZE), 0.5 * (stress * shown).sum()
    totals = SHARP * np.array((energy * volume, volume))
    np.testing.assert_allclose(comval(tmp_path, 1)[1:3], totals, rtol=1e-5)


@pytest.mark.parametrize("kind", CONFORMING)
def test_a_bar_under_even_tension_strains_evenly(tmp_path, kind):
    model, mesh = warped(kind, [Material.isotropic(E, NU)])
    case = LoadCase().prescribe(mesh.face("x-"), "x").prescribe(mesh.edge("x-", "y-"), "y")
    case.prescribe(mesh.corner("x-", "y-", "z-"), "z").load(*mesh.traction("x+", (7.0, 0.0, 0.0)))
    settle(written(tmp_path, model, case))
    strain = 7.0 / (E * SOFT)
    exact = model.nodes * strain * (1, -NU, -NU)
    assert np.abs(sstate(tmp_path, 1) - exact).max() <= 1e-6 * np.abs(exact).max()
    np.testing.assert_allclose(comval(tmp_path, 1)[5], 7.0 * SIZE[1] * SIZE[2], rtol=1e-6)


@pytest.mark.parametrize("name", ["isotropic", "orthotropic"])
@pytest.mark.parametrize("kind", CONFORMING)
def test_even_heating_of_a_free_part_leaves_no_stress(tmp_path, kind, name):
    material = MATERIALS[name]
    material = Material(**{**vars(material), "initial_strain": 0.0})
    model, mesh = warped(kind, [material])
    warmth = 40.0
    case = resting(mesh)
    case.heat(np.arange(1, len(mesh.nodes) + 1), warmth)
    settle(written(tmp_path, model, case))
    growth = np.array(material.expansions if name == "orthotropic" else [material.expansion] * 3)
    exact = model.nodes * growth * warmth
    assert np.abs(sstate(tmp_path, 1) - exact).max() <= 1e-6 * np.abs(exact).max()
    held_back = 1000.0 * np.abs(growth).max() * warmth
    assert np.abs(counted(tmp_path, "ws.amsval", 1)).max() <= 1e-5 * held_back


def test_an_initial_strain_lets_a_free_part_grow(tmp_path):
    model, mesh = warped("tet4", [Material.isotropic(E, NU, initial_strain=2e-3)])
    case = resting(mesh)
    settle(written(tmp_path, model, case))
    exact = model.nodes * 2e-3
    assert np.abs(sstate(tmp_path, 1) - exact).max() <= 1e-6 * np.abs(exact).max()


# --- cantilever ----------------------------------------------------------------------------------

LENGTH, HEIGHT, LOAD = 10.0, 1.0, 1.0


def tip_deflection(directory: Path, kind: Kind, cells: tuple[int, int, int]) -> float:
    """Mean downward tip displacement of a slender beam without lateral contraction."""
    mesh = box(kind, cells, (LENGTH, HEIGHT, HEIGHT))
    model = Model(mesh.nodes, mesh.elements, [Material.isotropic(E, 0.0)])
    case = LoadCase().prescribe(mesh.face("x-"))
    nodes, forces = mesh.traction("x+", (0.0, 0.0, -LOAD / HEIGHT**2))
    run(written(directory, model, case.load(nodes, forces)))
    moved = -sstate(directory, 1)[nodes - 1, 2]
    work = float(moved @ -forces[:, 2])
    # The energy counts the material without its softening, the work is done on the softened part.
    assert comval(directory, 1)[1] == pytest.approx(0.5 * work * SHARP / SOFT, rel=1e-4)
    return float(work / LOAD * SOFT)


BENDING = LOAD * LENGTH**3 / (3 * E * HEIGHT**4 / 12)
SHEARING = 1.2 * LOAD * LENGTH / (0.5 * E * HEIGHT**2)


def test_quadratic_tetrahedra_bend_as_a_beam(tmp_path):
    deflection = tip_deflection(tmp_path, "tet10", (12, 1, 1))
    assert deflection == pytest.approx(BENDING + SHEARING, rel=0.01)


@pytest.mark.parametrize("across", [1, 2])
@pytest.mark.parametrize("along", [10, 20, 40])
def test_hexahedra_bend_as_a_beam_but_for_their_parasitic_shear(tmp_path, along, across):
    # A trilinear element of length a can't curve: bent by c it has the shear strain c x beside
    # c z along. The energies of a beam slice are G c^2 H a^3 / 24 and E c^2 a H^3 / 24, so that
    # it is too stiff by 1 + (G / E) (a / H)^2, however many layers it has; here G = E / 2.
    # The shear force's own deflection is the average without warping: factor 1 in place of 1.2.
    stiff = 1 + 0.5 * (LENGTH / along / HEIGHT) ** 2
    deflection = tip_deflection(tmp_path, "hex8", (along, across, across))
    assert deflection == pytest.approx(BENDING / stiff + SHEARING / 1.2, rel=0.01)


def test_linear_tetrahedra_are_too_stiff_and_converge_with_the_square_of_their_size(tmp_path):
    errors = []
    for n in (1, 2, 4):
        directory = tmp_path / str(n)
        deflection = tip_deflection(directory, "tet4", (10 * n, n, n))
        errors.append(1 - deflection / (BENDING + SHEARING))
    assert 0.6 < errors[0] < 0.9
    assert errors[0] > errors[1] > errors[2] > 0
    # Locking of constant-strain elements vanishes with the square of the element size, once
    # there are enough elements across the height to see it.
    assert errors[1] / errors[2] == pytest.approx(3.0, abs=1.0)


@pytest.mark.parametrize("mode", [1, 2])
def test_load_cases_superpose(tmp_path, mode):
    model, mesh = part("mixed")
    forces = np.array(((1.0, 0.0, 2.0), (0.0, 3.0, -1.0)))
    cases = [pulled(mesh, force=f) for f in (*forces, forces.sum(axis=0))]
    run(written(tmp_path, model, *cases, Sys_ComputationMode=mode))
    first, second, both = (sstate(tmp_path, n) for n in (1, 2, 3))
    assert np.abs(both - first - second).max() <= 1e-4 * np.abs(both).max()
