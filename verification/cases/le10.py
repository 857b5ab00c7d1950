"""NAFEMS LE10: thick elliptic plate under pressure."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.mesh import NAMES, Mesh, block, faces_where, model
from support.page import Result, compare
from support.recovery import Level, series

from vkctl.formats import HEX8, TET10, Array
from vkctl.model import LoadCase, prescribed

E, NU = 210e3, 0.3  # MPa
THICKNESS = 0.6  # m
TARGET = -5.38  # MPa
D = (2.0, 0.0, THICKNESS)
CELLS = {  # thickness, radial, around
    HEX8: [(2, 4, 6), (4, 8, 12), (8, 16, 24), (12, 24, 36)],
    TET10: [(1, 2, 3), (2, 4, 6), (3, 6, 9), (4, 8, 12)],
}
BOUND = {HEX8: 0.03, TET10: 0.02}


def plate(grid: Array) -> Array:
    """Unit cube (height, outwards, around) to the quarter plate; both edges are ellipses."""
    angle = 0.5 * np.pi * grid[:, 2]
    around = np.column_stack((np.cos(angle), np.sin(angle)))
    inner, outer = around * [2.0, 1.0], around * [3.25, 2.75]
    t = grid[:, 1:2] ** 1.3  # closer nodes towards the inner edge
    return np.column_stack(((1 - t) * inner + t * outer, THICKNESS * grid[:, 0]))


def supports(mesh: Mesh) -> LoadCase:
    """Symmetry planes, outer face held in its plane, its middle line held upwards too."""

    def outer(x: Array, y: Array, _: Array) -> Array:
        return (x / 3.25) ** 2 + (y / 2.75) ** 2 > 1 - 1e-5

    edge = mesh.where(outer)
    line = mesh.where(lambda x, y, z: outer(x, y, z) & (abs(z - THICKNESS / 2) < 1e-5))
    case = LoadCase(constraints=prescribed(mesh.where(lambda x, y, z: y < 1e-5) + 1, "y"))
    for nodes, directions in (
        (mesh.where(lambda x, y, z: x < 1e-5), "x"),
        (edge, "xy"),
        (line, "z"),
    ):
        case.constraints = np.concatenate((case.constraints, prescribed(nodes + 1, directions)))
    return case


def level(code: int, cells: tuple[int, int, int]) -> Level:
    mesh = block(code, cells, plate)
    top = faces_where(mesh, lambda x, y, z: z > THICKNESS - 1e-5)
    load = fem.face_load(mesh, top, fem.pressure(1.0))
    case = supports(mesh)
    loaded = np.unique(top)
    case.load(loaded + 1, load[loaded])
    u = solver.solve(model(mesh, [solver.solid(E, NU)], [case]))[0].u
    law, node = fem.isotropic(E, NU), mesh.at(D)
    average = fem.nodal_average(mesh, u, law, node)[1]
    fit = fem.patch_fit(mesh, u, law, node)[1]
    return Level(len(mesh.nodes), mesh.count(), average, fit)


def run(quick: bool) -> Result:
    levels = {code: [level(code, c) for c in cells[: 2 if quick else 4]] for code, cells in CELLS.items()}
    checks = [
        compare(f"{NAMES[code]}, finest mesh, better of both", _best(found[-1]), TARGET, 0.2 if quick else BOUND[code])
        for code, found in levels.items()
    ]
    table, figure = series("le10", "stress yy at D", TARGET, levels)
    figure.logarithmic = False
    return Result("NAFEMS LE10: thick plate under pressure", TEXT, checks, [table], [figure], REMARKS)


def _best(found: Level) -> float:
    return found.fit


TEXT = ""
REMARKS = ""
