"""Order of convergence by a manufactured solution."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import order, push
from support.figures import Figure
from support.mesh import NAMES, TYPES, Mesh, block, boundary, model, shake
from support.page import Result, Table, error_text, near, number
from support.pictures import picture

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Order of convergence"
E, NU = 100.0, 0.3
CELLS = {TET4: (4, 8, 16), HEX8: (4, 8, 16), TET10: (2, 4, 8)}
ORDER = {TET4: 2.0, HEX8: 2.0, TET10: 3.0}
# u_i = sin(WAVES[i] . x + PHASE[i])
WAVES = np.array([[2.0, 1.0, -1.5], [-1.0, 2.5, 1.0], [1.5, -0.5, 2.0]])
PHASE = np.array([0.3, 1.1, 2.0])
LAMBDA, SHEAR = E * NU / ((1 + NU) * (1 - 2 * NU)), E / (2 * (1 + NU))


def exact(x: Array) -> Array:
    u: Array = np.sin(x @ WAVES.T + PHASE)
    return u


def stress(x: Array) -> Array:
    """Stresses (n, 6) of `exact`."""
    gradient = np.cos(x @ WAVES.T + PHASE)[:, :, None] * WAVES  # d u_i / d x_k
    strain = gradient + gradient.transpose(0, 2, 1)  # twice, off the diagonal as engineers have it
    found = np.zeros((len(x), 6))
    found[:, :3] = LAMBDA * np.trace(gradient, axis1=1, axis2=2)[:, None]
    found[:, :3] += SHEAR * np.diagonal(strain, axis1=1, axis2=2)
    found[:, 3:] = SHEAR * strain[:, [0, 1, 0], [1, 2, 2]]
    return found


def force(x: Array) -> Array:
    """Minus the divergence of the stress of `exact`: Navier's equations.

    Second derivatives of u_j are -WAVES[j, k] WAVES[j, l] u_j.
    """
    u = exact(x)
    laplacian = -u * (WAVES**2).sum(axis=1)
    gradient_of_divergence = -np.einsum("...j,ji,jj->...i", u, WAVES, WAVES)
    f: Array = -(LAMBDA + SHEAR) * gradient_of_divergence - SHEAR * laplacian
    return f


def posed(code: int, n: int) -> tuple[Mesh, Model]:
    """The unit cube, its inner nodes moved by up to 15 % of the cell size."""
    mesh = shake(block(code, (n, n, n)), 0.15 / n)
    fixed = np.unique(boundary(*mesh.only()))
    case = LoadCase(constraints=prescribed(fixed + 1, "xyz", exact(mesh.nodes[fixed])))
    push(case, fem.body_load(mesh, force))
    return mesh, model(mesh, [solver.solid(E, NU)], [case])


def error(code: int, n: int) -> float:
    mesh, part = posed(code, n)
    u = solver.solve(part)[0].u
    return fem.l2_error(mesh, u, exact)


def run(quick: bool) -> Result:
    checks, rows, curves = [], [], {}
    for code in TYPES:
        cells = CELLS[code][: 2 if quick else 3]
        errors = [error(code, n) for n in cells]
        sizes = [1 / n for n in cells]
        rate = order(sizes, errors)
        bound = 0.3 if quick else 0.15
        checks.append(near(f"{NAMES[code]}, order of the L2 error", rate, ORDER[code], bound))
        curves[NAMES[code]] = (sizes, errors)
        for k, n in enumerate(cells):
            seen = number(order(sizes[: k + 1], errors[: k + 1]), 3) if k else ""
            rows.append([NAMES[code], str(n), error_text(errors[k]), seen])
    for label, slope, start in (("slope 2", 2, 6e-4), ("slope 3", 3, 1e-5)):
        curves[label] = ([1 / 16, 1 / 4], [start, start * 4**slope])
    caption = "L2 error of a manufactured solution over the element size"
    figure = Figure("convergence", "element size", "relative L2 error", curves, caption)
    head = ["type", "cells per side", "L2 error", "order"]
    return Result(
        TITLE,
        TEXT,
        checks,
        [Table(head, rows)],
        [figure],
        pictures=[
            picture(
                "convergence_mesh",
                "manufactured solution",
                "Manufactured solution: mesh of hexahedra and displacements",
                lambda: posed(HEX8, CELLS[HEX8][1])[1],
            )
        ],
    )


TEXT = """
The displacement u_i = sin(k_i . x + c_i) with three different wave vectors is prescribed on the
boundary of the unit cube, the body force of Navier's equations applied as consistent nodal forces
with a quadrature of 64 points an element. Inner nodes are moved by up to 15 % of the cell size,
edges stay straight. Reference: order 2 of the L2 error for linear and trilinear elements, order 3
for quadratic ones (Strang and Fix, An Analysis of the Finite Element Method, 1973, theorem 3.7;
the method of manufactured solutions after Roache, J. Fluids Eng. 124, 2002, 4-10). Errors stay
above 1e-5, far from what single precision of the files leaves.
"""
