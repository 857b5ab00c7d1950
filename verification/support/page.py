"""Results of the cases, the page they are written to, and the comparison with that page.

Numbers are shown with so few digits, and errors below `FLOOR` without any, that a repeated run
gives nearly the same page; what round-off changes from machine to machine is no difference.
"""

from __future__ import annotations

import re
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

from .figures import Figure, Picture

FLOOR = 1e-6  # single precision of the files: nothing below means anything
ROUNDING = 1e-4  # of numbers shown with five digits, errors with two
PAGE = "verification.md"
MADE = "Made from commit "


def number(value: float, digits: int = 5) -> str:
    return f"{value + 0.0:.{digits}g}"


def error_text(value: float) -> str:
    return "below 1e-6" if value < FLOOR else f"{value:.1e}"


@dataclass
class Check:
    """One comparison: it passes when `error` is at most `bound`.

    `value` and `reference` are shown where there is one number; fields compared node by node
    have an error only.
    """

    name: str
    error: float
    bound: float
    value: float | None = None
    reference: float | None = None

    @property
    def passed(self) -> bool:
        return bool(self.error <= self.bound)  # a NaN fails

    def cells(self) -> list[str]:
        shown = [number(v) if v is not None else "" for v in (self.value, self.reference)]
        verdict = "passed" if self.passed else "**FAILED**"
        return [self.name, *shown, error_text(self.error), f"{self.bound:.2g}", verdict]


def compare(name: str, value: float, reference: float, bound: float) -> Check:
    """Check of the relative error of a number."""
    value, reference = float(value), float(reference)
    return Check(name, abs(value - reference) / abs(reference), bound, value, reference)


def near(name: str, value: float, reference: float, bound: float) -> Check:
    """Check of the absolute error of a number, such as an order of convergence."""
    value, reference = float(value), float(reference)
    return Check(name, abs(value - reference), bound, value, reference)


@dataclass
class Table:
    head: list[str]
    rows: list[list[str]]
    caption: str = ""


@dataclass
class Result:
    """What a case found. `text` tells mesh, load, expected value and its source; `remarks` the
    reasons of what is not as one would expect at first sight."""

    title: str
    text: str
    checks: list[Check]
    tables: list[Table] = field(default_factory=list)
    figures: list[Figure] = field(default_factory=list)
    remarks: str = ""
    pictures: list[Picture] = field(default_factory=list)

    @property
    def drawings(self) -> list[Figure | Picture]:
        return [*self.figures, *self.pictures]


def _table(head: list[str], rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def _section(result: Result) -> str:
    head = ["quantity", "value", "reference", "error", "bound", ""]
    parts = [f"## {result.title}", result.text.strip()]
    parts += [_image(picture) for picture in result.pictures]
    parts.append(_table(head, [check.cells() for check in result.checks]))
    for table in result.tables:
        if table.caption:
            parts.append(table.caption)
        parts.append(_table(table.head, table.rows))
    parts += [_image(figure) for figure in result.figures]
    if result.remarks:
        parts.append(result.remarks.strip())
    return "\n\n".join(parts)


def _image(drawn: Figure | Picture) -> str:
    return f"![{drawn.caption}](verification/{drawn.name}.png)"


def write(results: list[Result], introduction: str, made: str, docs: Path) -> None:
    """Write `docs`/verification.md and what it shows under `docs`/verification, and clear away
    the pictures that it doesn't show any more. `made` says from what and with what."""
    folder = docs / "verification"
    folder.mkdir(parents=True, exist_ok=True)
    shown = set()
    for result in results:
        for drawn in result.drawings:
            drawn.draw(folder / f"{drawn.name}.png")
            shown.add(f"{drawn.name}.png")
    for path in folder.glob("*.png"):
        if path.name not in shown:
            path.unlink()
    text = _text(results, introduction).split("\n\n")
    (docs / PAGE).write_text("\n\n".join([text[0], MADE + made, *text[1:]]))


SUMMARY = ["case", "comparisons", "failed"]


def _summary(result: Result) -> list[str]:
    failed = sum(not check.passed for check in result.checks)
    return [result.title, str(len(result.checks)), str(failed)]


def _text(results: list[Result], introduction: str) -> str:
    checks = [check for result in results for check in result.checks]
    failed = sum(not check.passed for check in checks)
    summary = [_summary(result) for result in results]
    parts = [
        introduction.strip(),
        _table(SUMMARY, summary),
        _verdict(len(checks), failed),
        *[_section(result) for result in results],
    ]
    return "\n\n".join(parts) + "\n"


def _verdict(checks: int, failed: int) -> str:
    return f"{checks - failed} comparisons passed, {failed} failed."


def replace(results: list[Result], titles: Sequence[str], made: str, docs: Path) -> None:
    """Put the sections of some cases into the page, with what they show, and say from which commit.

    `titles` are those of all cases in their order.
    """
    head, *sections = re.split(r"(?m)^(?=## )", (docs / PAGE).read_text())
    named = {part.partition("\n")[0].removeprefix("## "): part for part in sections}
    rows = {cells[0]: cells for (_, _), cells in _rows(head.splitlines())}
    for result in results:
        named[result.title] = _section(result) + "\n\n"
        rows[result.title] = _summary(result)
        for drawn in result.drawings:
            drawn.draw(docs / "verification" / f"{drawn.name}.png")
    kept = [title for title in titles if title in named]
    summary = [rows[title] for title in kept]
    counts = [sum(int(row[k]) for row in summary) for k in (1, 2)]
    before = head.split("\n\n")
    place = next(k for k, part in enumerate(before) if part.startswith("| case |"))
    before[place : place + 2] = [_table(SUMMARY, summary), _verdict(*counts)]
    of_page = next(k for k, part in enumerate(before) if part.startswith(MADE))
    told = [f"{result.title}: from commit {made}" for result in results]
    before[of_page] = "\n".join([before[of_page], *told])
    text = "\n\n".join(before) + "".join(named[title] for title in kept)
    (docs / PAGE).write_text(text.rstrip("\n") + "\n")


_NUMBER = re.compile(r"below 1e-6|[-+]?\d+(?:\.\d+)?(?:e[-+]?\d+)?")


def differences(
    results: list[Result], introduction: str, docs: Path, left_out: Sequence[str] = ()
) -> list[str]:
    """What the page tells otherwise than `results`, in words.

    Words, cases and rows must be the same. A stated value has to agree within its row's bound
    and the rounding of the page; how large an error came out differs between machines and only
    has to lie within the bound. Cases whose titles are in `left_out` were not run.
    """
    told = _without(left_out, _unmade((docs / PAGE).read_text())).splitlines()
    found = _text(results, introduction).splitlines()
    wrong = [
        f"line {place}: {old!r}, but now {new!r}"
        for place, (old, new) in enumerate(zip(told, found, strict=False), 1)
        if _NUMBER.sub("#", old) != _NUMBER.sub("#", new)
    ]
    if len(told) != len(found):
        wrong.append(f"{len(told)} lines, but now {len(found)}")
    if wrong:  # where the rows don't match there is no use in comparing their values
        return wrong[:5]
    rows = dict(_rows(told))
    for result in results:
        for check in result.checks:
            wrong += _told_otherwise(result.title, check, rows[result.title, check.name])
    names = [drawn.name for result in results for drawn in result.drawings]
    missing = [name for name in names if not (docs / "verification" / f"{name}.png").exists()]
    return wrong + [f"no picture {name}.png" for name in missing]


def _unmade(page: str) -> str:
    """The page without the paragraph that says what it was made from, different each time."""
    parts = page.split("\n\n")
    return "\n\n".join(part for part in parts if not part.startswith(MADE))


def _without(titles: Sequence[str], text: str) -> str:
    """The page without the sections of some cases and their rows of the summary."""
    parts = re.split(r"(?m)^(?=## )", text)
    kept = [part for part in parts if part.partition("\n")[0].removeprefix("## ") not in titles]
    lines = "".join(kept).rstrip("\n").splitlines()
    return "\n".join(
        line for line in lines if not any(line.startswith(f"| {title} |") for title in titles)
    )


def _rows(lines: list[str]) -> list[tuple[tuple[str, str], list[str]]]:
    """Cells of every table row by its section's title and its first cell, the first of each."""
    found: dict[tuple[str, str], list[str]] = {}
    title = ""
    for line in lines:
        if line.startswith("## "):
            title = line[3:]
        elif line.startswith("| "):
            cells = [cell.strip() for cell in line.strip("|").split("|")]
            found.setdefault((title, cells[0]), cells)
    return list(found.items())


def _told_otherwise(title: str, check: Check, cells: list[str]) -> list[str]:
    """Differences of one row from its comparison."""
    _, value, reference, error, bound, _ = cells
    place = f"{title}, {check.name}"
    wrong = []
    if bound != f"{check.bound:.2g}":
        wrong.append(f"{place}: bound {bound}, but now {check.bound:.2g}")
    if error != error_text(0.0) and not float(error) <= check.bound * 1.1:
        wrong.append(f"{place}: error {error} beyond its bound {bound}")
    if check.value is not None and check.reference is not None:
        apart = abs(check.value - check.reference)
        relative = abs(check.error * abs(check.reference) - apart) <= abs(check.error - apart)
        scale = abs(check.reference) if relative else 1.0
        for words, stated, now, allowed in (
            ("value", value, check.value, check.bound * scale),
            ("reference", reference, check.reference, 0.0),
        ):
            if not abs(float(stated) - now) <= allowed + ROUNDING * abs(now) + FLOOR * scale:
                wrong.append(f"{place}: {words} {stated}, but now {number(now)}")
    return wrong


def console(result: Result) -> str:
    lines = [f"\n{result.title}"]
    for check in result.checks:
        name, value, reference, error, bound, verdict = check.cells()
        lines.append(
            f"  {name:<66} {value:>11} {reference:>11} {error:>10} <= {bound:<7} {verdict}"
        )
    return "\n".join(lines)
