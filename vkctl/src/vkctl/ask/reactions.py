"""Reactions at supports and their balance against the loads.

A support's force is what it puts on the part: at components that are held, the forces of the
elements and springs there less the load, R = F_int(u) - F; at elastic supports k (u0 - u) along
each axis. Elements are integrated as the solver does it, from the displacements that it left.
"""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import place_words
from vkctl.directory import formats
from vkctl.directory.formats.options_file import OPTIONS
from vkctl.directory.model import Model
from vkctl.directory.numbering import prescribed_rows
from vkctl.stress.forces import elements_at, internal_forces

from .study import Region, Solved, active_nodes, require_nodes
from .supports import Holder, holders

Vector = tuple[float, float, float]
ORIGIN: Vector = (0.0, 0.0, 0.0)


@dataclass(frozen=True)
class Resultant:
    """A force, and its moment about a point that is named beside it."""

    force: Vector
    moment: Vector


@dataclass(frozen=True)
class Reaction:
    """What a support, or its part at one set, puts on the part."""

    support: str
    kind: str
    set: str  # empty where the support isn't divided
    nodes: int
    resultant: Resultant


@dataclass(frozen=True)
class Reactions:
    """Reactions of one load case. `left` is what loads and reactions leave over.

    Relative values refer to the sum of the magnitudes of all nodal loads and reactions, and of
    their moments.
    """

    load_case: int
    name: str
    about: Vector
    supports: list[Reaction]
    of_sets: list[Reaction]  # the same forces by where they act, for the sets that were asked for
    loads: Resultant
    total: Resultant  # of the supports
    left: Resultant
    relative_force: float
    relative_moment: float
    notes: list[str]  # sentences on loads that reach nothing


def reactions(
    model: Model, case: Solved, about: Iterable[float] = ORIGIN, sets: Sequence[Region] = ()
) -> Reactions:
    """Reactions of a load case, moments about a point; of all supports, and at sets of nodes."""
    centre = np.array(tuple(about), np.float64)
    nodal = nodal_forces(model, case)
    arms = model.nodes - centre

    def told(name: str, kind: str, of_set: str, held: Array) -> Reaction:
        nodes = nodal.nodes[held]
        acting = resultant(nodal.forces[held], arms[nodes])
        return Reaction(name, kind, of_set, len(distinct(nodes)), acting)

    found = [
        told(holder.name, holder.kind, holder.set, np.isin(nodal.rows, holder.rows))
        for holder in nodal.holders
    ]
    of_sets = [told(r.name, "set", "", np.isin(nodal.nodes + 1, r.nodes)) for r in sets]
    at_supports = resultant(nodal.forces, arms[nodal.nodes])
    loaded = np.flatnonzero(nodal.loads.any(axis=1))
    loads = resultant(nodal.loads[loaded], arms[loaded])
    left = added(at_supports, loads)
    forces = np.concatenate((nodal.forces, nodal.loads[loaded]))
    moments = np.cross(np.concatenate((arms[nodal.nodes], arms[loaded])), forces)
    return Reactions(
        case.number,
        case.name,
        vector(centre),
        found,
        of_sets,
        loads,
        at_supports,
        left,
        share(left.force, forces),
        share(left.moment, moments),
        nodal.notes,
    )


@dataclass(frozen=True)
class NodalForces:
    """Forces of supports, one a held component or spring, and loads at all nodes."""

    holders: list[Holder]
    rows: Array  # (k,) positions in the constraints
    nodes: Array  # (k,) from 0
    forces: Array  # (k, 3)
    loads: Array  # (n, 3)
    notes: list[str]


def nodal_forces(model: Model, case: Solved) -> NodalForces:
    """What supports and loads put on each node of a load case."""
    load_case = model.load_cases[case.number - 1]
    records = load_case.constraints
    require_nodes(model, case.number, records, "a support")
    active = active_nodes(model)
    loads, notes = applied_forces(model, case.number, active)
    spring_rows, spring_nodes, spring_forces = _springs(model, case, records, active)
    held_rows, held_nodes, directions = _held(records, active)
    touched = np.zeros(len(model.nodes), np.bool_)
    touched[held_nodes] = True
    # What must hold each node: its elements, less springs and loads.
    needed = internal_forces(case.solution, elements_at(case.solution, touched)) - loads
    np.add.at(needed, spring_nodes, -spring_forces)
    forces = np.zeros((len(held_rows), 3))
    forces[np.arange(len(held_rows)), directions] = needed[held_nodes, directions]
    return NodalForces(
        holders(model, case.number),
        np.concatenate((held_rows, spring_rows)),
        np.concatenate((held_nodes, spring_nodes)),
        np.concatenate((forces, spring_forces)),
        loads,
        notes,
    )


def applied_forces(model: Model, number: int, active: Array) -> tuple[Array, list[str]]:
    """Nodal loads (n, 3) as the solver applies them, and sentences on those that it doesn't."""
    assert model.node_flags is not None
    load_case = model.load_cases[number - 1]
    records = np.concatenate((load_case.forces2, load_case.forces3))
    require_nodes(model, number, records, "a load")
    place = records["Node"].astype(np.int64) - 1
    forces = records["Force"].astype(np.float64)
    marked = model.node_flags[place] & formats.NODE_NO_LOADS != 0
    lost = ~marked & ~active[place]
    notes = []
    for mask, why in (
        (marked, "at nodes marked to take no loads, and are left out"),
        (lost, "at nodes of no element, and reach nothing"),
    ):
        total = forces[mask].sum(axis=0)
        if forces[mask].any():
            notes.append(f"loads of {place_words(total)} lie {why}")
    loads = np.zeros((len(model.nodes), 3))
    taken = ~marked & ~lost
    np.add.at(loads, place[taken], forces[taken])
    return loads, notes


def _springs(
    model: Model, case: Solved, records: Array, active: Array
) -> tuple[Array, Array, Array]:
    """Springs of the elastic supports: rows, nodes (from 0), their forces on the part (k, 3)."""
    option = OPTIONS["Sta.SupportStiffness"]
    stiffness = option.taken(model.options.get("Sta.SupportStiffness", option.default))
    place = records["Node"].astype(np.int64) - 1
    rows = np.flatnonzero((records["Kind"] & formats.CONSTRAINT_PENALTY != 0) & active[place])
    nodes = place[rows]
    axes = records["Axis"][rows].astype(np.float64)
    acting = records["DofMask"][rows][:, None] >> np.arange(3) & 1 == 1
    along = np.einsum("kai,ki->ka", axes, case.solution.displacements[nodes])
    stretch = np.where(acting, along - records["Value"][rows], 0.0)
    return rows, nodes, -stiffness * np.einsum("ka,kai->ki", stretch, axes)


def _held(records: Array, active: Array) -> tuple[Array, Array, Array]:
    """Prescribed components of active nodes: rows, nodes, directions, from 0, each once."""
    rows, nodes, directions = prescribed_rows(records)
    owner = np.full((len(active), 3), -1)
    owner[nodes, directions] = rows  # of two records the later one holds
    nodes, directions = np.nonzero((owner >= 0) & active[:, None])
    return owner[nodes, directions], nodes, directions


def resultant(forces: Array, arms: Array) -> Resultant:
    """Sum of forces (k, 3), and of their moments at arms (k, 3)."""
    return Resultant(
        vector(forces.sum(axis=0)), vector(np.cross(arms, forces).reshape(-1, 3).sum(axis=0))
    )


def vector(values: Array) -> Vector:
    x, y, z = values.tolist()
    return x, y, z


def added(first: Resultant, *others: Resultant) -> Resultant:
    """Sum of resultants about the same point."""
    every = (first, *others)
    return Resultant(
        vector(np.array([one.force for one in every]).sum(axis=0)),
        vector(np.array([one.moment for one in every]).sum(axis=0)),
    )


def share(left: Vector, parts: Array) -> float:
    """Length of what is left over the sum of the lengths; 0 where there is nothing."""
    whole = float(np.linalg.norm(parts, axis=1).sum())
    return float(np.linalg.norm(left)) / whole if whole else 0.0
