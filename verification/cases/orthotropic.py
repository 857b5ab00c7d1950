"""An orthotropic block: three stretches, three shears and heating."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from support import fem, solver
from support.mesh import NAMES, TYPES, Mesh, block, boundary, model, shake
from support.page import Check, Result

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, prescribed

TITLE = "Orthotropic block"
MODULI = (12000.0, 900.0, 500.0)  # such as wood
POISSON = (0.40, 0.45, 0.35)  # nu12, nu13, nu23
SHEAR = (700.0, 650.0, 60.0)  # G12, G13, G23
EXPANSIONS = (4e-6, 3e-5, 5e-5)
SIZE = np.array([1.0, 1.5, 0.75])
STRESS = 2.0
NAMES_OF_STRESS = ("stretch x", "stretch y", "stretch z", "shear xy", "shear yz", "shear xz")


def strain_of(component: int) -> Array:
    """Strain tensor under a single stress component, from the compliances."""
    (e1, e2, e3), (n12, n13, n23), (g12, g13, g23) = MODULI, POISSON, SHEAR
    compliance = np.diag([1 / e1, 1 / e2, 1 / e3, 1 / g12, 1 / g23, 1 / g13])
    compliance[0, 1] = compliance[1, 0] = -n12 / e1
    compliance[0, 2] = compliance[2, 0] = -n13 / e1
    compliance[1, 2] = compliance[2, 1] = -n23 / e2
    xx, yy, zz, xy, yz, xz = STRESS * compliance[component]
    return np.array([[xx, xy / 2, xz / 2], [xy / 2, yy, yz / 2], [xz / 2, yz / 2, zz]])


def stress_tensor(component: int) -> Array:
    i, j = ((0, 0), (1, 1), (2, 2), (0, 1), (1, 2), (0, 2))[component]
    tensor = np.zeros((3, 3))
    tensor[i, j] = tensor[j, i] = STRESS
    return tensor


def wood() -> Material:
    e1, e2, e3 = (v / solver.FULL for v in MODULI)
    g12, g13, g23 = (v / solver.FULL for v in SHEAR)
    return Material.orthotropic((e1, e2, e3), POISSON, (g12, g13, g23), expansions=EXPANSIONS)


def held_at(mesh: Mesh, wanted: Array) -> LoadCase:
    """Three corners hold the six rigid-body freedoms at their exact displacements."""
    case = LoadCase()
    lx, ly, _ = SIZE
    for point, directions in (((0, 0, 0), "xyz"), ((lx, 0, 0), "yz"), ((0, ly, 0), "z")):
        node = mesh.at(point)
        rows = prescribed([node + 1], directions, wanted[[node]])
        case.constraints = np.concatenate((case.constraints, rows))
    return case


def pull(tensor: Array) -> Callable[[Array, Array], Array]:
    """Traction of a uniform stress."""
    return lambda _, normal: normal @ tensor


def run(quick: bool) -> Result:
    checks = []
    for code in TYPES:
        mesh = shake(block(code, (2, 3, 2), lambda g: g * SIZE), 0.08)
        faces = boundary(*mesh.only())
        cases, wanted = [], []
        for component in range(6):
            field = mesh.nodes @ strain_of(component)
            case = held_at(mesh, field)
            load = fem.face_load(mesh, faces, pull(stress_tensor(component)))
            case.load(np.arange(1, len(load) + 1), load)
            case.pattern = component + 1
            cases.append(case)
            wanted.append(field)
        grown = mesh.nodes * EXPANSIONS * 100.0
        warm = held_at(mesh, grown).heat(np.arange(1, len(grown) + 1), np.full(len(grown), 100.0))
        warm.pattern = 7
        answers = solver.solve(model(mesh, [wood()], [*cases, warm]))
        for name, answer, field in zip(
            (*NAMES_OF_STRESS, "heat"), answers, [*wanted, grown], strict=True
        ):
            error = np.abs(answer.u - field).max() / np.abs(field).max()
            checks.append(Check(f"{NAMES[code]}, {name}", error, 2e-5))
    return Result(TITLE, TEXT, checks)


TEXT = """
A block of 1 by 1.5 by 0.75 with moduli 12000, 900, 500, Poisson's ratios nu12 = 0.40, nu13 =
0.45, nu23 = 0.35, shear moduli G12 = 700, G13 = 650, G23 = 60, all different so that no exchange
of two of them goes unseen. Distorted meshes of each type, seven load cases: a single stress
component of 2 as tractions on all faces, for the six components in turn, and heating by 100
degrees with three expansion coefficients. Reference: strain = compliance times stress (Jones,
Mechanics of Composite Materials, 2nd ed. 1999, section 2.4). Error: largest nodal error over the
largest displacement.

Bound: rounding of the nodal forces to seven digits leaves unbalanced forces of some 1e-7, which
the softest modulus turns into displacements up to 12000 / 60 times as large as the stiffest.
"""
