"""The boundary stress of the totals, against its definition in numpy and a uniform stress."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.mesh import NAMES, TYPES, Mesh, block, model
from support.page import Check, Result, compare

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

from .level_field import level_at, order_of, with_levels

TITLE = "Boundary stress"
E, NU, LIMIT, SLOPE = 1000.0, 0.3, 2.0, 500.0
SIZE = np.array([4.0, 1.0, 1.0])
CELLS = {TET4: (8, 6, 3), HEX8: (8, 6, 3), TET10: (4, 3, 2)}
EXPONENTS = (4, 12)


def levels_of(mesh: Mesh) -> Array:
    """A level that falls over the bar's height and a little along it, 0 at about 0.6."""
    level = 0.6 - mesh.nodes[:, 1] + 0.05 * mesh.nodes[:, 0]
    return level.astype(np.float32).astype(float)


def bent(mesh: Mesh) -> Array:
    """Displacements of a bar that is bent and pressed."""
    x, y, z = mesh.nodes.T
    return np.column_stack((4e-3 * (y - 0.3) * x, -2e-3 * x * x, -1e-3 * z))


def stretched(mesh: Mesh) -> Array:
    return mesh.nodes * [1e-3, -3e-4, -3e-4]


def solved(
    code: int, u: Array, mesh: Mesh, exponent: int, limit: float
) -> tuple[solver.Answer, Array]:
    """Answer with all but one displacement component prescribed, and the levels."""
    every = np.arange(1, len(mesh.nodes) + 1)
    free = prescribed(every[-1:], "xy", u[-1:])
    rows = np.concatenate((prescribed(every[:-1], "xyz", u[:-1]), free))
    material = Material.isotropic(E, NU, limit_stress=limit)
    levels = levels_of(mesh)
    part = with_levels(model(mesh, [material], [LoadCase(constraints=rows)]), levels, SLOPE)
    part.options["Sta.BStressExp"] = exponent
    return solver.solve(part)[0], levels


def defined(mesh: Mesh, u: Array, levels: Array, exponent: int, limit: float) -> float:
    """The boundary stress element by element, by the solver's rules."""
    code, table = mesh.only()
    power = weights = 0.0
    for row in table:
        own = levels[row[: 8 if code == HEX8 else 4]]
        rule = fem.solver_rule(code, order_of(own))
        q = fem.Points(code, mesh.nodes, row[None, :], *rule)
        stress = q.strain(u)[0] @ fem.isotropic(E, NU)
        share = np.asarray(solver.presence(level_at(code, q, levels), 1000 * SLOPE))[0]
        volume = q.volume[0] * share
        if volume.sum() < 0.5 * q.volume.sum() or own.max() <= 0.0:
            continue
        weight = 1.0 if own.min() < 0.0 else float((own.max() - own.min()) ** 32)
        if weight == 0.0:
            continue
        mean = (von_mises(stress) * volume).sum() / volume.sum()
        pulled = (stress[:, :3].sum(axis=1) * volume).sum() > 0.0
        power += weight * (mean * weight / (limit if pulled else 1.0)) ** exponent
        weights += weight
    return float((power / weights) ** (1 / exponent))


def von_mises(stress: Array) -> Array:
    xx, yy, zz, xy, yz, xz = stress.T
    normal = (xx - yy) ** 2 + (yy - zz) ** 2 + (zz - xx) ** 2
    found: Array = np.sqrt(0.5 * normal + 3 * (xy**2 + yz**2 + xz**2))
    return found


def run(quick: bool) -> Result:
    checks: list[Check] = []
    for code in TYPES:
        mesh = block(code, CELLS[code], lambda g: g * SIZE)
        for exponent in EXPONENTS:
            answer, levels = solved(code, bent(mesh), mesh, exponent, LIMIT)
            wanted = defined(mesh, answer.u, levels, exponent, LIMIT)
            name = f"{NAMES[code]}, bent, exponent {exponent}"
            checks.append(compare(name, answer.totals["BStress"], wanted, 1e-5))
        answer, _ = solved(code, stretched(mesh), mesh, 4, 1.0)
        name = f"{NAMES[code]}, uniform stress"
        checks.append(compare(name, answer.totals["BStress"], E * 1e-3, 1e-5))
    return Result(TITLE, TEXT, checks)


TEXT = """
"BStress" of the totals is a power mean of von Mises stress along the surface of level zero: of
the elements that are at least half material and reach above level zero, with w = 1 where the
surface crosses the element and the 32nd power of the spread of its levels elsewhere (next to
nothing), (sum of w (w s)^n / sum of w)^(1/n). s is the mean over the material in the element,
divided by the limit stress where the element is pulled, n the option `Sta.BStressExp`. A bar of 4
by 1 by 1 whose level falls over its height, E = 1000, Poisson's ratio 0.3: bent and pressed by
prescribed displacements with a limit stress of 2, against the same formula in numpy; and under
uniform tension with a limit stress of 1, where all powers and weights have to cancel and leave
the stress, 1.
"""
