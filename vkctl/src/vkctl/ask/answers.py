"""Whole answers about a directory: values for programs, tables for people."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import asdict, dataclass, field
from typing import Any

import numpy as np

from vkctl.basics.types import Array, PathLike

from .cut import cut
from .extremes import (
    USUAL,
    case_fields,
    envelope,
    envelope_extremes,
    extremes,
    require_field,
    takes_stress,
)
from .mass import mass
from .reactions import ORIGIN, Vector, reactions
from .study import (
    AskError,
    Region,
    Study,
    find_elements,
    open_study,
    regions,
    solutions,
    whole_part,
)
from .tables import Table
from .told import envelope_node_table, envelope_table, extreme_table, reaction_table
from .told_places import cut_table, mass_table, value_table
from .values import AT_POINTS, find_spots, line_points, values_at, why_nothing


@dataclass(frozen=True)
class Wanted:
    """What is asked for beside the question; `TAKEN` tells what each question has a use for."""

    cases: tuple[int | str, ...] = ()  # all solved ones if empty
    sets: tuple[str, ...] = ()
    fields: tuple[str, ...] = ()
    about: Vector | None = None
    every_node: bool = False
    at: tuple[Vector, ...] = ()
    normal: Vector | None = None
    start: Vector | None = None
    end: Vector | None = None
    points: int | None = None  # of a line; 11 if not given


# Options of the command by what they set.
OPTIONS = {
    "cases": "--case",
    "sets": "--set",
    "fields": "--field",
    "about": "--about",
    "every_node": "--nodes",
    "at": "--at",
    "normal": "--normal",
    "start": "--from",
    "end": "--to",
    "points": "--points",
}


@dataclass
class Answer:
    """`values` are plain; `remarks` are sentences on load cases."""

    values: dict[str, Any]
    tables: list[Table] = field(default_factory=list)
    remarks: tuple[str, ...] = ()


def answer(directory: PathLike, question: str, wanted: Wanted) -> Answer:
    """The answer to one of `QUESTIONS`; AskError where there is none."""
    for name, option in OPTIONS.items():
        given = getattr(wanted, name) != getattr(Wanted(), name)
        if given and name not in TAKEN[question]:
            raise AskError(f"{question} has no use for {option}")
    study = open_study(directory, wanted.cases)
    found = QUESTIONS[question](study, wanted)
    found.values["units"] = None if study.units is None else asdict(study.units)
    found.remarks = study.remarks if "cases" in TAKEN[question] else ()
    found.values["remarks"] = list(found.remarks)
    return found


def _reactions(study: Study, wanted: Wanted) -> Answer:
    sets = regions(study.model, wanted.sets) if wanted.sets else []
    about = wanted.about or ORIGIN
    found = [reactions(study.model, case, about, sets) for case in solutions(study)]
    values = {"reactions": [asdict(one) for one in found]}
    return Answer(values, [reaction_table(found, study.units)])


def _extremes(study: Study, wanted: Wanted) -> Answer:
    return _extremes_in(study, wanted, regions(study.model, wanted.sets))


def _extremes_in(study: Study, wanted: Wanted, sets: list[Region]) -> Answer:
    names = wanted.fields or USUAL
    for name in names:
        require_field(name)
    stressed = takes_stress(names)
    found = []
    for case in solutions(study):
        fields = case_fields(study.model, case, stressed)
        found += extremes(study.model, fields, sets, names)
    table = extreme_table(found, study.units, study.model, "extremes at nodes")
    return Answer({"extremes": [asdict(one) for one in found]}, [table])


def _envelope(study: Study, wanted: Wanted) -> Answer:
    made = Answer({"envelopes": []})
    sets = regions(study.model, wanted.sets)
    names = wanted.fields or ("von_mises",)
    for name in names:
        require_field(name)
    for name in names:
        stressed = takes_stress((name,))
        cases = (case_fields(study.model, case, stressed) for case in solutions(study))
        over = envelope(study.model, cases, name)
        found = envelope_extremes(study.model, over, sets)
        told = {"field": name, "load_cases": list(over.load_cases)}
        made.values["envelopes"].append({**told, "extremes": [asdict(one) for one in found]})
        if wanted.every_node:
            made.tables.append(envelope_node_table(study.model, over, study.units))
        else:
            made.tables.append(envelope_table(found, study.units, study.model, over))
    return made


def _overview(study: Study, wanted: Wanted) -> Answer:
    made = Answer({})
    sets = regions(study.model, wanted.sets) if wanted.sets else [whole_part(study.model)]
    for part in (_reactions(study, wanted), _extremes_in(study, wanted, sets)):
        made.values |= part.values
        made.tables += part.tables
    return made


def _cut(study: Study, wanted: Wanted) -> Answer:
    if len(wanted.at) != 1 or wanted.normal is None:
        raise AskError("cut takes one point of the plane by --at and its direction by --normal")
    if len(wanted.sets) > 1:
        raise AskError("cut takes one set of elements")
    of_set = find_elements(study.model, wanted.sets[0]) if wanted.sets else None
    plane = wanted.at[0], wanted.normal, wanted.about, of_set
    found = [cut(study.model, case, *plane) for case in solutions(study)]
    return Answer({"cuts": [asdict(one) for one in found]}, [cut_table(found, study.units)])


def _point(study: Study, wanted: Wanted) -> Answer:
    if not wanted.at:
        raise AskError("point takes one or more points by --at")
    return _values(study, wanted, np.array(wanted.at), None)


def _line(study: Study, wanted: Wanted) -> Answer:
    if wanted.start is None or wanted.end is None:
        raise AskError("line takes its ends by --from and --to")
    count = _LINE_POINTS if wanted.points is None else wanted.points
    points = line_points(wanted.start, wanted.end, count)
    return _values(study, wanted, points, np.linalg.norm(points - points[0], axis=1))


def _values(study: Study, wanted: Wanted, points: Array, distances: Array | None) -> Answer:
    names = wanted.fields or AT_POINTS
    for name in names:
        require_field(name)
    model = study.model
    spots = find_spots(model, points)
    lost = np.flatnonzero(spots.elements == 0)
    if len(lost) and (distances is None or len(lost) == len(points)):
        raise AskError(why_nothing(model, spots, int(lost[0])))
    stressed = takes_stress(names)
    found = [
        (case.number, case.name, values_at(model, case_fields(model, case, stressed), spots, names))
        for case in solutions(study)
    ]
    table = value_table(points, spots.elements, found, names, study.units, distances)
    if len(lost):
        text = f"{len(lost)} of {len(points)} points have no values: "
        table.notes.append(text + why_nothing(model, spots, int(lost[0])))
    told = {
        "points": points.tolist(),
        "elements": [int(number) or None for number in spots.elements],
        "fields": list(names),
        "values": [
            {"load_case": number, "name": name, "values": values.tolist()}
            for number, name, values in found
        ],
    }
    return Answer(told | _distances(distances), [table])


def _distances(distances: Array | None) -> dict[str, Any]:
    return {} if distances is None else {"distances": distances.tolist()}


def _mass(study: Study, wanted: Wanted) -> Answer:
    model = study.model
    found = [mass(model, find_elements(model, name)) for name in wanted.sets] or [mass(model)]
    return Answer({"mass": [asdict(one) for one in found]}, [mass_table(found, study.units)])


_LINE_POINTS = 11

QUESTIONS: dict[str, Callable[[Study, Wanted], Answer]] = {
    "overview": _overview,
    "reactions": _reactions,
    "extremes": _extremes,
    "envelope": _envelope,
    "cut": _cut,
    "point": _point,
    "line": _line,
    "mass": _mass,
}
TAKEN: dict[str, tuple[str, ...]] = {
    "overview": ("cases", "sets", "fields", "about"),
    "reactions": ("cases", "sets", "about"),
    "extremes": ("cases", "sets", "fields"),
    "envelope": ("cases", "sets", "fields", "every_node"),
    "cut": ("cases", "sets", "about", "at", "normal"),
    "point": ("cases", "fields", "at"),
    "line": ("cases", "fields", "start", "end", "points"),
    "mass": ("sets",),
}
