"""Fields of a load case at nodes: what files hold and what pictures show."""

from __future__ import annotations

from typing import Literal, get_args

import numpy as np

from vkctl import stress
from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.directory.results import Results
from vkctl.stress.fields import COMPONENTS, STRESS_FIELDS, stress_field
from vkctl.stress.safety import need_strengths, safety_field, strengths

Field = Literal[
    "magnitude",
    "von_mises",
    "signed_von_mises",
    "tresca",
    "principal_1",
    "principal_2",
    "principal_3",
    "stress_xx",
    "stress_yy",
    "stress_zz",
    "stress_xy",
    "stress_yz",
    "stress_xz",
    "energy_density",
    "safety",
    "element_mean",
    "criterion",
    "level",
]
FIELDS: tuple[Field, ...] = get_args(Field)

TITLES: dict[str, str] = {
    "magnitude": "displacement",
    "von_mises": "von Mises stress",
    "signed_von_mises": "signed von Mises stress",
    "tresca": "Tresca stress",
    "principal_1": "largest principal stress",
    "principal_2": "middle principal stress",
    "principal_3": "smallest principal stress",
    **{name: name.replace("_", " ") for name in COMPONENTS},
    "energy_density": "strain energy density",
    "safety": "yield stress over von Mises stress",
    "element_mean": "signed element mean of von Mises stress",
    "criterion": "criterion",
    "level": "level",
}


def point_fields(model: Model, results: Results) -> dict[str, Array]:
    """What the solver left per node: displacement (n, 3), magnitude, element mean, criterion.

    The element mean is von Mises stress averaged over each element and then over the elements at a
    node, with the sign of the mean stress: smoother than the stress, and too low on surfaces. The
    criterion is NaN at nodes without a design point, and missing in a model without any; the
    displacement is missing where the solve was too poor to leave one.
    """
    assert model.node_tp_index is not None
    _require_fitting(model, results)
    fields = {"magnitude": results.magnitude, "element_mean": results.stress}
    chosen = model.node_tp_index > 0
    if chosen.any():
        criterion = np.full(len(model.nodes), np.nan, np.float32)
        criterion[chosen] = results.criterion[model.node_tp_index[chosen] - 1]
        fields["criterion"] = criterion
    if results.displacements is not None:
        fields["displacement"] = results.displacements
    return fields


def _require_fitting(model: Model, results: Results) -> None:
    """ValueError where results belong to another model."""
    nodes, elements = len(model.nodes), len(model.elements)
    for values, count, what in (
        (results.criterion, len(model.tp), "criterion values"),
        (results.stress, nodes, "stresses"),
        (results.magnitude, nodes, "magnitudes"),
        (results.displacements, nodes, "displacements"),
        (results.element_state, elements, "element states"),
    ):
        if values is not None and len(values) != count:
            text = f"load case {results.number} has {len(values)} {what}, the model has {count}"
            raise ValueError(text)
    assert model.node_tp_index is not None
    if (model.node_tp_index > len(model.tp)).any():
        raise ValueError(f"a node names a design point above {len(model.tp)}")


def stress_fields(model: Model, results: Results) -> dict[str, Array]:
    """Recovered stresses per node, float32, NaN outside the part; none where the solve was poor.

    "stress" (n, 6) in the order xx, yy, zz, xy, yz, xz, "principal" (n, 3) from the largest down
    with the unit vectors "principal_direction_1" to "principal_direction_3", equivalents and the
    strain energy density.
    """
    if not stress.has_stress(results):
        return {}
    parts = stress.nodal_stress(stress.solution_of(model, results))
    found = parts.merged()
    principal, directions = stress.principal_directions(found.stress)
    fields = {
        "stress": found.stress,
        "principal": principal,
        **{f"principal_direction_{k + 1}": directions[:, k] for k in range(3)},
        "von_mises": stress.von_mises(found.stress),
        "signed_von_mises": stress.signed_von_mises(found.stress),
        "tresca": stress.tresca(principal),
        "energy_density": found.energy,
    }
    if strengths(model):
        fields["safety"] = safety_field(model, parts)
    with np.errstate(over="ignore"):  # beyond single precision they are infinite
        return {name: values.astype(np.float32) for name, values in fields.items()}


def shown_fields(model: Model, results: Results, field: str) -> dict[str, Array]:
    """What a picture of one field needs; ValueError where the load case doesn't have it."""
    fields = point_fields(model, results)
    if field == "safety":
        need_strengths(model)
    if field == "safety" or field in STRESS_FIELDS:
        # Says itself why there is none.
        parts = stress.nodal_stress(stress.solution_of(model, results))
        if field == "safety":
            fields[field] = safety_field(model, parts)
        else:
            found = parts.merged()
            fields[field] = stress_field(found.stress, found.energy, field)
    if field != "level" and field not in fields:
        raise ValueError(f"load case {results.number} has no {field}: there are no design points")
    return fields
