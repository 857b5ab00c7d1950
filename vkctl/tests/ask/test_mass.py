"""Mass properties against closed forms and the solver's own volume."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from stress.states import STEEL, solved, strained_box

from vkctl.ask import AskError, find_elements, mass
from vkctl.directory import formats
from vkctl.directory.formats import CaseNotes, NamedSet
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box

from .models import DIRECT

KINDS = ("tet4", "hex8", "tet10", "mixed")
FULL = (np.arctan(500.0 * 1000.0) / np.pi + 0.5) * (1 - 0.001) + 0.001  # sharp, at level 1


def weighing(model: Model, *densities: float | None) -> Model:
    model.notes = CaseNotes("mm-N-MPa", densities)
    return model


@pytest.mark.parametrize("kind", KINDS)
def test_a_block_has_the_inertia_of_a_block_wherever_it_is(kind: str) -> None:
    a, b, c = 3.0, 2.0, 1.0
    origin = (500.0, -40.0, 7.0)
    part = box(kind, (3, 2, 2), (a, b, c), origin)  # type: ignore[arg-type]
    model = weighing(Model(part.nodes, part.elements, [STEEL], []), 2.5)
    found = mass(model)
    whole = 2.5 * a * b * c * FULL
    assert found.volume == pytest.approx(a * b * c * FULL, rel=1e-12)
    assert found.mass == pytest.approx(whole, rel=1e-12)
    assert found.centre == pytest.approx((501.5, -39.0, 7.5), abs=1e-9)
    expected = whole / 12 * np.diag((b * b + c * c, a * a + c * c, a * a + b * b))
    assert np.array(found.inertia) == pytest.approx(expected, abs=1e-9 * whole)
    assert found.principal == pytest.approx(tuple(np.sort(np.diag(expected))))


def test_products_of_inertia_have_the_sign_of_the_tensor() -> None:
    part = box(
        "hex8", (4, 4, 1), (1.0, 1.0, 1.0), mapping=lambda p: p @ [(1, 1, 0), (0, 1, 0), (0, 0, 1)]
    )
    found = mass(weighing(Model(part.nodes, part.elements, [STEEL], []), 1.0))
    assert found.inertia is not None and found.axes is not None
    # y rises with x: the integral of x y is 1 / 12.
    assert found.inertia[0][1] == pytest.approx(-FULL / 12, rel=1e-9)
    rebuilt = np.array(found.axes).T @ np.diag(found.principal) @ np.array(found.axes)  # type: ignore[arg-type]
    assert rebuilt == pytest.approx(np.array(found.inertia), abs=1e-12)


def test_two_materials_weigh_what_their_densities_say() -> None:
    part = box("hex8", (4, 1, 1), (4.0, 1.0, 1.0))
    part.elements.materials[:] = (1, 1, 1, 2)
    steel, lead = Material.isotropic(1.0, 0.3, name="steel"), Material.isotropic(1.0, 0.3)
    model = weighing(Model(part.nodes, part.elements, [steel, lead], []), 1.0, 3.0)
    found = mass(model)
    assert [(one.name, one.density) for one in found.materials] == [
        ("steel", 1.0),
        ("material 2", 3.0),
    ]
    assert [one.mass for one in found.materials] == pytest.approx([3 * FULL, 3 * FULL])
    assert found.centre == pytest.approx((2.5, 0.5, 0.5))
    model.sets = [NamedSet("end", "element", np.array([4])), NamedSet("n", "node", np.array([1]))]
    end = mass(model, find_elements(model, "end"))
    assert end.set == "end" and end.mass == pytest.approx(3 * FULL)
    with pytest.raises(AskError, match="'n' is a node set; a set of elements is wanted"):
        find_elements(model, "n")


def test_without_a_density_there_is_a_volume_and_no_mass() -> None:
    part = box("hex8", (4, 1, 1), (4.0, 1.0, 1.0))
    part.elements.materials[:] = (1, 1, 1, 2)
    model = Model(part.nodes, part.elements, [STEEL, Material.isotropic(1.0, 0.3, name="lead")], [])
    for notes in (None, CaseNotes("mm-N-MPa", (1.0, None)), CaseNotes(None, (1.0,))):
        model.notes = notes
        found = mass(model)
        assert (found.mass, found.inertia, found.principal) == (None, None, None)
        assert found.volume == pytest.approx(4 * FULL)
        assert found.centre == pytest.approx((2.0, 0.5, 0.5))
        assert "no density" in found.notes[0]


@pytest.mark.parametrize("kind", KINDS)
def test_the_volume_is_the_solvers(tmp_path: Path, kind: str) -> None:
    part = strained_box(kind, (6, 4, 3))
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (1.0, 0.0, 0.0)))
    model = Model(part.nodes, part.elements, [STEEL], [case], options=dict(DIRECT))
    model.set_level(np.hypot(part.nodes[:, 0] - 1.6, part.nodes[:, 2] - 0.4) - 0.35)
    results = solved(model, tmp_path, runs=1)
    assert mass(model).volume == pytest.approx(results.material_volume, rel=1e-6)
    assert results.material_volume < 5.6


def test_the_void_counts_a_thousandth_and_what_is_left_out_nothing() -> None:
    part = box("hex8", (8, 2, 2), (8.0, 2.0, 1.0))
    model = Model(part.nodes, part.elements, [STEEL], [])
    model.set_level(5.0001 - part.nodes[:, 0])
    assert mass(model).volume == pytest.approx(2.0 * (5.0 + 0.001 * 3.0), rel=1e-3)
    assert model.element_flags is not None
    model.element_flags[part.centroids()[:, 0] > 6.0] |= formats.ELEMENT_NO_LEVEL
    assert mass(model).volume == pytest.approx(2.0 * 7.0, rel=1e-3)
    model.exclude_elements(np.arange(1, len(part.elements) + 1))
    with pytest.raises(AskError, match="no element takes part"):
        mass(model)
