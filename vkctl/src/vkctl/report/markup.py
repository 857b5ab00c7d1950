"""Pieces of HTML from plain values. Every text is escaped here, wherever it comes from."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from html import escape
from math import isfinite, isnan

from vkctl.ask.tables import Cell, Table, cell_texts
from vkctl.basics.words import printable, short


def text(value: object) -> str:
    """A text that can stand in a page, without what a reader couldn't see."""
    return escape(printable(str(value)))


def paragraph(words: str, kind: str = "") -> str:
    return f"<p{_class(kind)}>{text(words)}</p>"


def section(name: str, heading: str, *pieces: str) -> str:
    """A part of the page with a heading; nothing where there are no pieces."""
    content = "\n".join(piece for piece in pieces if piece)
    if not content:
        return ""
    return (
        f'<section aria-labelledby="{name}"><h2 id="{name}">{text(heading)}</h2>\n'
        f"{content}\n</section>"
    )


def items(lines: Iterable[str]) -> str:
    entries = "".join(f"<li>{text(line)}</li>" for line in lines)
    return f"<ul>{entries}</ul>" if entries else ""


def table(caption: str, heads: Sequence[str], rows: Iterable[Sequence[Cell]]) -> str:
    """A table; nothing where it has no rows. A column of numbers is set to the right."""
    lines = [list(row) for row in rows]
    if not lines:
        return ""
    numeric = [
        all(isinstance(line[k], int | float | None) for line in lines) for k in range(len(heads))
    ]
    body = "\n".join(f"<tr>{_cells(line, numeric)}</tr>" for line in lines)
    return _framed(caption, heads, numeric, body)


def answer_table(answer: Table) -> str:
    """A table of answers, its headings as rows of their own, notes below it."""
    shown = [column.heading for column in answer.columns[answer.hidden :]]
    rows = [row[answer.hidden :] for row in answer.rows]
    numeric = [
        all(isinstance(row[k], int | float | None) for row in rows) for k in range(len(shown))
    ]
    lines = []
    for number, cells in enumerate(cell_texts(answer)):
        if number in answer.headings:
            words = text(answer.headings[number])
            lines.append(f'<tr><th scope="colgroup" colspan="{len(shown)}">{words}</th></tr>')
        lines.append(f"<tr>{_cells(cells, numeric)}</tr>")
    notes = "".join(paragraph(note, "quiet") for note in answer.notes)
    return _framed(answer.title, shown, numeric, "\n".join(lines)) + notes


def _framed(caption: str, heads: Sequence[str], numeric: Sequence[bool], body: str) -> str:
    head = "".join(
        f'<th scope="col"{_class("number" if is_number else "")}>{text(name)}</th>'
        for name, is_number in zip(heads, numeric, strict=True)
    )
    return (
        f'<div class="scroll"><table><caption>{text(caption)}</caption>\n'
        f"<thead><tr>{head}</tr></thead>\n<tbody>{body}</tbody></table></div>"
    )


def _cells(line: Sequence[Cell], numeric: Sequence[bool]) -> str:
    return "".join(
        f"<td{_class('number' if is_number else '')}>{text(told(cell))}</td>"
        for cell, is_number in zip(line, numeric, strict=True)
    )


def told(value: Cell) -> str:
    """A value as it stands in a table."""
    if value is None:
        return "–"
    if not isinstance(value, float):
        return str(value)
    if not isfinite(value):
        return "none" if isnan(value) else "∞" if value > 0 else "-∞"
    return short(value)


def picture(kind: str, data: str, caption: str) -> str:
    """A picture that is part of the page, `data` its bytes in Base64."""
    return (
        f'<figure><img src="data:image/{kind};base64,{data}" alt="{text(caption)}">'
        f"<figcaption>{text(caption)}</figcaption></figure>"
    )


def _class(name: str) -> str:
    return f' class="{name}"' if name else ""
