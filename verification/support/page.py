"""Results of the cases, the page they are written to, and the comparison with that page.

Numbers are shown with so few digits, and errors below `FLOOR` without any, that a repeated run
gives nearly the same page; what round-off changes from machine to machine is no difference. A
figure is written anew only when the shown digits of its data change.
"""

from __future__ import annotations

import hashlib
import json
import re
from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
from PIL import Image

FLOOR = 1e-6  # single precision of the files: nothing below means anything
ROUNDING = 1e-4  # of numbers shown with five digits, errors with two
PAGE = "verification.md"


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
class Figure:
    """Curves: label to (x, y); a label that starts with "slope" is drawn thin."""

    name: str
    x_label: str
    y_label: str
    curves: Mapping[str, tuple[Sequence[float], Sequence[float]]]
    caption: str
    logarithmic: str = "xy"  # the axes that are

    def rounded(self) -> dict[str, list[list[float]]]:
        return {
            label: [[float(f"{v:.4g}") for v in axis] for axis in curve]
            for label, curve in self.curves.items()
        }


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


def _table(head: list[str], rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def _section(result: Result) -> str:
    head = ["quantity", "value", "reference", "error", "bound", ""]
    parts = [f"## {result.title}", result.text.strip()]
    parts.append(_table(head, [check.cells() for check in result.checks]))
    for table in result.tables:
        if table.caption:
            parts.append(table.caption)
        parts.append(_table(table.head, table.rows))
    for figure in result.figures:
        parts.append(f"![{figure.caption}](verification/{figure.name}.png)")
    if result.remarks:
        parts.append(result.remarks.strip())
    return "\n\n".join(parts)


def _draw(figure: Figure, path: Path) -> None:
    data = figure.rounded()
    shown = [data, figure.x_label, figure.y_label, figure.caption, figure.logarithmic]
    digest = hashlib.sha256(json.dumps(shown, sort_keys=True).encode()).hexdigest()
    if path.exists() and Image.open(path).info.get("Data") == digest:
        return
    drawn = plt.figure(figsize=(5.6, 3.8), dpi=110)
    axes = drawn.gca()
    for label, (x, y) in data.items():
        thin = label.startswith("slope") or label.startswith("reference")
        axes.plot(x, y, "k--" if thin else "o-", lw=0.8 if thin else 1.4, ms=4, label=label)
    if "x" in figure.logarithmic:
        axes.set_xscale("log")
    if "y" in figure.logarithmic:
        axes.set_yscale("log")
    axes.set_xlabel(figure.x_label)
    axes.set_ylabel(figure.y_label)
    axes.grid(True, which="both", lw=0.3)
    axes.legend(fontsize=8)
    drawn.tight_layout()
    drawn.savefig(path, metadata={"Data": digest, "Software": None})
    plt.close(drawn)


def write(results: list[Result], introduction: str, docs: Path) -> None:
    """Write `docs`/verification.md and its figures under `docs`/verification."""
    folder = docs / "verification"
    folder.mkdir(parents=True, exist_ok=True)
    for result in results:
        for figure in result.figures:
            _draw(figure, folder / f"{figure.name}.png")
    (docs / PAGE).write_text(_text(results, introduction))


def _text(results: list[Result], introduction: str) -> str:
    checks = [check for result in results for check in result.checks]
    failed = sum(not check.passed for check in checks)
    summary = [
        [r.title, str(len(r.checks)), str(sum(not c.passed for c in r.checks))] for r in results
    ]
    parts = [
        introduction.strip(),
        _table(["case", "comparisons", "failed"], summary),
        f"{len(checks) - failed} comparisons passed, {failed} failed.",
        *[_section(result) for result in results],
    ]
    return "\n\n".join(parts) + "\n"


_NUMBER = re.compile(r"below 1e-6|[-+]?\d+(?:\.\d+)?(?:e[-+]?\d+)?")


def differences(
    results: list[Result], introduction: str, docs: Path, left_out: Sequence[str] = ()
) -> list[str]:
    """What the page tells otherwise than `results`, in words.

    Words, cases and rows must be the same. A stated value has to agree within its row's bound
    and the rounding of the page; how large an error came out differs between machines and only
    has to lie within the bound. Cases whose titles are in `left_out` were not run.
    """
    told = _without(left_out, (docs / PAGE).read_text()).splitlines()
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
    names = [figure.name for result in results for figure in result.figures]
    missing = [name for name in names if not (docs / "verification" / f"{name}.png").exists()]
    return wrong + [f"no picture {name}.png" for name in missing]


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
