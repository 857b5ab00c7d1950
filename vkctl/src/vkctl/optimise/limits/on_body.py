"""What the limits come to on the part's body, step by step, and the table of it."""

from __future__ import annotations

import math
from dataclasses import dataclass

from vkctl.basics.types import PathLike
from vkctl.basics.words import place_words
from vkctl.directory import formats

from .. import history
from .table import HELD, UNREADABLE, entries_of, write_rows

TABLE = "body.csv"  # in the loop's folder


@dataclass(frozen=True)
class OnBody:
    """One limit on the body of one step's part."""

    step: int
    term: str
    value: float
    at_most: float
    x: float  # where a stress is the largest; no numbers of other limits
    y: float
    z: float

    @property
    def ratio(self) -> float:
        """Infinite where the value is no number."""
        ratio = self.value / self.at_most
        return math.inf if math.isnan(ratio) else ratio

    @property
    def held(self) -> bool:
        return self.ratio <= HELD

    def told(self) -> str:
        text = f"as a body, {self.term}: {self.value:.4g} of at most {self.at_most:g}"
        if self.held:
            return text
        at = "" if math.isnan(self.x) else f" at {place_words((self.x, self.y, self.z), 4)}"
        return f"{text}{at}: the limit isn't met"


def write_on_body(directory: PathLike, rows: list[OnBody]) -> None:
    """Replace the table; numbers keep all their digits."""
    write_rows(history.folder_of(directory) / TABLE, OnBody, rows)


def read_on_body(directory: PathLike, since: int, before: int) -> list[OnBody]:
    """Rows of some steps, empty if none; FormatError where the table is damaged."""
    path = history.folder_of(directory) / TABLE
    try:
        rows = [_row(entry) for entry in entries_of(path, OnBody)]
    except UNREADABLE:
        raise formats.FormatError(path, "it is no table of limits on a body") from None
    return [row for row in rows if since <= row.step < before]


def _row(entry: dict[str, str]) -> OnBody:
    numbers = {name: float(entry[name]) for name in ("value", "at_most", "x", "y", "z")}
    if not 0 < numbers["at_most"] < math.inf:
        raise ValueError
    return OnBody(step=int(entry["step"]), term=entry["term"], **numbers)
