"""Extremes and envelopes of fields that are known."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import pytest
from stress.states import given

from vkctl.ask import (
    AskError,
    Extreme,
    Region,
    Solved,
    case_fields,
    envelope,
    envelope_extremes,
    extremes,
    regions,
)
from vkctl.ask.extremes import FIELDS
from vkctl.ask.study import whole_part
from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.formats import NamedSet
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.directory.results import Results
from vkctl.shapes.boxes import box

STIFF, SOFT = Material.isotropic(2000.0, 0.0), Material.isotropic(1000.0, 0.0)


def two_materials() -> Model:
    """8 x 2 x 1, stiff up to x = 4, with sets."""
    part = box("hex8", (8, 2, 2), (8.0, 2.0, 1.0))
    soft = part.centroids()[:, 0] > 4.0
    part.elements.materials[:] = 1 + soft
    model = Model(part.nodes, part.elements, [STIFF, SOFT], [LoadCase()])
    middle = part.select(x=4.0)
    model.sets = [
        NamedSet("middle", "node", middle),
        NamedSet("soft", "element", np.flatnonzero(soft) + 1),
        NamedSet("end", "face", faces=(part.face("x+")[:4].reshape(1, 4),)),
    ]
    return model


def solved_to(model: Model, shift: Array, number: int = 1, name: str = "") -> Solved:
    none = np.zeros(0)
    zeros = (0.0,) * 5
    results = Results(number, 1, 1.0, *zeros[:4], (0.0, 0.0, 0.0), none, none, none, shift, None)
    return Solved(number, name, results, given(model, shift))


def stretched(model: Model, factor: float = 1.0) -> Array:
    """u_x = x^2 / 1000: the strain in x is x / 500."""
    shift = np.zeros_like(model.nodes)
    shift[:, 0] = factor * model.nodes[:, 0] ** 2 / 1000
    return shift


def one(found: list[Extreme], of_set: str, field: str, end: str = "largest") -> Extreme:
    return next(e for e in found if (e.set, e.field, e.end) == (of_set, field, end))


def test_extremes_have_their_value_node_and_place() -> None:
    model = two_materials()
    found = extremes(
        model,
        case_fields(model, solved_to(model, stretched(model))),
        regions(model),
        ("stress_xx", "magnitude", "displacement_x"),
    )
    top = one(found, "whole part", "stress_xx")
    assert top.value == pytest.approx(1000.0 * 8.0 / 500.0, rel=1e-6)
    assert top.place[0] == 8.0 and tuple(model.nodes[top.node - 1]) == top.place
    assert one(found, "whole part", "stress_xx", "smallest").place[0] == 0.0
    assert one(found, "whole part", "displacement_x", "smallest").value == 0.0
    assert one(found, "end", "magnitude").value == pytest.approx(0.064, rel=1e-6)
    assert not [e for e in found if e.field == "magnitude" and e.end == "smallest"]


def test_where_materials_meet_a_set_of_elements_has_the_stress_of_its_own() -> None:
    model = two_materials()
    fields = case_fields(model, solved_to(model, stretched(model)))
    found = extremes(model, fields, regions(model, ["middle", "soft"]), ("stress_xx",))
    assert one(found, "middle", "stress_xx").value == pytest.approx(2000.0 * 4 / 500, rel=1e-6)
    least = one(found, "soft", "stress_xx", "smallest")
    assert least.value == pytest.approx(1000.0 * 4 / 500, rel=1e-6)


def test_nodes_outside_of_the_part_do_not_count() -> None:
    model = two_materials()
    model.set_level(4.5 - model.nodes[:, 0])
    found = extremes(
        model,
        case_fields(model, solved_to(model, stretched(model))),
        [whole_part(model)],
        ("magnitude", "stress_xx"),
    )
    assert [e.place[0] for e in found if e.end == "largest"] == [4.0, 4.0]


def test_nodes_of_elements_that_follow_no_level_count_whatever_it_is() -> None:
    model = two_materials()
    model.set_level(4.5 - model.nodes[:, 0])
    assert model.element_flags is not None
    model.element_flags[:] = formats.ELEMENT_NO_LEVEL
    fields = case_fields(model, solved_to(model, stretched(model)))
    found = extremes(model, fields, [whole_part(model)], ("magnitude", "stress_xx"))
    assert [e.place[0] for e in found if e.end == "largest"] == [8.0, 8.0]


@pytest.mark.parametrize("field", FIELDS)
def test_an_envelope_holds_the_largest_and_smallest_of_all_load_cases(field: str) -> None:
    model = two_materials()
    model.load_cases = [LoadCase() for _ in range(3)]
    x, y, z = model.nodes.T
    shifts = [
        0.01 * np.column_stack((x * x, y * z, x)),
        0.01 * np.column_stack((-y * x, x, z * x)),
        0.02 * np.column_stack((z, -x * y, y * y)),
    ]
    cases = [
        case_fields(model, solved_to(model, shift, number, f"case {number}"))
        for number, shift in enumerate(shifts, 1)
    ]
    over = envelope(model, cases, field)
    sets = [*regions(model, ["middle", "end"]), whole_part(model)]
    for found in envelope_extremes(model, over, sets):
        alone = [
            e
            for fields in cases
            for e in extremes(model, fields, sets, (field,))
            if (e.set, e.end) == (found.set, found.end)
        ]
        best = max if found.end == "largest" else min
        assert found == best(alone, key=lambda e: e.value)
    assert np.all(over.largest >= over.smallest)
    assert over.load_cases == (1, 2, 3)


def test_an_envelope_tells_the_load_case_of_each_node() -> None:
    model = two_materials()
    model.load_cases = [LoadCase(), LoadCase()]
    right = np.where(model.nodes[:, :1] > 4.0, 1.0, 0.0) * (0.0, 0.0, 1.0)
    cases = [
        case_fields(model, solved_to(model, shift, number), stressed=False)
        for number, shift in ((1, right), (2, 0.5 * (1.0 - right)))
    ]
    over = envelope(model, cases, "displacement_z")
    assert np.array_equal(over.largest_case, np.where(model.nodes[:, 0] > 4.0, 1, 2))
    assert set(over.largest.tolist()) == {0.5, 1.0}


def test_an_unknown_set_or_field_is_refused_with_what_was_meant() -> None:
    model = two_materials()
    with pytest.raises(AskError, match="did you mean 'middle'"):
        regions(model, ["midle"])
    with pytest.raises(AskError, match="did you mean 'von_mises'"):
        extremes(model, case_fields(model, solved_to(model, stretched(model))), [], ("von_misses",))
    with pytest.raises(AskError, match="doesn't tell its sets"):
        regions(replace(model, sets=None), ["middle"])


def test_a_set_without_values_has_no_extremes() -> None:
    model = two_materials()
    fields = case_fields(model, solved_to(model, stretched(model)))
    assert extremes(model, fields, [Region("none", np.empty(0, np.int64))]) == []
