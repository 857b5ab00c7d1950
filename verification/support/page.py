"""Results of the cases and the page they are written to.

Numbers are shown with so few digits, and errors below `FLOOR` without any, that a repeated run
gives the same page. A figure is written anew only when the shown digits of its data change.
"""

from __future__ import annotations

import hashlib
import json
from dataclasses import dataclass, field
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
from PIL import Image

FLOOR = 1e-6  # single precision of the files: nothing below means anything


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
    curves: dict[str, tuple[list[float], list[float]]]
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
    axes = plt.figure(figsize=(5.6, 3.8), dpi=110).gca()
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
    axes.figure.tight_layout()
    axes.figure.savefig(path, metadata={"Data": digest, "Software": None})
    plt.close(axes.figure)


def write(results: list[Result], introduction: str, docs: Path) -> None:
    """Write `docs`/verification.md and its figures under `docs`/verification."""
    folder = docs / "verification"
    folder.mkdir(parents=True, exist_ok=True)
    for result in results:
        for figure in result.figures:
            _draw(figure, folder / f"{figure.name}.png")
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
    (docs / "verification.md").write_text("\n\n".join(parts) + "\n")


def console(result: Result) -> str:
    lines = [f"\n{result.title}"]
    for check in result.checks:
        name, value, reference, error, bound, verdict = check.cells()
        lines.append(
            f"  {name:<66} {value:>11} {reference:>11} {error:>10} <= {bound:<7} {verdict}"
        )
    return "\n".join(lines)
