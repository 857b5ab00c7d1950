"""Largest and smallest values at nodes, by set, and envelopes over load cases."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from typing import Literal

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import did_you_mean
from vkctl.directory.model import Model
from vkctl.shapes.topology import TYPES
from vkctl.stress import NodalStress, Solution, nodal_stress
from vkctl.stress.fields import STRESS_FIELDS, stress_field
from vkctl.stress.points import nodes_inside

from .reactions import Vector
from .study import AskError, Region, Solved

End = Literal["largest", "smallest"]
DISPLACEMENTS = ("displacement_x", "displacement_y", "displacement_z")
FIELDS = ("magnitude", *DISPLACEMENTS, *STRESS_FIELDS)
USUAL = ("magnitude", "von_mises", "principal_1", "principal_3")
# Of fields that have one end worth telling; others have two.
_ENDS: dict[str, tuple[End, ...]] = {
    "magnitude": ("largest",),
    "von_mises": ("largest",),
    "tresca": ("largest",),
    "energy_density": ("largest",),
    "principal_1": ("largest",),
    "principal_3": ("smallest",),
}
_BOTH: tuple[End, ...] = ("largest", "smallest")


@dataclass(frozen=True)
class CaseFields:
    """What fields at nodes follow from, of one load case."""

    number: int
    name: str
    displacements: Array  # (n, 3)
    inside: Array  # bool (n,): of the part, where displacements mean something
    stress: NodalStress | None  # None where nobody asked for one


@dataclass(frozen=True)
class Extreme:
    """The largest or smallest value of a field in a set."""

    load_case: int
    name: str  # of the load case
    set: str
    field: str
    end: End
    value: float
    node: int
    place: Vector


def case_fields(model: Model, case: Solved, stressed: bool = True) -> CaseFields:
    """Fields of a load case, its stresses recovered at the nodes unless nobody needs them."""
    found = nodal_stress(case.solution) if stressed else None
    inside = _inside(case.solution)
    return CaseFields(case.number, case.name, case.solution.displacements, inside, found)


def _inside(solution: Solution) -> Array:
    """Nodes where an active element's level isn't negative, bool (n,)."""
    inside = np.zeros(len(solution.nodes), np.bool_)
    for code in TYPES:
        numbers, rows = solution.elements.of_type(code)
        active = solution.active[numbers - 1]
        inside[nodes_inside(solution, code, numbers[active], rows[active]) - 1] = True
    return inside


def require_field(name: str) -> None:
    """AskError where there is no such field."""
    if name not in FIELDS:
        raise AskError(f"there is no field {name!r}; {did_you_mean(name, FIELDS)}")


def takes_stress(names: Iterable[str]) -> bool:
    """Whether one of these fields follows from stresses."""
    return any(name in STRESS_FIELDS for name in names)


def extremes(
    model: Model, fields: CaseFields, sets: Sequence[Region], names: Sequence[str] = USUAL
) -> list[Extreme]:
    """Extremes of fields in sets of nodes. A set without a value of a field has none.

    Nodes beyond the part's surface don't count. In a set of elements a stress counts only of the
    materials of its elements.
    """
    found = []
    values = {name: _values(fields, name) for name in names}
    for region in sets:
        chosen = np.zeros(len(model.nodes), np.bool_)
        chosen[region.nodes - 1] = True
        for name in names:
            for end in _ENDS.get(name, _BOTH):
                node, value = _extreme(values[name], chosen, region, end)
                if node:
                    place = _place(model, node)
                    case = (fields.number, fields.name)
                    found.append(Extreme(*case, region.name, name, end, value, node, place))
    return found


@dataclass(frozen=True)
class _Values:
    """A field at some nodes, of one material or of all."""

    material: int  # 0: of all
    nodes: Array
    values: Array


def _values(fields: CaseFields, name: str) -> list[_Values]:
    require_field(name)
    if name in STRESS_FIELDS:
        assert fields.stress is not None
        return [
            _Values(
                part.material,
                part.nodes[part.inside],
                stress_field(part.stress[part.inside], part.energy[part.inside], name),
            )
            for part in fields.stress.parts
        ]
    nodes = np.flatnonzero(fields.inside) + 1
    shift = fields.displacements[nodes - 1]
    if name == "magnitude":
        return [_Values(0, nodes, np.linalg.norm(shift, axis=1))]
    return [_Values(0, nodes, shift[:, DISPLACEMENTS.index(name)])]


def _extreme(values: list[_Values], chosen: Array, region: Region, end: End) -> tuple[int, float]:
    """Node and value of an extreme; node 0 where there is no value."""
    best, node = -np.inf, 0
    sign = 1.0 if end == "largest" else -1.0
    for nodes, found in _of_region(values, chosen, region):
        signed = sign * found
        place = int(signed.argmax())
        if signed[place] > best:
            best, node = float(signed[place]), int(nodes[place])
    return node, sign * best


def _of_region(
    values: list[_Values], chosen: Array, region: Region
) -> Iterator[tuple[Array, Array]]:
    """Nodes and finite values of those materials that have some among the chosen nodes."""
    for part in values:
        if part.material and region.materials is not None:
            if part.material not in region.materials:
                continue
        taken = chosen[part.nodes - 1] & np.isfinite(part.values)
        if taken.any():
            yield part.nodes[taken], part.values[taken]


def values_in(model: Model, fields: CaseFields, region: Region, name: str) -> Array:
    """All values that `extremes` chooses from, in no order that matters.

    A node where materials meet has one of each.
    """
    chosen = np.zeros(len(model.nodes), np.bool_)
    chosen[region.nodes - 1] = True
    found = _of_region(_values(fields, name), chosen, region)
    return np.concatenate([np.empty(0), *(values for _, values in found)])


def _place(model: Model, node: int) -> Vector:
    x, y, z = model.nodes[node - 1].tolist()
    return x, y, z


@dataclass(frozen=True)
class Envelope:
    """The largest and smallest value of a field at each node, and the load cases they occur in.

    NaN and load case 0 at nodes without a value.
    """

    field: str
    load_cases: tuple[int, ...]
    names: dict[int, str]
    largest: Array  # (n,)
    largest_case: Array  # int32 (n,)
    smallest: Array
    smallest_case: Array


def envelope(model: Model, cases: Iterable[CaseFields], field: str) -> Envelope:
    """Envelope of a field over load cases, one in memory at a time."""
    count = len(model.nodes)
    largest, smallest = np.full(count, np.nan), np.full(count, np.nan)
    of_largest, of_smallest = np.zeros(count, np.int32), np.zeros(count, np.int32)
    names = {}
    for fields in cases:
        names[fields.number] = fields.name
        for part in _values(fields, field):
            place = part.nodes - 1
            for kept, owner, further in (
                (largest, of_largest, np.greater),
                (smallest, of_smallest, np.less),
            ):
                better = further(part.values, kept[place]) | (
                    np.isnan(kept[place]) & np.isfinite(part.values)
                )
                kept[place[better]] = part.values[better]
                owner[place[better]] = fields.number
    return Envelope(field, tuple(names), names, largest, of_largest, smallest, of_smallest)


def envelope_extremes(model: Model, over: Envelope, sets: Sequence[Region]) -> list[Extreme]:
    """Extremes of an envelope in sets, each with the load case that it occurs in.

    Where materials meet, a node has the values of all of them.
    """
    found = []
    for region in sets:
        chosen = np.zeros(len(model.nodes), np.bool_)
        chosen[region.nodes - 1] = True
        for end in _ENDS.get(over.field, _BOTH):
            values, owner = (
                (over.largest, over.largest_case)
                if end == "largest"
                else (over.smallest, over.smallest_case)
            )
            every = _Values(0, np.arange(1, len(values) + 1), values)
            node, value = _extreme([every], chosen, region, end)
            if node:
                case = int(owner[node - 1])
                place = _place(model, node)
                name = over.names.get(case, "")
                found.append(Extreme(case, name, region.name, over.field, end, value, node, place))
    return found
