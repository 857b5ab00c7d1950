"""Uniform and linear heating, free and held."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import hold, order
from support.figures import Figure
from support.mesh import NAMES, TYPES, Mesh, block, model, shake
from support.page import Check, Result, compare, near

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Uniform and linear heating"
E, NU, EXPANSION, RISE = 210e3, 0.3, 1.2e-5, 50.0
HELD_BOUND = 3e-6
SLOPE = np.array([40.0, 20.0, -30.0])  # of the linear temperature


def statically(case: LoadCase, mesh: Mesh) -> LoadCase:
    """The six rigid-body freedoms taken out at three corners, without force in a free body."""
    for point, directions in (((0, 0, 0), "xyz"), ((1, 0, 0), "yz"), ((0, 1, 0), "z")):
        rows = prescribed([mesh.at(point) + 1], directions)
        case.constraints = np.concatenate((case.constraints, rows))
    return case


def bent(x: Array) -> Array:
    """Displacement of a free body under the temperature SLOPE . x, up to a rigid motion.

    u_i = a (x_i (s . x) - s_i |x|^2 / 2); its strain is a (s . x) times the unit tensor, so that
    there is no stress.
    """
    square = (x * x).sum(axis=-1, keepdims=True)
    field: Array = EXPANSION * (x * (x @ SLOPE)[..., None] - 0.5 * SLOPE * square)
    return field


def without_rigid(nodes: Array, u: Array) -> Array:
    """u less the rigid motion that brings it closest to `bent` at the nodes.

    The three held corners fix that motion, and the error of a single node would go into all.
    """
    modes = np.zeros((len(nodes), 3, 6))
    modes[:, range(3), range(3)] = 1.0
    for k in range(3):
        modes[:, :, 3 + k] = np.cross(np.eye(3)[k], nodes)
    flat = modes.reshape(-1, 6)
    share, *_ = np.linalg.lstsq(flat, (u - bent(nodes)).ravel(), rcond=None)
    rest: Array = u - (flat @ share).reshape(u.shape)
    return rest


def run(quick: bool) -> Result:
    checks: list[Check] = []
    for code in TYPES:
        checks += uniform(code)
    for code in TYPES:
        checks += held(code)
    found, figure = linear(quick)
    return Result(TITLE, TEXT, checks + found, [], [figure], REMARKS)


def uniform(code: int) -> list[Check]:
    """A free, distorted cube: displacement and remaining stress; initial strain instead of heat."""
    mesh = shake(block(code, (3, 3, 3)), 0.08)
    every = np.arange(1, len(mesh.nodes) + 1)
    wanted = EXPANSION * RISE * mesh.nodes
    case = statically(LoadCase(), mesh).heat(every, np.full(len(every), RISE))
    warm = solver.solve(model(mesh, [solver.solid(E, NU, expansion=EXPANSION)], [case]))[0]
    swollen = Material.isotropic(E, NU, initial_strain=EXPANSION * RISE)
    grown = solver.solve(model(mesh, [swollen], [statically(LoadCase(), mesh)]))[0]
    size = np.abs(wanted).max()
    stress = np.abs(warm.stress).max() / (E * EXPANSION * RISE)
    return [
        Check(
            f"{NAMES[code]}, free, uniform heat", np.abs(warm.u - wanted).max() / size, HELD_BOUND
        ),
        Check(f"{NAMES[code]}, free, stress over E a T", stress, 2e-5),
        Check(
            f"{NAMES[code]}, free, initial strain",
            np.abs(grown.u - wanted).max() / size,
            HELD_BOUND,
        ),
    ]


def held(code: int) -> list[Check]:
    """A bar between two walls, free sideways."""
    mesh = block(code, (4, 2, 2), lambda g: g * [4.0, 1.0, 1.0])
    case = LoadCase()
    hold(case, mesh, "x", lambda x, y, z: (x < 1e-5) | (x > 4 - 1e-5))
    hold(case, mesh, "y", lambda x, y, z: y < 1e-5)
    hold(case, mesh, "z", lambda x, y, z: z < 1e-5)
    case.heat(np.arange(1, len(mesh.nodes) + 1), np.full(len(mesh.nodes), RISE))
    answer = solver.solve(model(mesh, [solver.solid(E, NU, expansion=EXPANSION)], [case]))[0]
    side = answer.u[mesh.at((4, 1, 0)), 1]
    # The written stress is the material's, without presence: E / H(1) acts in it.
    stress = float(answer.stress[mesh.at((4, 1, 1))]) * solver.FULL
    name = NAMES[code]
    return [
        compare(f"{name}, held, sideways", side, (1 + NU) * EXPANSION * RISE, 1e-5),
        compare(f"{name}, held, nodal stress", stress, -E * EXPANSION * RISE, 1e-5),
    ]


def linear(quick: bool) -> tuple[list[Check], Figure]:
    """A free cube under a linear temperature: exact for quadratic elements, order 2 for others."""
    checks, curves, bound = [], {}, 0.5 if quick else 0.2
    refinements = [2, 4, 8] if quick else [2, 4, 8, 16]
    for code, cells in ((TET4, refinements), (HEX8, refinements), (TET10, [2])):
        errors = []
        for n in cells:
            mesh = block(code, (n, n, n))
            every = np.arange(1, len(mesh.nodes) + 1)
            case = statically(LoadCase(), mesh).heat(every, mesh.nodes @ SLOPE)
            warm = solver.solid(E, NU, expansion=EXPANSION)
            u = solver.solve(model(mesh, [warm], [case]))[0].u
            errors.append(fem.l2_error(mesh, without_rigid(mesh.nodes, u), bent))
        if code == TET10:
            checks.append(Check(f"{NAMES[code]}, free, linear heat (L2 error)", errors[0], 3e-6))
            continue
        rate = order([1 / n for n in cells], errors)
        checks.append(
            near(f"{NAMES[code]}, free, linear heat, order of L2 error", rate, 2.0, bound)
        )
        curves[NAMES[code]] = ([1 / n for n in cells], errors)
    ends = [min(min(x) for x, _ in curves.values()), 0.5]
    low = 0.5 * min(min(y) for _, y in curves.values())
    curves["slope 2"] = (ends, [low, low * (ends[1] / ends[0]) ** 2])
    caption = "L2 error of a free cube under a linear temperature"
    return checks, Figure("heating", "element size", "relative L2 error", curves, caption)


TEXT = """
E = 210000, Poisson's ratio 0.3, expansion 1.2e-5 per degree. Free: a distorted cube, held
statically, warmed by 50 degrees; displacement a T x, no stress. The same as an initial strain of
a T. Held: a bar between two walls, free sideways; stress -E a T, sideways strain (1 + nu) a T.
Linear: temperature 40 x + 20 y - 30 z in a free cube; the displacement is a quadratic polynomial,
u_i = a (x_i (s . x) - s_i |x|^2 / 2), without stress (Boley and Weiner, Theory of Thermal
Stresses, 1960, section 3.7), compared after the best-fitting rigid motion is taken off.
"""

REMARKS = """
Linear elements can't follow the quadratic displacement: their error is of order 2 and they show
stresses that aren't there. Quadratic tetrahedra have it among their shapes and give it exactly.
"""
