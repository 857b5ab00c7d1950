"""The table of what was weighed in each step: values, limits, weights."""

from __future__ import annotations

import csv
import math
from collections.abc import Sequence
from dataclasses import astuple, dataclass, fields
from pathlib import Path
from typing import Any

from vkctl.basics.types import PathLike
from vkctl.directory import formats

from .. import history

LIMITS = "limits.csv"  # in the loop's folder
HELD = 1.005  # part of a limit up to which it counts as held
# What reading a damaged table may end with.
UNREADABLE = (ValueError, KeyError, TypeError, AttributeError, csv.Error)


@dataclass(frozen=True)
class Weighed:
    """One term in one step."""

    step: int
    term: str
    value: float  # the largest one, as measured
    at_most: float  # NaN where the term is the energy of a load case
    weight: float  # with which it moved the design
    correction: float = 1.0  # on the power mean that stands for the largest one

    @property
    def ratio(self) -> float:
        return self.value / self.at_most

    @property
    def broken(self) -> bool:
        """Whether it is a limit that isn't held."""
        return math.isfinite(self.at_most) and not self.ratio <= HELD


def ratios_of(rows: list[Weighed], since: int = 1) -> dict[int, list[float]]:
    """Of each step from one on, the ratios of values to their limits, in order.

    Infinite where a value is no number.
    """
    found: dict[int, list[float]] = {}
    for row in rows:
        if row.step >= since and math.isfinite(row.at_most):
            ratio = math.inf if math.isnan(row.ratio) else row.ratio
            found.setdefault(row.step, []).append(ratio)
    return dict(sorted(found.items()))


def write_weighed(directory: PathLike, rows: list[Weighed]) -> None:
    """Replace the table; numbers keep all their digits."""
    write_rows(history.folder_of(directory) / LIMITS, Weighed, rows)


def write_rows(path: Path, kind: type[Any], rows: Sequence[Any]) -> None:
    """Replace a table of a kind of rows: a step, a term, and numbers."""
    with formats.replacing(path) as stream:
        lines = [",".join(field.name for field in fields(kind))]
        for row in rows:
            step, term, *numbers = astuple(row)
            quoted = term.replace('"', '""')
            lines.append(",".join((str(step), f'"{quoted}"', *(repr(float(x)) for x in numbers))))
        stream.write(("\n".join(lines) + "\n").encode())


def read_weighed(directory: PathLike, before: int | None = None) -> list[Weighed]:
    """Rows of the steps before a step, empty if none; FormatError where the table is damaged."""
    path = history.folder_of(directory) / LIMITS
    try:
        rows = [_row(entry) for entry in entries_of(path, Weighed)]
    except UNREADABLE:
        raise formats.FormatError(Path(path), "it is no table of what was weighed") from None
    return [row for row in rows if before is None or row.step < before]


def entries_of(path: Path, kind: type[Any]) -> list[dict[str, str]]:
    """What a table of a kind of rows holds, by the names of its columns; nothing if none is there.

    ValueError for other columns.
    """
    try:
        text = formats.read_regular(path).decode()
    except FileNotFoundError:
        return []
    table = csv.DictReader(text.splitlines())
    if table.fieldnames != [field.name for field in fields(kind)]:
        raise ValueError
    return list(table)


def _row(entry: dict[str, str]) -> Weighed:
    row = Weighed(
        step=int(entry["step"]),
        term=entry["term"],
        value=float(entry["value"]),
        at_most=float(entry["at_most"]),
        weight=float(entry["weight"]),
        correction=float(entry["correction"]),
    )
    if not math.isfinite(row.weight) or not math.isfinite(row.correction) or row.at_most <= 0:
        raise ValueError
    return row
