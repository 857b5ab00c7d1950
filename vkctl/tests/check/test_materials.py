"""Faults that `vkctl.check.materials` tells."""

import pytest

from vkctl.directory import formats, model
from vkctl.directory.model import Material

from .faults import assert_stops, assert_told, collection, sound, with_material

FAULTS, provokes = collection()


@provokes("material-kind", "error", "no kind")
def a_material_without_kind(directory):
    with_material(directory, Material(name="air", e=1.0, nu=0.3))


@provokes("material-modulus", "error", "modulus 0")
def a_material_without_modulus(directory):
    with_material(directory, Material.isotropic(0.0, 0.3))


@provokes("material-modulus", "error", "e-42", stops=True)
def a_modulus_that_single_precision_does_not_hold(directory):
    with_material(directory, Material.isotropic(1e-42, 0.3))


@provokes("material-modulus", "error", "1000, 0, 1000")
def an_orthotropic_material_without_a_modulus(directory):
    with_material(directory, Material.orthotropic((1e3, 0, 1e3), (0.2,) * 3, (400,) * 3))


@provokes("material-not-finite", "error", "InitialStrain", stops=True)
def an_initial_strain_that_is_no_number(directory):
    with_material(directory, Material.isotropic(1000.0, 0.3, initial_strain=float("inf")))


@provokes("material-not-finite", "error", "Expansions")
def orthotropic_expansions_that_are_no_numbers(directory):
    triples = (1e3,) * 3, (0.2,) * 3, (400,) * 3
    expansions = (0.0, float("nan"), 0.0)
    with_material(directory, Material.orthotropic(*triples, expansions=expansions))


@provokes("material-poisson", "error", "0.5")
def an_incompressible_material(directory):
    with_material(directory, Material.isotropic(1000.0, 0.5))


@provokes("material-incompressible", "warning", "0.499")
def a_nearly_incompressible_material(directory):
    with_material(directory, Material.isotropic(1000.0, 0.499))


@provokes("material-poisson", "error", "no elastic body")
def orthotropic_ratios_that_are_too_large(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (0.6,) * 3, (400,) * 3))


@provokes("material-poisson", "error", "negative energy")
def orthotropic_ratios_of_negative_energy(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (-1.1,) * 3, (400,) * 3))


@provokes("material-shear", "error", "shear moduli 400, 0, 400")
def an_orthotropic_material_without_shear_stiffness(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (0.2,) * 3, (400, 0, 400)))


@provokes("material-two-kinds", "note", "orthotropic values hold")
def a_material_of_two_kinds(directory):
    material = Material.orthotropic((1e3,) * 3, (0.2,) * 3, (400,) * 3)
    material.flags |= formats.MATERIAL_ISOTROPIC
    with_material(directory, material)


@provokes("material-yield", "warning", "yield stress is 0")
def a_yielding_material_without_yield_stress(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 0.0))


@provokes("material-hardening", "warning", "ratio 2")
def a_material_that_hardens_above_its_stiffness(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0, hardening_ratio=2.0))


@provokes("material-limit", "warning", "limit stress 0")
def a_material_without_limit_stress(directory):
    with_material(directory, Material.isotropic(1000.0, 0.3, limit_stress=0.0))


@provokes("material-modulus", "error", "1e+37")
def a_modulus_too_large_for_single_precision(directory):
    with_material(directory, Material.isotropic(1e37, 0.3))


@provokes("material-contrast", "warning", "from 0.1 to 200000")
def moduli_of_two_unit_systems(directory):
    whole, _ = sound(materials=[Material.isotropic(2e5, 0.3), Material.isotropic(0.1, 0.3)])
    whole.elements.materials[0] = 2
    model.write(whole, directory)


@provokes("material-state", "note", "from run to run")
def a_material_with_a_state(directory):
    with_material(directory, Material.compression_only(1000.0, 0.3))


@provokes("material-unused", "note", "material 2")
def a_material_that_no_element_has(directory):
    materials = [Material.isotropic(1000.0, 0.3), Material.isotropic(0.0, 0.9)]
    model.write(sound(materials=materials)[0], directory)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
