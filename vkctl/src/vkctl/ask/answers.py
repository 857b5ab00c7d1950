"""Whole answers about a directory: values for programs, tables for people."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import asdict, dataclass, field
from typing import Any

from vkctl.basics.types import PathLike

from .extremes import (
    USUAL,
    case_fields,
    envelope,
    envelope_extremes,
    extremes,
    require_field,
    takes_stress,
)
from .reactions import ORIGIN, Vector, reactions
from .study import Region, Study, open_study, regions, solutions, whole_part
from .tables import Table
from .told import envelope_node_table, envelope_table, extreme_table, reaction_table


@dataclass(frozen=True)
class Wanted:
    """What is asked for beside the question; each question takes what concerns it."""

    cases: tuple[int | str, ...] = ()  # all solved ones if empty
    sets: tuple[str, ...] = ()
    fields: tuple[str, ...] = ()
    about: Vector = ORIGIN
    every_node: bool = False


@dataclass
class Answer:
    """`values` are plain; `remarks` are sentences on load cases."""

    values: dict[str, Any]
    tables: list[Table] = field(default_factory=list)
    remarks: tuple[str, ...] = ()


def answer(directory: PathLike, question: str, wanted: Wanted) -> Answer:
    """The answer to one of `QUESTIONS`; AskError where there is none."""
    study = open_study(directory, wanted.cases)
    found = QUESTIONS[question](study, wanted)
    found.values["units"] = None if study.units is None else asdict(study.units)
    found.remarks = study.remarks
    found.values["remarks"] = list(study.remarks)
    return found


def _reactions(study: Study, wanted: Wanted) -> Answer:
    sets = regions(study.model, wanted.sets) if wanted.sets else []
    found = [reactions(study.model, case, wanted.about, sets) for case in solutions(study)]
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


QUESTIONS: dict[str, Callable[[Study, Wanted], Answer]] = {
    "overview": _overview,
    "reactions": _reactions,
    "extremes": _extremes,
    "envelope": _envelope,
}
