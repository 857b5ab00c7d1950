"""The values that a study reports, from a solved working directory."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field
from functools import cached_property

import numpy as np

from vkctl import ask, stress
from vkctl.ask.extremes import FIELDS as FIELDS
from vkctl.basics.types import Array, PathLike
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.formats import is_wanted
from vkctl.directory.model import Model, read
from vkctl.directory.results import Results, read_results

from .entries import Wanted

LOADS = ("applied_load_x", "applied_load_y", "applied_load_z")
OF_LOAD_CASES = (
    *("strain_energy", "max_displacement", "material_volume", "stress_norm", "quality"),
    *LOADS,
    "safety",
)
OF_RUN = ("mass", "nodes", "elements", "solver_seconds", "memory_gb")
OF_OPTIMISATION = ("objective", "part_volume", "steps", "converged")
SMALLEST_COUNTS = ("safety", "quality")  # of several load cases

Values = dict[str, float | None]


class UnknownValueError(ValueError):
    """A value that this variant doesn't have; says why."""


@dataclass
class _Case:
    """One solved load case; its stresses are recovered when somebody asks for them."""

    model: Model
    name: str
    results: Results

    @cached_property
    def solution(self) -> stress.Solution:
        return stress.solution_of(self.model, self.results)

    @cached_property
    def fields(self) -> ask.CaseFields:
        solved = ask.Solved(self.results.number, self.name, self.results, self.solution)
        return ask.case_fields(self.model, solved)

    def region(self, name: str | None) -> ask.Region:
        found = ask.regions(self.model, () if name is None else (name,))
        return found[0]  # the whole part comes first


@dataclass
class Told:
    """What a result has been found to be, load case by load case."""

    wanted: Wanted
    found: dict[str, float] = field(default_factory=dict)  # by name of load case
    mistake: str = ""

    def of(self, load_cases: Iterable[str]) -> float | None:
        values = [self.found[name] for name in load_cases if name in self.found]
        if not values:
            return None
        if self.wanted.over == "sum":
            return sum(values)
        return max(values) if self.wanted.over == "largest" else min(values)


def measure(
    directory: PathLike, run: Values, wanted: Sequence[Wanted], columns: Sequence[str]
) -> tuple[Values, list[str]]:
    """Values by column, and sentences on those that can't be told, which are None.

    `run` has what is known of the whole run. Load cases are looked at one after the other, so that
    only one is in memory.
    """
    model = read(directory)
    names = case_names(model)
    told = [Told(one) for one in wanted]
    solved = [n for n, c in enumerate(model.load_cases, 1) if is_wanted(c.kind, c.flags)]
    for number in solved:
        case = _Case(model, names[number - 1], read_results(directory, number))
        for one in told:
            _look(one, case, columns)
    values: Values = dict.fromkeys(columns)
    for one in told:
        values |= _columns(one, model, run, columns)
    return values, [f"{one.wanted.name}: {one.mistake}" for one in told if one.mistake]


def _look(told: Told, case: _Case, columns: Sequence[str]) -> None:
    """Take what the load case has of a result."""
    wanted = told.wanted
    is_each = wanted.name not in columns
    is_other = wanted.load_case not in (None, case.name) and not is_each
    if told.mistake or is_other or wanted.value not in (*FIELDS, *OF_LOAD_CASES):
        return
    try:
        told.found[case.name] = _of_case(wanted, case)
    except ValueError as error:
        told.mistake = str(error)


def _columns(told: Told, model: Model, run: Values, columns: Sequence[str]) -> Values:
    """The columns that a result fills."""
    wanted = told.wanted
    sizes = {"nodes": len(model.nodes), "elements": len(model.elements)}
    if wanted.value in sizes:
        return {wanted.name: sizes[wanted.value]}
    if wanted.value == "mass":
        found = ask.mass(model).mass
        told.mistake = "a material has no density" if found is None else ""
        return {wanted.name: found}
    if wanted.value in (*OF_RUN, *OF_OPTIMISATION):
        return {wanted.name: run.get(wanted.value)}
    if wanted.name not in columns:  # a column for each
        each = {f"{wanted.name}.{name}": value for name, value in told.found.items()}
        return {column: value for column, value in each.items() if column in columns}
    if not told.found and not told.mistake:
        told.mistake = f"there is no load case {wanted.load_case!r}"
    return {wanted.name: None if told.mistake else told.of(told.found)}


def _of_case(wanted: Wanted, case: _Case) -> float:
    if wanted.value in FIELDS:
        return _of_field(wanted, case)
    if wanted.value == "safety":
        assert case.fields.stress is not None
        nodes = case.region(wanted.set).nodes
        least = [one.factor for one in stress.safety(case.model, case.fields.stress, nodes)]
        if not least:
            raise UnknownValueError("no isotropic material there has a yield_stress")
        return min(least)
    if wanted.value in LOADS:
        return case.results.applied_load[LOADS.index(wanted.value)]
    return float(getattr(case.results, wanted.value))


def _of_field(wanted: Wanted, case: _Case) -> float:
    region = case.region(wanted.set)
    values: Array = ask.values_in(case.model, case.fields, region, wanted.value)
    if not len(values):
        title = titled(case.results.number, [case.name] * case.results.number)
        raise UnknownValueError(f"{title} has no node of {region.name} with a value")
    if wanted.take == "percentile":
        return float(np.percentile(values, wanted.percentile))
    return float(getattr(values, wanted.take)())
