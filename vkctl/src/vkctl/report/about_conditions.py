"""What a report says of supports and loads, by the names of the case file."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.ask.tables import Cell
from vkctl.basics.types import Array
from vkctl.directory.formats import CaseNotes, Condition
from vkctl.directory.model import Model

from .marks import springs
from .markup import section, table

_HEADS = ("name", "kind", "sets")


def about_conditions(model: Model, titles: Sequence[str]) -> str:
    """The section on what holds the part and what pulls at it; `titles` of all load cases."""
    notes = model.notes
    pieces = [_counts(model, titles, notes)]
    if notes is not None:
        pieces.append(table("Supports", _HEADS, _conditions(notes.supports)))
        pieces.append(table("Loads", _HEADS, _conditions(notes.loads)))
    return section("conditions", "Supports and loads", *pieces)


def _conditions(named: dict[str, Condition]) -> list[tuple[Cell, ...]]:
    return [
        (name, said.kind, ", ".join(said.sets) or "the whole part") for name, said in named.items()
    ]


def _counts(model: Model, titles: Sequence[str], notes: CaseNotes | None) -> str:
    heads = ["load case", "held nodes", "nodes on springs", "loaded nodes"]
    heads += ["nodes with a temperature", "temperatures"]
    known = notes.load_cases if notes and len(notes.load_cases) == len(titles) else ()
    rows = []
    for number, (title, case) in enumerate(zip(titles, model.load_cases, strict=True)):
        loaded = np.union1d(case.forces2["Node"], case.forces3["Node"])
        on_spring = springs(case)
        held, sprung = (case.constraints["Node"][mask] for mask in (~on_spring, on_spring))
        row: list[Cell] = [title, len(np.unique(held)), len(np.unique(sprung)), len(loaded)]
        row += [len(case.scalars), _range(case.scalars["Value"])]
        if known:
            row += [", ".join(known[number].supports), _loads(known[number].loads)]
        rows.append(row)
    if known:
        heads += ["supports", "loads"]
    return table("Load cases", heads, rows)


def _range(values: Array) -> str:
    if not len(values):
        return ""
    low, high = values.min(), values.max()
    return f"{low:.5g}" if low == high else f"{low:.5g} to {high:.5g}"


def _loads(factors: dict[str, float]) -> str:
    return ", ".join(
        name if factor == 1 else f"{factor:.4g} × {name}" for name, factor in factors.items()
    )
