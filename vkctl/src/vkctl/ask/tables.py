"""Answers as tables: for people, for spreadsheets."""

from __future__ import annotations

import csv
import io
import math
from dataclasses import dataclass, field

from vkctl.basics.words import printable

Cell = str | int | float | None
_DIGITS = 6  # of the largest number of a column
_SMALL = 1e-4  # of it: a row with nothing but less has digits of its own


@dataclass(frozen=True)
class Column:
    """A column's heading, its unit where the model has units, and the scale it shares."""

    title: str
    unit: str = ""
    scale: str = ""  # columns of the same scale show the same decimals
    digits: int = 4  # of numbers in a column without a scale

    @property
    def heading(self) -> str:
        return f"{self.title} [{self.unit}]" if self.unit else self.title


@dataclass
class Table:
    """Rows of cells under columns; `sections` tells what rows begin under a heading of its own.

    The cells that a section's heading tells are in `hidden` columns, which a spreadsheet shows.
    """

    title: str
    columns: list[Column]
    rows: list[tuple[Cell, ...]] = field(default_factory=list)
    hidden: int = 0  # columns, from the first, that the headings tell
    headings: dict[int, str] = field(default_factory=dict)  # by the row that comes below
    notes: list[str] = field(default_factory=list)


def as_csv(table: Table) -> str:
    """A heading line and the rows, numbers in full."""
    out = io.StringIO()
    writer = csv.writer(out, lineterminator="\n")
    writer.writerow([column.heading for column in table.columns])
    writer.writerows([["" if cell is None else cell for cell in row] for row in table.rows])
    return out.getvalue()


def as_lines(table: Table) -> list[str]:
    """The table for a terminal, notes below it."""
    shown = table.columns[table.hidden :]
    texts = cell_texts(table)
    heads = [printable(column.heading) for column in shown]
    widths = [max(map(len, column)) for column in zip(heads, *texts, strict=True)]
    left = [
        any(isinstance(row[table.hidden + k], str) for row in table.rows) for k in range(len(shown))
    ]

    def line(cells: list[str]) -> str:
        parts = [
            cell.ljust(width) if side else cell.rjust(width)
            for cell, width, side in zip(cells, widths, left, strict=True)
        ]
        return "  ".join(parts).rstrip()

    lines = [table.title] if table.title else []
    if table.rows:
        lines.append(line(heads))
    for number, cells in enumerate(texts):
        if number in table.headings:
            lines.append(printable(table.headings[number]))
        lines.append(line(cells))
    return lines + [printable(note) for note in table.notes]


def cell_texts(table: Table) -> list[list[str]]:
    """Cells as texts, of the columns that are shown."""
    shown = table.columns[table.hidden :]
    rows = [row[table.hidden :] for row in table.rows]
    largest: dict[str, float] = {}
    for row in rows:
        for column, cell in zip(shown, row, strict=True):
            if column.scale and isinstance(cell, float) and math.isfinite(cell):
                largest[column.scale] = max(largest.get(column.scale, 0.0), abs(cell))
    return [
        [
            _text(cell, _own_scale(column, row, shown, largest), column.digits)
            for column, cell in zip(shown, row, strict=True)
        ]
        for row in rows
    ]


def _own_scale(
    column: Column, row: tuple[Cell, ...], shown: list[Column], largest: dict[str, float]
) -> float | None:
    """The number that a cell's decimals follow from; None where it stands by itself."""
    if not column.scale or column.scale not in largest:
        return None
    beside = [
        abs(cell)
        for other, cell in zip(shown, row, strict=True)
        if other.scale == column.scale and isinstance(cell, float) and math.isfinite(cell)
    ]
    whole = largest[column.scale]
    return whole if max(beside, default=0.0) >= _SMALL * whole else None


def _text(cell: Cell, scale: float | None, digits: int) -> str:
    if cell is None:
        return "-"
    if isinstance(cell, str):
        return printable(cell)
    if isinstance(cell, int):
        return str(cell)
    if not math.isfinite(cell):
        return "-"
    if scale is None:
        return f"{cell:.{digits}g}"
    if not 1e-3 <= scale < 1e8:
        return f"{cell:.{_DIGITS - 1}g}" if abs(cell) >= _SMALL * scale else f"{cell:.2g}"
    decimals = max(_DIGITS - 1 - math.floor(math.log10(scale)), 0)
    text = f"{cell:.{decimals}f}"
    return text.lstrip("-") if float(text) == 0 else text
