"""Stresses at nodes, as the companion recovers and the solver averages them, against exact ones."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from support import solver
from support.mesh import NAMES, TYPES, Mesh
from support.page import Check, Result, Table

from vkctl import stress
from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.shapes.topology import HEX8, TET4, TET10

from . import cantilever, thick_cylinder

TITLE = "Stress at nodes"


Posed = Callable[[int, tuple[int, int, int]], tuple[Mesh, Model]]


@dataclass
class Errors:
    """Largest errors of von Mises stress at any node, relative to the largest stress."""

    nodes: int
    recovered: float
    averaged: float
    recovered_mean: float = np.nan  # roots of the mean squares
    averaged_mean: float = np.nan


def beam_stress(nodes: Array) -> Array:
    """Stresses (n, 6) of the cantilever, Poisson's ratio 0; its depth is y from -1 to 1."""
    x, y = nodes[:, 0], nodes[:, 1]
    force, inertia, depth = cantilever.FORCE, cantilever.INERTIA, cantilever.DEPTH
    found = np.zeros((len(nodes), 6))
    found[:, 0] = -force * (cantilever.LENGTH - x) * y / inertia
    found[:, 3] = force / (2 * inertia) * (depth**2 / 4 - y**2)
    return found


def cylinder_stress(nodes: Array) -> Array:
    """Principal stresses of Lame's cylinder in plane strain, in place of xx, yy, zz."""
    inner, outer = thick_cylinder.INNER, thick_cylinder.OUTER
    share = thick_cylinder.PRESSURE * inner**2 / (outer**2 - inner**2)
    ratio = (outer / np.hypot(nodes[:, 0], nodes[:, 1])) ** 2
    found = np.zeros((len(nodes), 6))
    found[:, 0], found[:, 1] = share * (1 - ratio), share * (1 + ratio)
    found[:, 2] = 2 * thick_cylinder.NU * share
    return found


def measured(mesh: Mesh, model: Model, exact: Callable[[Array], Array]) -> Errors:
    """Errors on one mesh, after two runs."""
    place = solver.Workplace(model)
    place.solve()
    answer = place.solve()[0]
    wanted = stress.von_mises(exact(mesh.nodes))
    found = stress.nodal_stress(stress.read_solution(place.path, 1)).merged()
    errors = [
        np.abs(values - wanted) / wanted.max()
        for values in (stress.von_mises(found.stress), np.abs(answer.stress))
    ]
    largest, mean = [e.max() for e in errors], [np.sqrt((e**2).mean()) for e in errors]
    return Errors(len(mesh.nodes), *largest, *mean)


SERIES: dict[str, tuple[Posed, Callable[[Array], Array], dict[int, list[tuple[int, int, int]]]]] = {
    "beam": (
        cantilever.posed,
        beam_stress,
        {
            TET4: [(16, 4, 2), (32, 8, 4), (64, 16, 8)],
            HEX8: [(16, 4, 2), (32, 8, 4), (64, 16, 8)],
            TET10: [(8, 2, 2), (16, 4, 2), (32, 8, 4)],
        },
    ),
    "bore": (
        thick_cylinder.posed,
        cylinder_stress,
        {
            TET4: [(4, 6, 1), (8, 12, 2), (16, 24, 4)],
            HEX8: [(4, 6, 2), (8, 12, 2), (16, 24, 4)],
            TET10: [(2, 3, 1), (4, 6, 1), (8, 12, 2)],
        },
    ),
}
BOUNDS = {
    ("beam", TET4): 0.09,
    ("beam", HEX8): 0.006,
    ("beam", TET10): 0.002,
    ("bore", TET4): 0.06,
    ("bore", HEX8): 0.012,
    ("bore", TET10): 0.01,
}


def run(quick: bool) -> Result:
    rows, checks = [], []
    for name, (posed, exact, meshes) in SERIES.items():
        for code in TYPES:
            found = [measured(*posed(code, c), exact) for c in meshes[code][: 2 if quick else 3]]
            for k, at in enumerate(found, 1):
                shown = [f"{100 * value:.1f} %" for value in (at.recovered, at.averaged)]
                rows.append([name, NAMES[code], str(k), str(at.nodes), *shown])
            bound = BOUNDS[name, code] * (4 if quick else 1)
            checks.append(Check(f"{name}, {NAMES[code]}", found[-1].recovered, bound))
    head = ["case", "type", "refinement", "nodes", "at nodes", "element mean"]
    caption = "Largest error of von Mises stress at any node, of the largest stress:"
    return Result(TITLE, TEXT, checks, [Table(head, rows, caption)], [], REMARKS)


TEXT = """
The cantilever and the thick cylinder of the cases above, whose stresses are known everywhere, with
von Mises stress at every node: as `vkctl` recovers it ("at nodes", what `plot --field von_mises`
shows), and as the solver averages it over each element and then over the elements at a node
("element mean"). The checks are of the recovered stress on the finest mesh of each type.
"""

REMARKS = """
The mean over elements is a stress from inside them, and shows least where stresses are largest, at
surfaces: its error falls in proportion to the element size. That of the recovered stress falls with
its square, on surfaces of 4-node tetrahedra in proportion.
"""
