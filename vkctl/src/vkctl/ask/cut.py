"""Forces and moments that a plane cuts free, from the nodal forces of the elements it cuts.

Nodes at the plane or on the side that the normal points away from lie behind it, others beyond.
An element with nodes on both sides is cut. The elements behind balance by themselves, each one's
forces at its nodes: what the part beyond puts on the part behind is the sum of the forces that
the cut elements have at their nodes beyond. It balances all loads and reactions at nodes behind,
which the answer tells beside it. A load that is spread over elements stands at their nodes, so
that along a cut element the section force is constant and steps at its nodes.
"""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.formats import NamedSet
from vkctl.directory.model import Model
from vkctl.stress import Solution
from vkctl.stress.forces import element_forces, elements_at

from .reactions import (
    NodalForces,
    Resultant,
    Vector,
    added,
    nodal_forces,
    resultant,
    share,
    vector,
)
from .section import section
from .study import AskError, Solved, rows_of

_AT = 1e-6  # of the part's extent, within which a node lies at the plane


@dataclass(frozen=True)
class Behind:
    """What balances a cut: loads and supports at nodes behind it, and what they leave over.

    Relative values as in `Reactions`, of the nodes behind and the cut.
    """

    loads: Resultant
    supports: Resultant
    left: Resultant
    relative_force: float
    relative_moment: float


@dataclass(frozen=True)
class Cut:
    """What the part beyond a plane puts on the part behind it, in one load case."""

    load_case: int
    name: str
    point: Vector
    normal: Vector  # of length 1
    set: str  # empty for all elements
    elements: int  # that are cut
    area: float  # of the section through the material
    centre: Vector | None  # of it; None where there is no material
    about: Vector  # of moments: the centre, or the point, unless another was asked for
    resultant: Resultant
    axial: float  # along the normal: tension is positive
    shear: float
    torsion: float  # about the normal
    bending: float
    behind: Behind | None  # None for a set: other elements carry their share
    beside: float  # sum of the magnitudes of loads at nodes of cut elements


def cut(
    model: Model,
    case: Solved,
    point: Iterable[float],
    normal: Iterable[float],
    about: Iterable[float] | None = None,
    of_set: NamedSet | None = None,
) -> Cut:
    """Section forces of a plane, through all elements or those of a set.

    AskError where it cuts none.
    """
    at, axis = np.array(tuple(point), np.float64), _unit(normal)
    distances = _distances(case.solution, at, axis)
    numbers = _cut_elements(case.solution, distances, of_set)
    face = section(case.solution, numbers, distances)
    centre = at if face.area <= 0 else face.centre
    if about is not None:
        centre = np.array(tuple(about), np.float64)
    nodes, forces = _forces_beyond(case.solution, numbers, distances)
    acting = resultant(forces, model.nodes[nodes] - centre)
    balance = nodal_forces(model, case)
    behind = None
    if of_set is None:
        behind = _behind(model, balance, distances <= 0, centre, acting, (nodes, forces))
    axial, shear = _split(acting.force, axis)
    torsion, bending = _split(acting.moment, axis)
    return Cut(
        case.number,
        case.name,
        vector(at),
        vector(axis),
        "" if of_set is None else of_set.name,
        len(numbers),
        face.area,
        vector(face.centre) if face.area > 0 else None,
        vector(centre),
        acting,
        axial,
        shear,
        torsion,
        bending,
        behind,
        _beside(case.solution, numbers, balance.loads),
    )


def _unit(normal: Iterable[float]) -> Array:
    axis = np.array(tuple(normal), np.float64)
    length = float(np.linalg.norm(axis))
    if not length > 0:
        raise AskError("the normal of a plane can't be (0, 0, 0)")
    unit: Array = axis / length
    return unit


def _distances(solution: Solution, point: Array, axis: Array) -> Array:
    """Distance (n,) of each node from the plane, positive beyond; 0 where it lies at it."""
    found = (solution.nodes - point) @ axis
    extent = float(np.ptp(solution.nodes, axis=0).max(initial=0.0))
    found[np.abs(found) <= _AT * extent] = 0.0
    return found


def _cut_elements(solution: Solution, distances: Array, of_set: NamedSet | None) -> Array:
    """Numbers of the active elements with nodes on both sides."""
    beyond = elements_at(solution, distances > 0)
    numbers = np.intersect1d(beyond, elements_at(solution, distances <= 0), assume_unique=True)
    if of_set is not None:
        numbers = np.intersect1d(numbers, of_set.numbers)
    if not len(numbers):
        whose = f" of the set {of_set.name!r}" if of_set is not None else ""
        raise AskError(f"the plane cuts no element{whose}: there are none with nodes on both sides")
    return numbers


def _forces_beyond(solution: Solution, numbers: Array, distances: Array) -> tuple[Array, Array]:
    """Forces that elements have at their nodes beyond the plane: nodes from 0, forces (k, 3)."""
    nodes, forces = [], []
    for block in element_forces(solution, numbers):
        beyond = distances[block.rows - 1] > 0
        nodes.append(block.rows[beyond].astype(np.int64) - 1)
        forces.append(block.forces[beyond])
    return np.concatenate(nodes), np.concatenate(forces)


def _behind(
    model: Model,
    balance: NodalForces,
    behind: Array,
    centre: Array,
    acting: Resultant,
    beyond: tuple[Array, Array],
) -> Behind:
    held = behind[balance.nodes]
    loaded = np.flatnonzero(behind & balance.loads.any(axis=1))
    supports = balance.nodes[held], balance.forces[held]
    loads = loaded, balance.loads[loaded]
    of_supports, of_loads = (
        resultant(forces, model.nodes[nodes] - centre) for nodes, forces in (supports, loads)
    )
    left = added(acting, of_supports, of_loads)
    every = [np.concatenate(parts) for parts in zip(beyond, supports, loads, strict=True)]
    moments = np.cross(model.nodes[every[0]] - centre, every[1])
    return Behind(
        of_loads, of_supports, left, share(left.force, every[1]), share(left.moment, moments)
    )


def _split(of: Vector, axis: Array) -> tuple[float, float]:
    """The component along an axis, and the length of what is across."""
    along = float(np.dot(of, axis))
    return along, float(np.linalg.norm(np.array(of) - along * axis))


def _beside(solution: Solution, numbers: Array, loads: Array) -> float:
    touched = np.zeros(len(solution.nodes), np.bool_)
    for rows in rows_of(solution.elements, numbers):
        touched[rows.ravel() - 1] = True
    return float(np.linalg.norm(loads[touched], axis=1).sum())
