"""Thick cylinder in plane strain under internal pressure."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import error_figure, error_table, hold, push
from support.mesh import NAMES, TYPES, Mesh, block, faces_where, model
from support.page import Result, compare
from support.pictures import picture
from support.recovery import level

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Thick cylinder under internal pressure"
E, NU, INNER, OUTER, PRESSURE = 1000.0, 0.3, 1.0, 2.0, 10.0
CELLS = {  # through the wall, around, along the axis
    TET4: [(4, 6, 1), (8, 12, 1), (16, 24, 2)],
    HEX8: [(4, 6, 1), (8, 12, 1), (16, 24, 1)],
    TET10: [(2, 3, 1), (4, 6, 1), (8, 12, 1)],
}
DISPLACEMENT_BOUND = {TET4: 0.01, HEX8: 2e-3, TET10: 2e-4}


def quarter(grid: Array) -> Array:
    r = INNER + (OUTER - INNER) * grid[:, 0]
    angle = 0.5 * np.pi * grid[:, 1]
    return np.column_stack((r * np.cos(angle), r * np.sin(angle), 0.25 * grid[:, 2]))


def radial(r: float) -> float:
    """Lame's radial displacement in plane strain."""
    share = PRESSURE * INNER**2 / (OUTER**2 - INNER**2)
    return (1 + NU) / E * share * ((1 - 2 * NU) * r + OUTER**2 / r)


HOOP = PRESSURE * (OUTER**2 + INNER**2) / (OUTER**2 - INNER**2)


def posed(code: int, cells: tuple[int, int, int]) -> tuple[Mesh, Model]:
    mesh = block(code, cells, quarter)
    bore = faces_where(mesh, lambda x, y, z: np.hypot(x, y) < INNER + 1e-5)
    case = LoadCase()
    hold(case, mesh, "x", lambda x, y, z: x < 1e-5)
    hold(case, mesh, "y", lambda x, y, z: y < 1e-5)
    hold(case, mesh, "z", lambda x, y, z: (z < 1e-5) | (z > 0.25 - 1e-5))
    push(case, fem.face_load(mesh, bore, fem.pressure(PRESSURE)))
    return mesh, model(mesh, [solver.solid(E, NU)], [case])


def solved(code: int, cells: tuple[int, int, int]) -> tuple[Mesh, Array]:
    mesh, part = posed(code, cells)
    return mesh, solver.solve(part)[0].u


def mean_radial(mesh: Mesh, u: Array) -> float:
    """Mean of the radial displacement over the nodes of the bore."""
    r = np.hypot(*mesh.nodes[:, :2].T)
    on = r < INNER + 1e-5
    return float(((u * mesh.nodes)[:, :2].sum(axis=1) / r)[on].mean())


def run(quick: bool) -> Result:
    sizes, values, checks = {}, {}, []
    law = fem.isotropic(E, NU)
    for code in TYPES:
        pairs = [solved(code, cells) for cells in CELLS[code][: 2 if quick else 3]]
        sizes[code] = [len(mesh.nodes) for mesh, _ in pairs]
        values[code] = [mean_radial(mesh, u) for mesh, u in pairs]
        bound = DISPLACEMENT_BOUND[code] * (8 if quick else 1)
        name = f"{NAMES[code]}, radial displacement of the bore"
        checks.append(compare(name, values[code][-1], radial(INNER), bound))
    if not quick:
        mesh, u = pairs[-1]
        stress = level(mesh, u, law, mesh.at((INNER, 0, 0)), 1)
        checks.append(compare("10-node tetrahedra, hoop stress, fit", stress.fit, HOOP, 0.01))
    what = "radial displacement at the bore"
    return Result(
        TITLE,
        TEXT,
        checks,
        [error_table(what, radial(INNER), sizes, values)],
        [error_figure("thick_cylinder", what, radial(INNER), sizes, values)],
        pictures=[
            picture(
                "thick_cylinder_mesh",
                "thick cylinder, von Mises stress",
                "thick cylinder, von Mises stress: mesh of 10-node tetrahedra",
                lambda: posed(TET10, CELLS[TET10][2])[1],
                "von_mises",
                (0.0, 0.0, 1.0),
            )
        ],
    )


TEXT = """
Quarter of a cylinder of radii 1 and 2 between two planes held axially (plane strain), E = 1000,
Poisson's ratio 0.3, pressure 10 in the bore as consistent nodal forces on the faces of the mesh.
Reference: Lame's solution (Timoshenko and Goodier, Theory of Elasticity, 3rd ed. 1970, section
28), u = (1 + nu) p a^2 / (E (b^2 - a^2)) ((1 - 2 nu) r + b^2 / r), hoop stress p (b^2 + a^2) /
(b^2 - a^2) at the bore. Mid-edge nodes lie on the
cylinder. Value: mean over the nodes of the bore, since a mesh of tetrahedra is not the same all
around.
"""
