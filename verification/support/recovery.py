"""Benchmarks that ask for a stress at a point: the series of refinements and its checks."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

from .mesh import NAMES
from .page import Check, Figure, Table, number


@dataclass
class Level:
    """One refinement: size, stress by averaging at the node and by the fit around it."""

    nodes: int
    elements: int
    average: float
    fit: float


def series(name: str, label: str, target: float, levels: dict[int, list[Level]]) -> tuple:
    """Table and figure of a series; `label` names the stress, in MPa like all values."""
    rows, curves = [], {}
    for code, found in levels.items():
        for k, level in enumerate(found, 1):
            rows.append(
                [NAMES[code], str(k), str(level.elements), str(level.nodes)]
                + [number(level.average, 4), percent(level.average, target)]
                + [number(level.fit, 4), percent(level.fit, target)]
            )
        x = [3.0 * level.nodes for level in found]
        curves[f"{NAMES[code]}, average"] = (x, [level.average for level in found])
        curves[f"{NAMES[code]}, fit"] = (x, [level.fit for level in found])
    ends = [min(c[0][0] for c in curves.values()), max(c[0][-1] for c in curves.values())]
    curves["reference"] = (ends, [target, target])
    head = ["type", "refinement", "elements", "nodes", "average", "error", "fit", "error"]
    figure = Figure(
        name, "displacement components", f"{label} [MPa]", curves, f"{label} over mesh size"
    )
    return Table(head, rows, f"{label} [MPa]:"), figure


def percent(value: float, target: float) -> str:
    return f"{100.0 * (value / target - 1.0):+.2f} %"


def falling(name: str, values: list[float], target: Callable | float) -> Check:
    """Check that the errors of a series never grow: 0 if so, otherwise the largest growth."""
    errors = [abs(v - target) for v in values]
    growth = max((b - a for a, b in zip(errors, errors[1:], strict=False)), default=0.0)
    return Check(name, max(growth, 0.0) / abs(target), 0.0)
