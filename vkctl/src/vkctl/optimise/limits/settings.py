"""What is limited, from the table [optimise.limits] of a case file."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Literal

from vkctl.basics.words import did_you_mean
from vkctl.prepare.case_file.toml_table import Table

Kind = Literal["displacement", "compliance", "stress"]


@dataclass(frozen=True)
class Limit:
    """The largest value that a design may have, in each load case or in one.

    `displacement`: of the nodes of a set, along `direction` or of whatever direction.
    `compliance`: the work of the nodal forces. `stress`: von Mises stress of the material, further
    than `distance` from the nodes of the sets `away_from`; the radius of smoothing if not given.
    """

    kind: Kind
    at_most: float
    load_case: str | None = None  # each of those that take part
    set: str = ""
    direction: tuple[float, float, float] | None = None  # of unit length
    away_from: tuple[str, ...] = ()
    distance: float | None = None


def read_limits(table: Table | None, names: list[str]) -> tuple[Limit, ...]:
    """Limits of the table; `names` are those of the load cases."""
    if table is None:
        return ()
    found = []
    for kind in ("displacement", "compliance", "stress"):
        for entry in _entries(table, kind):
            found.append(_limit(entry, kind, names))
            entry.done()
    table.done()
    return tuple(found)


def _entries(table: Table, kind: str) -> list[Table]:
    """Tables of a kind: one alone stands for a list of one."""
    if isinstance(table.data.get(kind), dict):
        one = table.table(kind)
        return [one] if one else []
    return table.table_list(kind)


def _limit(entry: Table, kind: Kind, names: list[str]) -> Limit:
    at_most = entry.number("at_most", above=0) or 1.0
    case = _load_case(entry, names)
    if kind == "displacement":
        direction = entry.vector("direction", None, nonzero=True)
        if direction is not None:
            length = math.hypot(*direction)
            direction = (direction[0] / length, direction[1] / length, direction[2] / length)
        return Limit(kind, at_most, case, set=entry.text("set"), direction=direction)
    if kind == "stress":
        away, distance = entry.names("away_from"), entry.number("distance", None, least=0)
        return Limit(kind, at_most, case, away_from=away, distance=distance)
    return Limit(kind, at_most, case)


def _load_case(entry: Table, names: list[str]) -> str | None:
    if not entry.has("load_case"):
        return None
    name = entry.text("load_case")
    if name not in names:
        entry.report.add(
            entry.where("load_case"),
            f"no load case is named {name!r}",
            did_you_mean(name, names),
        )
    return name
