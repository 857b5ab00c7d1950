"""The optimised part and the body it was meshed as, load case by load case."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Literal

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import place_words
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import Model
from vkctl.directory.results import Results, read_results
from vkctl.directory.sums import without_noise
from vkctl.prepare.build import Prepared
from vkctl.running.run import RunResult
from vkctl.shapes.topology import TET4

from .away import energy_away, single_places
from .body_limits import FINER, LimitCompared, compare_limits
from .limits.aggregates import nodal_forces
from .limits.settings import Limit
from .limits.terms import is_linear
from .wishes.sampling import mean_edge

AWAY = 2.0  # mean edges of the part's mesh from a single node, further than which is away from it
LOCKED = (
    "the part was optimised on 4-node tetrahedra, which are too stiff in bending, whatever its "
    "shape: with order = 2 in [mesh], or smaller elements, the loop's own figure comes closer"
)
_SAME_FORCES = 0.01  # of the largest sum; more is told
_SAME_PLACE = 0.1  # mean edges of the part's mesh, by which forces may act elsewhere

Measure = Literal["compliance", "strain energy"]


class BodyError(Exception):
    """The part can't be verified; `run` is the solver's run that failed, if that was the reason."""

    def __init__(self, text: str, run: RunResult | None = None) -> None:
        super().__init__(text)
        self.run = run


@dataclass(frozen=True)
class Solved:
    """What one load case did to the part or to the body."""

    compliance: float  # work of the nodal forces
    strain_energy: float
    displacement: float  # the largest
    forces: tuple[float, float, float]  # sum of the nodal ones
    moment: tuple[float, float, float]  # of them about the middle of the part's mesh
    pull: float  # sum of their amounts
    away: float | None = None  # strain energy away from single nodes, where something acts on them


@dataclass(frozen=True)
class Compared:
    """A load case of the optimised part and of the body."""

    number: int
    name: str
    part: Solved
    body: Solved
    measure: Measure  # what is compared: strain energy where not forces alone act
    ratio: float  # of the body's to the part's
    away: float | None = None  # the same of the strain energy away from single nodes

    @property
    def judged(self) -> float:
        """The ratio that doesn't depend on how fine the meshes are."""
        return self.ratio if self.away is None else self.away


@dataclass(frozen=True)
class Verified:
    """Part and body, load case by load case."""

    directory: Path
    tolerance: float
    cases: list[Compared]
    part_volume: float  # as the solver counts it
    body_volume: float
    elements: int  # of the body
    notes: list[str] = field(default_factory=list)
    kept: Path | None = None  # the body's directory, where it was to be kept
    distance: float = 0.0  # that counts as away from single nodes
    limits: list[LimitCompared] = field(default_factory=list)  # of the optimisation

    @property
    def within(self) -> bool:
        return all(abs(one.judged - 1) <= self.tolerance for one in self.cases)


def compare(
    directory: Path,
    original: Model,
    folder: Path,
    prepared: Prepared,
    numbers: list[int],
    tolerance: float,
    kept: Path | None,
    limits: tuple[Limit, ...] = (),
    reach: float = 0.0,
) -> Verified:
    """`limits` are looked at on both, stresses further than `reach` from sets if not told else."""
    names, body = case_names(original), prepared.model
    compared, notes, sides = [], list(prepared.notes), {}
    edge = mean_edge(original)
    volumes, distance = (0.0, 0.0), AWAY * edge
    middle = 0.5 * (original.nodes.min(axis=0) + original.nodes.max(axis=0))
    for number in numbers or _requested(original):
        results = sides[number] = (results_of(directory, number), results_of(folder, number))
        part, own = (
            _solved(whole, one, middle)
            for whole, one in zip((original, body), results, strict=True)
        )
        volumes = (results[0].material_volume, results[1].material_volume)
        part, own = _with_energies_away(((original, part), (body, own)), results, distance)
        measure: Measure = "compliance" if is_linear(original, number) else "strain energy"
        ratio, away = _ratio(part, own, measure), None
        if part.away and own.away is not None:
            away = own.away / part.away
        compared.append(Compared(number, names[number - 1], part, own, measure, ratio, away))
        notes += other_forces(titled(number, names), part, own, edge)
    if not compared:
        raise BodyError(f"no load case of {directory} is requested")
    count = len(body.elements)
    found = Verified(directory, tolerance, compared, *volumes, count, notes, kept, distance)
    ours, bodys = (TET4 in whole.elements.type_codes for whole in (original, body))
    if ours and not bodys and not found.within:
        notes.append(LOCKED)
    try:
        found.limits[:] = compare_limits(original, body, limits, reach, sides)
    except ValueError as error:
        notes.append(f"the limits can't be looked at on the body: {error}")
    if not all(one.held for one in found.limits):
        notes.append(FINER)
    return found


def _with_energies_away(
    sides: Sequence[tuple[Model, Solved]], results: Sequence[Results], distance: float
) -> list[Solved]:
    """Of both, away from the part's single nodes, unless around them lies half of the energy."""
    known = [solved for _, solved in sides]
    places = single_places(sides[0][0], results[0].number)
    if not len(places):
        return known
    energies = [
        energy_away(whole, one, places, distance)
        for (whole, _), one in zip(sides, results, strict=True)
    ]
    if energies[0] < 0.5 * results[0].strain_energy:
        return known
    return [replace(one, away=energy) for one, energy in zip(known, energies, strict=True)]


def _requested(original: Model) -> list[int]:
    cases = enumerate(original.load_cases, 1)
    return [number for number, case in cases if formats.is_wanted(case.kind, case.flags)]


def results_of(directory: Path, number: int) -> Results:
    """Of a load case of part or body; BodyError where they can't be judged by."""
    try:
        results = read_results(directory, number)
    except FileNotFoundError:
        raise BodyError(f"load case {number} of {directory} isn't solved") from None
    if results.displacements is None:
        raise BodyError(f"load case {number} of {directory} was solved too poorly")
    if results.element_state is not None:
        raise BodyError(
            f"load case {number} of {directory} has material that yields or carries compression "
            "only, whose state the body doesn't take over"
        )
    return results


def _solved(whole: Model, results: Results, middle: Array) -> Solved:
    forces, moved = nodal_forces(whole, results.number), np.asarray(results.displacements)
    x, y, z = forces.sum(axis=0).tolist()
    around_x, around_y, around_z = np.cross(whole.nodes - middle, forces).sum(axis=0).tolist()
    return Solved(
        float((forces * moved).sum()),
        results.strain_energy,
        float(np.linalg.norm(moved, axis=1).max()),
        (x, y, z),
        (around_x, around_y, around_z),
        float(np.linalg.norm(forces, axis=1).sum()),
    )


def _ratio(part: Solved, body: Solved, measure: Measure) -> float:
    values: Array = np.array(
        [one.compliance if measure == "compliance" else one.strain_energy for one in (part, body)]
    )
    if values[0] == values[1]:
        return 1.0
    return float(values[1] / values[0]) if values[0] else np.inf


def other_forces(title: str, part: Solved, body: Solved, edge: float) -> list[str]:
    """A sentence where a load on the body isn't that on the part, with its mean edge.

    As on a face that is partly gone, or on nodes some of which smoothing has taken elsewhere.
    """
    before, after = np.array(part.forces), np.array(body.forces)
    largest = max(float(np.linalg.norm(one)) for one in (before, after))
    if np.linalg.norm(after - before) > _SAME_FORCES * largest:
        said = [place_words(without_noise(one, largest), 4) for one in (before, after)]
        return [
            f"{title}: the forces on the part add up to {said[0]}, on the body to {said[1]}: they "
            "act on less or more of it"
        ]
    turned = float(np.linalg.norm(np.array(body.moment) - part.moment))
    if turned > _SAME_PLACE * edge * part.pull:
        return [
            f"{title}: the forces on the body have another moment than those on the part, as if "
            f"they acted {turned / part.pull:.3g} beside it: their sets have other nodes there. "
            "Sets that 'keep' names stay where they are"
        ]
    return []
