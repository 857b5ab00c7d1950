"""Thick sphere under internal pressure."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import error_figure, error_table, hold, push
from support.mesh import NAMES, TYPES, Mesh, block, faces_where, merge, model
from support.page import Result, compare
from support.pictures import picture

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Thick sphere under internal pressure"
E, NU, INNER, OUTER, PRESSURE = 1000.0, 0.3, 1.0, 2.0, 10.0
CELLS = {TET4: [3, 6, 12], HEX8: [3, 6, 12], TET10: [2, 4, 6]}  # in each direction of a patch
BOUND = {TET4: 0.03, HEX8: 5e-3, TET10: 1e-3}


def octant(code: int, n: int) -> Mesh:
    """An eighth of the sphere from three patches, one around each axis.

    On the patch of x the direction is (1, tan a, tan b) with a and b from 0 to 45 degrees; the
    other two follow by cyclic exchange, and their grids agree where they meet.
    """

    def patch(grid: Array) -> Array:
        r = INNER + (OUTER - INNER) * grid[:, :1]
        direction = np.column_stack((np.ones(len(grid)), np.tan(0.25 * np.pi * grid[:, 1:])))
        x: Array = r * direction / np.linalg.norm(direction, axis=1, keepdims=True)
        return x

    def turned(k: int) -> Mesh:
        return block(code, (n, n, n), lambda g: np.roll(patch(g), k, axis=1))

    return merge([turned(k) for k in range(3)])


def radial(r: float) -> float:
    """Lame's radial displacement of the sphere."""
    share = PRESSURE * INNER**3 / (OUTER**3 - INNER**3)
    return share / E * ((1 - 2 * NU) * r + (1 + NU) * OUTER**3 / (2 * r**2))


def posed(code: int, n: int) -> tuple[Mesh, Model]:
    mesh = octant(code, n)
    bore = faces_where(mesh, lambda x, y, z: np.sqrt(x * x + y * y + z * z) < INNER + 1e-5)
    case = LoadCase()
    hold(case, mesh, "x", lambda x, y, z: x < 1e-5)
    hold(case, mesh, "y", lambda x, y, z: y < 1e-5)
    hold(case, mesh, "z", lambda x, y, z: z < 1e-5)
    push(case, fem.face_load(mesh, bore, fem.pressure(PRESSURE)))
    return mesh, model(mesh, [solver.solid(E, NU)], [case])


def solved(code: int, n: int) -> tuple[Mesh, Array]:
    mesh, part = posed(code, n)
    return mesh, solver.solve(part)[0].u


def mean_radial(mesh: Mesh, u: Array, radius: float) -> float:
    """Mean of the radial displacement over the nodes of a radius."""
    r = np.linalg.norm(mesh.nodes, axis=1)
    on = np.abs(r - radius) < 1e-5
    return float(((u * mesh.nodes).sum(axis=1) / r)[on].mean())


def run(quick: bool) -> Result:
    sizes, values, checks = {}, {}, []
    for code in TYPES:
        pairs = [solved(code, n) for n in CELLS[code][: 2 if quick else 3]]
        sizes[code] = [len(mesh.nodes) for mesh, _ in pairs]
        values[code] = [mean_radial(mesh, u, INNER) for mesh, u in pairs]
        factor = 8 if quick else 1
        name = f"{NAMES[code]}, radial displacement of the bore"
        checks.append(compare(name, values[code][-1], radial(INNER), factor * BOUND[code]))
        far = mean_radial(*pairs[-1], OUTER)
        name = f"{NAMES[code]}, radial displacement outside"
        checks.append(compare(name, far, radial(OUTER), factor * BOUND[code]))
    what = "radial displacement at the bore"
    return Result(
        TITLE,
        TEXT,
        checks,
        [error_table(what, radial(INNER), sizes, values)],
        [error_figure("thick_sphere", what, radial(INNER), sizes, values)],
        pictures=[
            picture(
                "thick_sphere_mesh",
                "thick sphere, von Mises stress",
                "thick sphere, von Mises stress: mesh of 10-node tetrahedra",
                lambda: posed(TET10, CELLS[TET10][2])[1],
                "von_mises",
                (-1.0, -1.2, -0.9),
            )
        ],
    )


TEXT = """
An eighth of a hollow sphere of radii 1 and 2 from three mapped patches, symmetry planes held
normally, E = 1000, Poisson's ratio 0.3, pressure 10 inside. Reference: Lame's solution
(Timoshenko and Goodier, Theory of Elasticity, 3rd ed. 1970, section 136), u = p a^3 / (E (b^3 -
a^3)) ((1 - 2 nu) r + (1 + nu) b^3 / (2 r^2)). Value: mean over the nodes of the radius.
"""
