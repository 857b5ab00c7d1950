"""Stresses at nodes against what is known of the displacements that they follow from."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.stress import MaterialStress, NodalStress, nodal_stress, von_mises

from .states import (
    GRADIENT,
    KINDS,
    STEEL,
    WOOD,
    given,
    model_of,
    strain_of,
    strained_box,
    true_stress,
)


def largest_difference(found: Array, wanted: Array) -> float:
    return float(np.abs(found - wanted).max() / np.abs(wanted).max())


@pytest.mark.parametrize("kind", [*KINDS, "mixed"])
@pytest.mark.parametrize("material", [STEEL, WOOD], ids=["isotropic", "orthotropic"])
@pytest.mark.parametrize("temperature", [0.0, 25.0])
def test_a_constant_stress_is_the_same_at_every_node(
    kind: str, material: Material, temperature: float
) -> None:
    model = model_of(strained_box(kind), material)
    if temperature:
        model.load_cases[0].heat(np.arange(1, len(model.nodes) + 1), temperature)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T)).merged()
    wanted = true_stress(material, strain_of(GRADIENT), temperature)
    # The solver's constants are of single precision; from node to node nothing changes.
    assert largest_difference(found.stress, np.tile(wanted, (len(model.nodes), 1))) < 1e-6
    assert np.ptp(found.stress, axis=0).max() < 1e-9 * np.abs(wanted).max()
    assert np.ptp(found.energy) < 1e-9 * found.energy.max()


@pytest.mark.parametrize(("kind", "distortion"), [("hex8", 0.0), ("tet10", 0.08)])
def test_a_stress_that_varies_linearly_is_exact_at_every_node(kind: str, distortion: float) -> None:
    part = box(kind, (3, 3, 3), (3.0, 2.0, 1.0), distortion=distortion)  # type: ignore[arg-type]
    model = model_of(part, Material.isotropic(1000.0, 0.3))
    x, y, z = model.nodes.T
    found = nodal_stress(given(model, np.column_stack((x * x + y * z, x * y, x * z + z * z))))
    none = np.zeros_like(x)
    strain = np.column_stack((2 * x, x, x + 2 * z, y + z, none, y + z))
    wanted = true_stress(model.materials[0], strain)
    assert largest_difference(found.merged().stress, wanted) < 1e-6


def waves(nodes: Array) -> tuple[Array, Array]:
    """A smooth displacement and its gradient (..., 3, 3)."""
    rates = np.array(((1.1, 0.7, 0.4), (0.5, 1.3, -0.6), (-0.4, 0.8, 1.2)))
    phases = nodes @ rates.T + (0.3, 0.9, 1.4)
    return np.sin(phases), np.cos(phases)[..., None] * rates


def error_of(kind: str, cells: int, inside: bool) -> float:
    """Largest error of any component, of nodes inside or of all."""
    part = box(kind, (cells,) * 3, distortion=0.05)  # type: ignore[arg-type]
    model = model_of(part, Material.isotropic(1000.0, 0.3))
    values, gradient = waves(model.nodes)
    found = nodal_stress(given(model, values)).merged().stress
    wanted = true_stress(model.materials[0], strain_of(gradient))
    difference = np.abs(found - wanted).max(axis=1) / np.abs(wanted).max()
    boundary = ((part.lattice == 0) | (part.lattice == np.array(part.steps))).any(axis=1)
    return float(difference[~boundary].max() if inside else difference.max())


@pytest.mark.parametrize(
    ("kind", "cells", "inside", "order"),
    [
        ("tet4", 6, True, 1.8),
        ("tet4", 6, False, 0.9),
        ("hex8", 6, True, 1.8),
        ("hex8", 6, False, 1.8),
        ("tet10", 3, True, 2.1),
        ("tet10", 3, False, 2.1),
    ],
)
def test_the_error_at_nodes_falls_with_the_order_of_the_elements(
    kind: str, cells: int, inside: bool, order: float
) -> None:
    coarse, fine = (error_of(kind, n, inside) for n in (cells, 2 * cells))
    assert np.log2(coarse / fine) > order


# --- materials and the void --------------------------------------------------------------------


@pytest.mark.parametrize("kind", KINDS)
def test_materials_that_meet_keep_their_own_stress_at_the_interface(kind: str) -> None:
    part = box(kind, (4, 3, 3), (4.0, 3.0, 3.0))  # type: ignore[arg-type]
    part.elements.materials[:] = np.where(part.centroids()[:, 0] < 2.0, 1, 2)
    model = model_of(part, STEEL, WOOD)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T))
    wanted = [true_stress(material, strain_of(GRADIENT)) for material in (STEEL, WOOD)]
    for part_of, stress in zip(found.parts, wanted, strict=True):
        np.testing.assert_allclose(
            part_of.stress, np.tile(stress, (len(part_of.nodes), 1)), atol=1e-6 * abs(stress).max()
        )
    shared = np.intersect1d(found.parts[0].nodes, found.parts[1].nodes)
    np.testing.assert_array_equal(shared, part.select(x=2.0))
    higher = max(wanted, key=lambda stress: float(von_mises(stress)))
    at_shared = found.merged().stress[shared - 1]
    np.testing.assert_allclose(at_shared, np.tile(higher, (len(shared), 1)), rtol=1e-4)


def test_a_node_that_one_material_only_reaches_from_outside_has_the_stress_of_the_other() -> None:
    at = np.array([1, 2])
    stress = np.zeros((2, 6))
    stress[:, 0] = (5.0, 7.0)
    outside = MaterialStress(1, at, 10 * stress, 10 * stress[:, 0], np.array([False, False]))
    within = MaterialStress(2, at, stress, stress[:, 0], np.array([True, False]))
    for order in ([outside, within], [within, outside]):
        found = NodalStress(2, order).merged()
        np.testing.assert_array_equal(found.stress[:, 0], (5.0, 70.0))
        np.testing.assert_array_equal(found.energy, (5.0, 70.0))
        np.testing.assert_array_equal(found.inside, (True, False))
    lost = MaterialStress(1, at, np.full((2, 6), np.nan), stress[:, 0], np.array([True, True]))
    for order in ([lost, outside], [outside, lost]):
        found = NodalStress(2, order).merged()
        np.testing.assert_array_equal(found.stress, outside.stress)


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("value", [np.nan, np.inf, -np.inf, 3e38])
def test_a_damaged_displacement_spoils_nothing_but_its_surroundings(
    kind: str, value: float
) -> None:
    model = model_of(box(kind, (4, 2, 2), (4.0, 2.0, 2.0)), STEEL)  # type: ignore[arg-type]
    shift = model.nodes @ GRADIENT.T
    shift[model.nodes[:, 0] == 0.0] = value
    found = nodal_stress(given(model, shift)).merged().stress
    kept = found[model.nodes[:, 0] > 2.5]
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    assert largest_difference(kept, np.tile(wanted, (len(kept), 1))) < 1e-6


def test_elements_that_touch_no_other_have_their_own_stress() -> None:
    part = box("tet10", (2, 1, 1), (2.0, 1.0, 1.0))
    model = model_of(part, STEEL)
    numbers, rows = model.elements.of_type(int(model.elements.type_codes[0]))
    apart = model.nodes[rows - 1].reshape(-1, 3)
    table = np.arange(len(apart)).reshape(rows.shape) + 1
    alone = Model(apart, Elements.from_tables(tet10=table), [STEEL], [LoadCase()])
    gradients = np.random.default_rng(3).normal(size=(len(numbers), 3, 3)) * 0.01
    shift = np.einsum("mij,mnj->mni", gradients, apart.reshape(len(numbers), -1, 3))
    found = nodal_stress(given(alone, shift.reshape(-1, 3))).merged().stress
    wanted = true_stress(STEEL, strain_of(gradients))
    assert largest_difference(found, np.repeat(wanted, rows.shape[1], axis=0)) < 1e-6


def half_empty(kind: str, place: float) -> tuple[Model, Array]:
    """A bar that ends at x = place and displacements that are nonsense in what is left of it."""
    part = box(kind, (6, 3, 3), (6.0, 3.0, 3.0))  # type: ignore[arg-type]
    model = model_of(part, STEEL)
    model.set_level(place - part.nodes[:, 0])
    shift = part.nodes @ GRADIENT.T
    beyond = part.nodes[:, 0] > np.ceil(place) + 1e-9
    shift[beyond] += np.random.default_rng(5).normal(size=(beyond.sum(), 3))
    return model, shift


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("place", [3.0, 3.2, 3.7])
def test_the_void_has_no_part_in_the_stress_of_the_material(kind: str, place: float) -> None:
    model, shift = half_empty(kind, place)
    found = nodal_stress(given(model, shift)).merged().stress
    inside = model.nodes[:, 0] <= place
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    # Elements that the surface cuts keep the stress of the material: their presence is no factor.
    np.testing.assert_allclose(
        found[inside], np.tile(wanted, (inside.sum(), 1)), atol=1e-6 * np.abs(wanted).max()
    )
    assert np.isnan(found[model.nodes[:, 0] > np.floor(place) + 1 + 1e-9]).all()


@pytest.mark.parametrize("kind", KINDS)
def test_nodes_just_outside_carry_the_stress_on_to_the_surface(kind: str) -> None:
    model, shift = half_empty(kind, 3.2)
    found = nodal_stress(given(model, shift)).merged().stress
    beside = np.isclose(model.nodes[:, 0], 4.0)
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    np.testing.assert_allclose(
        found[beside], np.tile(wanted, (beside.sum(), 1)), atol=1e-5 * np.abs(wanted).max()
    )


def test_elements_that_ignore_the_level_are_whole() -> None:
    model, shift = half_empty("hex8", 3.0)
    assert model.element_flags is not None
    model.element_flags[:] |= 1 << 1
    assert np.isfinite(nodal_stress(given(model, shift)).merged().stress).all()


def test_excluded_elements_have_no_stress() -> None:
    part = box("hex8", (4, 2, 2), (4.0, 2.0, 2.0))
    model = model_of(part, STEEL)
    model.exclude_elements(np.flatnonzero(part.centroids()[:, 0] > 2) + 1)
    shift = part.nodes @ GRADIENT.T
    shift[part.nodes[:, 0] > 2.5] += 7.0
    found = nodal_stress(given(model, shift)).merged().stress
    np.testing.assert_array_equal(np.isnan(found[:, 0]), part.nodes[:, 0] > 2.5)
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    kept = found[part.nodes[:, 0] < 2.5]
    np.testing.assert_allclose(kept, np.tile(wanted, (len(kept), 1)), rtol=1e-4)


@pytest.mark.parametrize("kind", KINDS)
def test_an_element_without_volume_spoils_nothing_around_it(kind: str) -> None:
    model = model_of(box(kind, (4, 4, 4)), STEEL)  # type: ignore[arg-type]
    number = len(model.elements) // 2
    table = model.elements.of_type(int(model.elements.type_codes[0]))[1]
    flat = model.nodes[table[number] - 1].copy()
    flat[:, 2] = flat[0, 2]
    model.nodes = np.concatenate((model.nodes, flat))
    model.node_tp_index = np.zeros(len(model.nodes), np.int32)
    table[number] = np.arange(len(model.nodes) - len(flat), len(model.nodes)) + 1
    elements: dict[str, Any] = {kind: table}
    model.elements = model.elements.from_tables(**elements)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T)).merged().stress
    kept = found[: -len(flat)]
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    assert largest_difference(kept, np.tile(wanted, (len(kept), 1))) < 1e-6


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("cells", [(1, 1, 1), (4, 1, 1), (4, 4, 1)])
def test_parts_one_element_thick_have_stresses_at_all_nodes(
    kind: str, cells: tuple[int, int, int]
) -> None:
    part = box(kind, cells, (4.0, 4.0, 0.5))  # type: ignore[arg-type]
    model = model_of(part, STEEL)
    found = nodal_stress(given(model, part.nodes @ GRADIENT.T)).merged().stress
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    assert largest_difference(found, np.tile(wanted, (len(found), 1))) < 1e-6


def test_a_mesh_far_from_the_origin_and_flat_elements_do_no_harm() -> None:
    part = box("tet10", (3, 3, 3), (100.0, 100.0, 0.5), origin=(1e4, -1e4, 5e3))
    model = model_of(part, STEEL)
    offset = part.nodes - part.nodes[0]
    found = nodal_stress(given(model, offset @ GRADIENT.T)).merged().stress
    wanted = true_stress(STEEL, strain_of(GRADIENT))
    assert largest_difference(found, np.tile(wanted, (len(found), 1))) < 1e-6


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize(
    ("material", "stress"),
    [
        (Material.isotropic(1000.0, 0.5), np.nan),
        (Material.isotropic(0.0, 0.3), 0.0),
        (Material(), 0.0),
    ],
    ids=["incompressible", "without modulus", "of no kind"],
)
def test_materials_that_carry_nothing_finite_are_told_without_noise(
    material: Material, stress: float
) -> None:
    model = model_of(box("hex8", (2, 2, 2)), material)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T)).merged()
    np.testing.assert_array_equal(found.stress, np.full((27, 6), stress))
    assert np.isnan(found.energy).all()


def test_elements_that_have_yielded_carry_their_part_of_the_stress() -> None:
    soft = Material.yielding(1000.0, 0.3, 5.0)
    model = model_of(box("hex8", (3, 3, 3)), soft)
    states = np.full(len(model.elements), 0.25, np.float32)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T, states)).merged()
    elastic = true_stress(soft, strain_of(GRADIENT))
    np.testing.assert_allclose(found.stress, np.tile(0.25 * elastic, (64, 1)), rtol=1e-4, atol=1e-6)
    energy = 0.5 * 0.25 * elastic @ strain_of(GRADIENT)
    np.testing.assert_allclose(found.energy, energy, rtol=1e-6)
    model.options["Sta.YieldStressFac"] = 0.0
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T, states)).merged()
    np.testing.assert_allclose(found.stress, np.tile(elastic, (64, 1)), rtol=1e-4, atol=1e-6)


def test_a_material_that_only_carries_pressure_has_little_shear() -> None:
    layer = Material.compression_only(1000.0, 0.3)
    model = model_of(box("hex8", (3, 3, 3)), layer)
    states = np.ones(len(model.elements), np.float32)
    found = nodal_stress(given(model, model.nodes @ GRADIENT.T, states)).merged()
    wanted = true_stress(layer, strain_of(GRADIENT))
    wanted[3:] *= 0.001
    np.testing.assert_allclose(found.stress, np.tile(wanted, (64, 1)), rtol=1e-4, atol=1e-6)
    energy = 0.5 * wanted @ strain_of(GRADIENT)
    np.testing.assert_allclose(found.energy, energy, rtol=1e-6)
