"""Torsion of a square bar, against the constant of Saint-Venant."""

from __future__ import annotations

import math

import numpy as np
from support import solver
from support.closed import error_figure, error_table
from support.mesh import NAMES, TYPES, Mesh, block, model
from support.page import Result, compare
from support.pictures import picture

from vkctl.directory.model import LoadCase, Model, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Torsion of a square bar"
E, NU, SIDE, LENGTH, TWIST = 2600.0, 0.3, 1.0, 1.0, 0.01  # G = 1000
CELLS = {  # across, along
    TET4: [(4, 4), (8, 8), (16, 16)],
    HEX8: [(4, 2), (8, 4), (16, 6)],
    TET10: [(2, 1), (4, 2), (8, 3)],
}
BOUND = {TET4: 0.05, HEX8: 0.01, TET10: 5e-4}
# J / a^4 by the series of Timoshenko and Goodier, section 109: 0.140577
FACTOR = (
    1 - 192 / math.pi**5 * sum(math.tanh(n * math.pi / 2) / n**5 for n in range(1, 40, 2))
) / 3


def posed(code: int, across: int, along: int) -> tuple[Mesh, Model]:
    mesh = block(
        code, (across, across, along), lambda g: (g - [0.5, 0.5, 0]) * [SIDE, SIDE, LENGTH]
    )
    x, y, z = mesh.nodes.T
    angle = TWIST * z / LENGTH
    rigid = np.column_stack((-angle * y, angle * x, np.zeros_like(x)))
    ends = mesh.where(lambda x, y, z: (z < 1e-5) | (z > LENGTH - 1e-5))
    case = LoadCase(constraints=prescribed(ends + 1, "xy", rigid[ends]))
    axis = prescribed([mesh.at((0, 0, 0)) + 1], "z")
    case.constraints = np.concatenate((case.constraints, axis))
    return mesh, model(mesh, [solver.solid(E, NU)], [case])


def constant(code: int, across: int, along: int) -> tuple[int, float]:
    """Nodes, and J / a^4 from the strain energy that the program reports."""
    mesh, part = posed(code, across, along)
    answer = solver.solve(part)[0]
    # The program's energy density is that of the material, without the presence factor.
    energy = float(answer.totals["SEner"]) * solver.FULL
    shear = E / (2 * (1 + NU))
    return len(mesh.nodes), 2 * energy * LENGTH / (shear * TWIST**2 * SIDE**4)


def run(quick: bool) -> Result:
    sizes, values, checks = {}, {}, []
    for code in TYPES:
        pairs = [constant(code, *cells) for cells in CELLS[code][: 2 if quick else 3]]
        sizes[code] = [nodes for nodes, _ in pairs]
        values[code] = [factor for _, factor in pairs]
        bound = BOUND[code] * (8 if quick else 1)
        checks.append(compare(f"{NAMES[code]}, J / a^4", values[code][-1], FACTOR, bound))
    what = "torsion constant"
    return Result(
        TITLE,
        TEXT,
        checks,
        [error_table("J / a^4", FACTOR, sizes, values)],
        [error_figure("torsion", what, FACTOR, sizes, values)],
        pictures=[
            picture(
                "torsion_mesh",
                "square bar in torsion, von Mises stress",
                "square bar in torsion, von Mises stress: mesh of 10-node tetrahedra",
                lambda: posed(TET10, *CELLS[TET10][2])[1],
                "von_mises",
            )
        ],
    )


TEXT = """
A cube of side 1, both end sections turned as rigid in their planes, by 0.01 against each other
and free to warp, which is exactly the state of Saint-Venant. J from the reported strain energy,
"SEner" = G J (twist)^2 / (2 L). Reference: the series of Timoshenko and Goodier, Theory of
Elasticity, 3rd ed. 1970, section 109, 0.14058 a^4 (0.1406 in its table). Prescribed displacements
bound the energy from above, so J comes from above.
"""
