"""Volume, mass, centre of gravity and inertia of the part.

Volumes follow the law of the solver's "MatVolume": at each of its integration points the sharp
presence of the level field counts, from 0.001 in the void to 1 in the material. Other than
there, elements that don't follow the level field and those of compression-only materials count.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.directory.formats import NamedSet
from vkctl.directory.model import Model
from vkctl.stress import integration_points
from vkctl.stress.solution import undeformed

from .reactions import Vector, vector
from .study import WHOLE, AskError

Tensor = tuple[Vector, Vector, Vector]


@dataclass(frozen=True)
class MaterialMass:
    """What is there of a material."""

    material: int
    name: str
    volume: float
    density: float | None  # None where the case file tells none
    mass: float | None


@dataclass(frozen=True)
class Mass:
    """Mass properties of the part or of a set of elements.

    Without all densities there is no mass, and the centre is that of the volume. `inertia` is the
    tensor about the centre of gravity, with Ixy = -(integral of density x y); `principal` its
    values, ascending, and `axes` their directions, a row each.
    """

    set: str
    materials: list[MaterialMass]
    volume: float
    mass: float | None
    centre: Vector | None  # None where there is no material
    inertia: Tensor | None
    principal: Vector | None
    axes: Tensor | None
    notes: list[str]


def mass(model: Model, of_set: NamedSet | None = None) -> Mass:
    """Mass properties of all active elements, or of those of a set; AskError where it has none."""
    shape = undeformed(model)
    numbers = np.flatnonzero(shape.active) + 1
    if of_set is not None:
        numbers = np.intersect1d(numbers, of_set.numbers)
    if not len(numbers):
        raise AskError("no element takes part" + (f" of {of_set.name!r}" if of_set else ""))
    count = len(model.materials)
    densities = _densities(model)
    volumes, moments = np.zeros(count), np.zeros(3)
    reference = shape.nodes.mean(axis=0)  # far from the origin squares would cancel
    squares = np.zeros((3, 3))
    used = distinct(model.elements.materials[numbers - 1]).astype(np.int64)
    known = np.isfinite(densities[used - 1]).all()
    weight_of = densities if known else np.ones(count)
    for block in integration_points(shape, numbers):
        place = model.elements.materials[block.at.numbers - 1].astype(np.int64) - 1
        parts = block.volumes * block.presences
        volumes += np.bincount(place, parts.sum(axis=1), count)
        weights = parts * weight_of[place, None]
        arms = (block.at.positions - reference).reshape(-1, 3)
        flat = weights.ravel()
        moments += flat @ arms
        squares += (arms * flat[:, None]).T @ arms
    found = [_of_material(model, int(number), volumes, densities) for number in used]
    whole = float(volumes @ np.where(np.isfinite(weight_of), weight_of, 0.0))
    notes = [
        f"the case file tells no density of {one.name}: there is no mass, the centre is that of "
        "the volume"
        for one in found
        if one.density is None
    ]
    centre = moments / whole if whole > 0 else None
    tensor = values = axes = None
    if known and centre is not None:
        tensor = _inertia(squares - whole * np.outer(centre, centre))
        values, directions = np.linalg.eigh(tensor)
        axes = directions.T
    return Mass(
        WHOLE if of_set is None else of_set.name,
        found,
        float(volumes.sum()),
        whole if known else None,
        None if centre is None else vector(reference + centre),
        None if tensor is None else _tensor(tensor),
        None if values is None else vector(values),
        None if axes is None else _tensor(axes),
        notes[:1],
    )


def _densities(model: Model) -> Array:
    """Density of each material, NaN where nobody tells it."""
    found = np.full(len(model.materials), np.nan)
    told = () if model.notes is None else model.notes.densities[: len(found)]
    for place, density in enumerate(told):
        if density is not None:
            found[place] = density
    return found


def _of_material(model: Model, number: int, volumes: Array, densities: Array) -> MaterialMass:
    volume, density = float(volumes[number - 1]), float(densities[number - 1])
    name = model.materials[number - 1].name or f"material {number}"
    if not np.isfinite(density):
        return MaterialMass(number, name, volume, None, None)
    return MaterialMass(number, name, volume, density, density * volume)


def _inertia(squares: Array) -> Array:
    """The tensor of second moments (3, 3) of a mass."""
    found: Array = np.eye(3) * np.trace(squares) - squares
    return found


def _tensor(rows: Array) -> Tensor:
    a, b, c = (vector(row) for row in rows)
    return a, b, c
