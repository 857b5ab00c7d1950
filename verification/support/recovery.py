"""Benchmarks that ask for a stress at a point: the series of refinements and its checks."""

from __future__ import annotations

from dataclasses import dataclass

from vkctl.basics.types import Array
from vkctl.shapes.topology import HEX8

from . import fem
from .figures import Figure
from .mesh import NAMES, Mesh
from .page import Check, Table, compare, number

RINGS = {True: 3, False: 2}  # hexahedra have one sampling point each and need a ring more


@dataclass
class Level:
    """One refinement: its size and the stress by the mean at the node and by the fit around it."""

    nodes: int
    elements: int
    average: float
    fit: float


def level(
    mesh: Mesh, u: Array, law: Array, node: int, component: int, free_strain: Array | None = None
) -> Level:
    """A stress component at a node, recovered in both ways."""
    rings = RINGS[HEX8 in mesh.tables]
    average = fem.nodal_average(mesh, u, law, node, free_strain)
    fit = fem.patch_fit(mesh, u, law, node, free_strain, rings)
    return Level(len(mesh.nodes), mesh.count(), float(average[component]), float(fit[component]))


def percent(value: float, target: float) -> str:
    return f"{100.0 * (value / target - 1.0):+.2f} %"


def series(
    name: str, label: str, target: float, levels: dict[int, list[Level]]
) -> tuple[Table, Figure]:
    """Table and figure of a series; `label` names the stress, in MPa like all values."""
    rows, curves = [], {}
    for code, found in levels.items():
        for k, at in enumerate(found, 1):
            rows.append(
                [NAMES[code], str(k), str(at.elements), str(at.nodes)]
                + [number(at.average, 4), percent(at.average, target)]
                + [number(at.fit, 4), percent(at.fit, target)]
            )
        x = [3.0 * at.nodes for at in found]
        for kind, values in (("mean", [a.average for a in found]), ("fit", [a.fit for a in found])):
            curves[f"{NAMES[code]}, {kind}"] = (x, values)
    ends = [min(c[0][0] for c in curves.values()), max(c[0][-1] for c in curves.values())]
    curves["reference"] = (ends, [target, target])
    head = ["type", "refinement", "elements", "nodes", "mean", "error", "fit", "error"]
    caption = f"{label} over the number of displacement components"
    figure = Figure(name, "displacement components", f"{label} [MPa]", curves, caption, "x")
    return Table(head, rows, f"{label} in MPa:"), figure


def finest(
    levels: dict[int, list[Level]], target: float, bounds: dict[int, tuple[float, float]]
) -> list[Check]:
    """Checks of the finest meshes; `bounds` of the mean at the node and of the fit."""
    checks = []
    for code, (of_mean, of_fit) in bounds.items():
        last = levels[code][-1]
        checks.append(compare(f"{NAMES[code]}, mean at the node", last.average, target, of_mean))
        checks.append(compare(f"{NAMES[code]}, fit around it", last.fit, target, of_fit))
    return checks
