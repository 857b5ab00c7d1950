"""Values at points and along lines, interpolated in the elements that hold them."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import called, place_words
from vkctl.directory.model import Model
from vkctl.shapes.functions import shape_values
from vkctl.shapes.places import elements_at_points
from vkctl.shapes.topology import HEX8, NODES_PER_TYPE, TET4
from vkctl.stress.fields import STRESS_FIELDS, stress_field
from vkctl.stress.points import element_levels
from vkctl.stress.solution import Solution, undeformed

from .extremes import DISPLACEMENTS, CaseFields, require_field
from .reactions import Vector
from .study import AskError, active_nodes

AT_POINTS = (*DISPLACEMENTS, "magnitude", "von_mises")  # unless other fields are asked for
_ROUNDING = 1e-9  # outside of an element, in its parameters, that is still inside


@dataclass(frozen=True)
class Spots:
    """Points with the element that each lies in, 0 where it lies in no material."""

    points: Array  # (p, 3)
    elements: Array  # (p,)
    weights: list[tuple[Array, Array]]  # of each point: nodes from 0, shape functions
    outside: Array  # bool (p,): in no element; others without one lie in the void


def find_spots(model: Model, points: Iterable[Iterable[float]]) -> Spots:
    """Where points lie. Of several elements at a point the lowest with material there counts."""
    places = np.array([tuple(point) for point in points], np.float64).reshape(-1, 3)
    shape = undeformed(model)
    hits = elements_at_points(shape.nodes, shape.elements, shape.active, places)
    solid = _levels(shape, hits.elements, hits.parameters) >= 0
    order = np.lexsort((hits.elements, hits.outside > _ROUNDING, ~solid, hits.points))
    first = order[np.unique(hits.points[order], return_index=True)[1]]
    elements = np.zeros(len(places), np.int64)
    weights = [(np.empty(0, np.int64), np.empty(0))] * len(places)
    for place, number, at, is_solid in zip(
        *(values[first] for values in (hits.points, hits.elements, hits.parameters, solid)),
        strict=True,
    ):
        if is_solid:
            elements[place] = number
            code = int(shape.elements.type_codes[number - 1])
            row = shape.elements.table(code)[shape.elements.conn_index[number - 1] - 1]
            weights[place] = (row.astype(np.int64) - 1, shape_values(code, at))
    outside = np.ones(len(places), np.bool_)
    outside[hits.points] = False
    return Spots(places, elements, weights, outside)


def _levels(shape: Solution, numbers: Array, parameters: Array) -> Array:
    """Levels (k,) at parameters (k, 3) of elements, as the solver interpolates them."""
    found = np.empty(len(numbers))
    codes = shape.elements.type_codes[numbers - 1]
    for code in NODES_PER_TYPE:
        own = codes == code
        of_corners = element_levels(shape, code, numbers[own])
        values = shape_values(HEX8 if code == HEX8 else TET4, parameters[own])
        found[own] = (values * of_corners).sum(axis=1)
    return found


def why_nothing(model: Model, spots: Spots, place: int) -> str:
    """A sentence on a point without a value."""
    point = spots.points[place]
    told = place_words(point)
    if not spots.outside[place]:
        return f"{told} lies in the void, where the level field leaves no material"
    nodes = np.flatnonzero(active_nodes(model))
    if not len(nodes):
        return f"{told} lies outside of the mesh, which has no elements"
    distances = np.linalg.norm(model.nodes[nodes] - point, axis=1)
    near = int(distances.argmin())
    label = called(int(nodes[near]) + 1, () if model.labels is None else model.labels.nodes)
    return (
        f"{told} lies outside of the mesh; the nearest node is {label}, {distances[near]:.4g} off"
    )


def values_at(
    model: Model, fields: CaseFields, spots: Spots, names: Sequence[str] = AT_POINTS
) -> Array:
    """Fields (p, names) at spots, NaN where there is no value.

    Displacements follow the element's shape functions; so do the stresses at its nodes, those of
    its material, from which other fields are formed at the point.
    """
    for name in names:
        require_field(name)
    found = np.full((len(spots.points), len(names)), np.nan)
    for place in np.flatnonzero(spots.elements):
        nodes, weights = spots.weights[place]
        shift = weights @ fields.displacements[nodes]
        material = int(model.elements.materials[spots.elements[place] - 1])
        stress, energy = _stress(fields, material, nodes, weights)
        for column, name in enumerate(names):
            if name in STRESS_FIELDS:
                value = stress_field(stress[None], energy[None], name)[0]
            elif name == "magnitude":
                value = np.linalg.norm(shift)
            else:
                value = shift[DISPLACEMENTS.index(name)]
            found[place, column] = value
    return found


def _stress(fields: CaseFields, material: int, nodes: Array, weights: Array) -> tuple[Array, Array]:
    """Stress (6,) and strain energy density of a material at a point; NaN without one."""
    for part in fields.stress.parts if fields.stress else ():
        if part.material == material:
            rows = np.searchsorted(part.nodes, nodes + 1).clip(max=len(part.nodes) - 1)
            if np.array_equal(part.nodes[rows], nodes + 1):
                return weights @ part.stress[rows], np.asarray(weights @ part.energy[rows])
    return np.full(6, np.nan), np.asarray(np.nan)


def line_points(start: Vector, end: Vector, count: int) -> Array:
    """Points (count, 3) spread evenly from one place to another, both among them."""
    if count < 2:
        raise AskError(f"a line of {count} points is none; it takes 2 or more")
    if start == end:
        raise AskError("the line begins where it ends")
    steps = np.linspace(0.0, 1.0, count)[:, None]
    points: Array = (1 - steps) * np.array(start) + steps * np.array(end)
    return points
