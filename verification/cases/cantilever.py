"""Cantilever under end shear, against beam theory with shear and the exact plane solution."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import error_figure, error_table, push
from support.mesh import NAMES, TYPES, Mesh, block, faces_where, model
from support.page import Check, Result, compare
from support.pictures import picture

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Cantilever with shear"
E, LENGTH, DEPTH, WIDTH, FORCE = 1000.0, 8.0, 2.0, 1.0, 1.0  # Poisson's ratio 0
INERTIA = WIDTH * DEPTH**3 / 12
CELLS = {  # along, over the depth, over the width
    TET4: [(8, 4, 1), (16, 8, 2), (32, 16, 4)],
    HEX8: [(12, 6, 1), (24, 12, 2), (48, 24, 2)],
    TET10: [(4, 1, 1), (8, 2, 1), (16, 4, 1)],
}
BOUND = {TET4: 0.1, HEX8: 5e-3, TET10: 1e-3}
# Beam theory: bending, and shear with the coefficient 5/6 of a rectangle and G = E / 2.
TIP = FORCE * LENGTH**3 / (3 * E * INERTIA) + FORCE * LENGTH / (5 / 6 * E / 2 * WIDTH * DEPTH)


def exact(x: Array) -> Array:
    """Displacements of Timoshenko and Goodier for a Poisson's ratio of 0; y is the depth."""
    a, y = x[..., 0], x[..., 1]
    scale = FORCE / (6 * E * INERTIA)
    along = -scale * y * ((6 * LENGTH - 3 * a) * a + 2 * (y * y - DEPTH**2 / 4))
    down = scale * (DEPTH**2 * a + (3 * LENGTH - a) * a * a)
    return np.stack((along, down, np.zeros_like(a)), axis=-1)


def posed(code: int, cells: tuple[int, int, int]) -> tuple[Mesh, Model]:
    mesh = block(code, cells, lambda g: (g - [0, 0.5, 0]) * [LENGTH, DEPTH, WIDTH])
    root = mesh.where(lambda x, y, z: x < 1e-5)
    tip = faces_where(mesh, lambda x, y, z: x > LENGTH - 1e-5)

    def shear(position: Array, _: Array) -> Array:
        value = FORCE / (2 * INERTIA) * (DEPTH**2 / 4 - position[..., 1] ** 2)
        return value[..., None] * [0.0, 1.0, 0.0]

    case = LoadCase(constraints=prescribed(root + 1, "xyz", exact(mesh.nodes[root])))
    push(case, fem.face_load(mesh, tip, shear))
    return mesh, model(mesh, [solver.solid(E, 0.0)], [case])


def solved(code: int, cells: tuple[int, int, int]) -> tuple[Mesh, Array]:
    mesh, part = posed(code, cells)
    return mesh, solver.solve(part)[0].u


def beam_tip(mesh: Mesh, u: Array) -> float:
    """Mean deflection of the tip, seen from a root section whose mean rotation is taken out.

    The root's displacement is prescribed as x-displacement(y); its rotation is the integral of
    that times y over the moment of inertia, here in closed form of the prescribed field.
    """
    rotation = -FORCE * DEPTH**2 / (30 * E * INERTIA)
    axis = mesh.where(lambda x, y, z: (x > LENGTH - 1e-5) & (abs(y) < 1e-5))
    return float(u[axis, 1].mean() - rotation * LENGTH)


def run(quick: bool) -> Result:
    sizes, values, checks = {}, {}, []
    for code in TYPES:
        pairs = [solved(code, cells) for cells in CELLS[code][: 2 if quick else 3]]
        sizes[code] = [len(mesh.nodes) for mesh, _ in pairs]
        values[code] = [beam_tip(mesh, u) for mesh, u in pairs]
        factor = 8 if quick else 1
        name = f"{NAMES[code]}, tip deflection"
        checks.append(compare(name, values[code][-1], TIP, factor * BOUND[code]))
        error = fem.l2_error(*pairs[-1], exact)
        name = f"{NAMES[code]}, whole field (L2 error)"
        checks.append(Check(name, error, factor * BOUND[code]))
    return Result(
        TITLE,
        TEXT,
        checks,
        [error_table("tip deflection", TIP, sizes, values)],
        [error_figure("cantilever", "tip deflection", TIP, sizes, values)],
        REMARKS,
        pictures=[
            picture(
                "cantilever_mesh",
                "cantilever, von Mises stress",
                "cantilever, von Mises stress: mesh of 10-node tetrahedra",
                lambda: posed(TET10, CELLS[TET10][2])[1],
                "von_mises",
            )
        ],
    )


TEXT = """
A bar of 8 by 2 by 1 with Poisson's ratio 0, parabolic shear traction of resultant 1 at the tip,
the exact displacements prescribed at the root. References: the tip deflection of Timoshenko's
beam, P L^3 / (3 E I) + P L / (k G A) with k = 5/6, and the exact displacement field (Timoshenko
and Goodier, Theory of Elasticity, 3rd ed. 1970, section 21; with a Poisson's ratio of 0 the plane
solution holds in three dimensions).
"""

REMARKS = """
The exact field keeps the root's edges at y = -1, 0 and 1 in their plane, so the section between
them warps and has a mean rotation of -P D^2 / (30 E I), while beam theory holds a section whose
mean rotation is zero. With that rotation taken out the exact field gives the factor 5/6 to the
last digit: 1/6 + 1/30 = 1/5. Linear tetrahedra are known to be far too stiff in bending; two
refinements more would be needed for what 10-node tetrahedra give with the fewest nodes.
"""
