"""What the closed-form cases share: solving a mesh, and tables and orders over refinements."""

from __future__ import annotations

import math

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, prescribed

from .figures import Figure
from .mesh import NAMES, Condition, Mesh
from .page import Table, error_text, number


def hold(case: LoadCase, mesh: Mesh, direction: str, condition: Condition) -> LoadCase:
    """Append zero displacements in a direction for the nodes that meet the condition."""
    rows = prescribed(mesh.where(condition) + 1, direction)
    case.constraints = np.concatenate((case.constraints, rows))
    return case


def push(case: LoadCase, load: Array) -> LoadCase:
    """Append nodal forces (n, 3), zeros left out."""
    nodes = np.flatnonzero(np.abs(load).max(axis=1) > 0.0)
    return case.load(nodes + 1, load[nodes])


def order(sizes: list[float], errors: list[float]) -> float:
    """Observed order of convergence between the last two refinements."""
    return math.log(errors[-2] / errors[-1]) / math.log(sizes[-2] / sizes[-1])


def error_table(
    what: str, reference: float, sizes: dict[int, list[int]], values: dict[int, list[float]]
) -> Table:
    """Values of one number over refinements, `sizes` being node counts."""
    rows = []
    for code, found in values.items():
        for nodes, value in zip(sizes[code], found, strict=True):
            error = error_text(abs(value / reference - 1.0))
            rows.append([NAMES[code], str(nodes), number(value), error])
    return Table(["type", "nodes", what, "error"], rows, f"Reference {number(reference)}:")


def error_figure(
    name: str,
    what: str,
    reference: float,
    sizes: dict[int, list[int]],
    values: dict[int, list[float]],
) -> Figure:
    curves = {
        NAMES[code]: (
            [3.0 * n for n in sizes[code]],
            [abs(v / reference - 1.0) for v in found],
        )
        for code, found in values.items()
    }
    caption = f"relative error of the {what} over the number of displacement components"
    return Figure(name, "displacement components", f"error of the {what}", curves, caption)
