"""Elastic supports with offsets, skew axes and axes of other length than 1."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import push
from support.mesh import NAMES, TYPES, Condition, Mesh, block, boundary, faces_where, model, shake
from support.page import Check, Result, compare

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, elastic, prescribed

TITLE = "Bar on elastic supports with offsets and skew axes"
E, NU, STIFFNESS = 500.0, 0.3, 40.0  # STIFFNESS is "Sta.SupportStiffness"
SIZE = np.array([3.0, 1.0, 0.8])
AREA, OFFSET, FORCE = 0.8, 0.05, 3.0  # of the bar between springs
# Six springs at four corners: corner, axes by direction x, y, z, which of them act, offsets.
SPRINGS = (
    ((0, 0, 0), [[1, 0.2, 0.1], [0, 1, 0.3], [0.2, 0, 1]], "xyz", (0.02, -0.01, 0.03)),
    ((1, 0, 0), [[0, 0, 0], [0.3, 1, 0.5], [0, 0, 0]], "y", (0.0, 0.015, 0.0)),
    ((0, 1, 0), [[0, 0, 0], [0, 0, 0], [0.5, 0.1, 1.2]], "z", (0.0, 0.0, -0.02)),
    ((1, 1, 1), [[0, 0, 0], [0, 0, 0], [0.1, -0.4, 0.9]], "z", (0.0, 0.0, 0.01)),
)

Spring = tuple[int, Array, float]  # node, axis, offset


def springs(mesh: Mesh) -> tuple[LoadCase, list[Spring]]:
    """The load case and each spring alone."""
    case = LoadCase()
    single: list[Spring] = []
    for corner, axes, directions, offsets in SPRINGS:
        node = mesh.at(tuple(SIZE * corner))
        rows = elastic([node + 1], np.array(axes, float), offsets, directions)
        case.constraints = np.concatenate((case.constraints, rows))
        for k, letter in enumerate("xyz"):
            if letter in directions:
                axis = np.asarray(axes[k], np.float32).astype(float)
                single.append((node, axis, float(np.float32(offsets[k]))))
    return case, single


def stretches(mesh: Mesh, single: list[Spring], load: Array) -> Array:
    """Stretch u . n - offset of each spring, from the equilibrium of the whole body alone.

    Six springs hold six rigid-body freedoms: forces and moments of the load determine them,
    whatever the body is made of.
    """
    matrix = np.empty((6, 6))
    for column, (node, axis, _) in enumerate(single):
        matrix[:3, column] = STIFFNESS * axis
        matrix[3:, column] = STIFFNESS * np.cross(mesh.nodes[node], axis)
    force = np.concatenate((load.sum(axis=0), np.cross(mesh.nodes, load).sum(axis=0)))
    return np.linalg.solve(matrix, force)


def skew(code: int) -> Check:
    mesh = shake(block(code, (6, 2, 2), lambda g: g * SIZE), 0.08)
    load = fem.face_load(mesh, boundary(*mesh.only()), lambda p, n: 0.1 * np.cos(p + [0, 1, 2]))
    load = load.astype(np.float32).astype(float)
    case, single = springs(mesh)
    push(case, load)
    options = {"Sta.SupportStiffness": STIFFNESS}
    u = solver.solve(model(mesh, [solver.solid(E, NU)], [case], options=options))[0].u
    found = np.array([u[node] @ axis - offset for node, axis, offset in single])
    wanted = stretches(mesh, single, load)
    error = np.abs(found - wanted).max() / np.abs(wanted).max()
    return Check(f"{NAMES[code]}, six skew springs, their stretches", error, 1e-5)


def at_x(x: float) -> Condition:
    return lambda a, b, c: np.abs(a - x) < 1e-5


def bar(code: int) -> Check:
    """A bar between springs at both ends, the left ones at rest away from its end.

    The springs of an end are spread over its nodes like a uniform traction, by the lengths of
    their axes, so that the bar's state is uniform for every type.
    """
    mesh = block(code, (6, 1, 1), lambda g: g * SIZE)
    every = np.arange(1, len(mesh.nodes) + 1)
    case, total = LoadCase(constraints=prescribed(every, "yz")), 4 * STIFFNESS
    for x, offset in ((0.0, OFFSET), (3.0, 0.0)):
        end = faces_where(mesh, at_x(x))
        share = np.abs(fem.face_load(mesh, end, lambda p, n: n)[:, 0]) / AREA
        for node in np.flatnonzero(share > 1e-9):
            length = np.sqrt(4 * share[node])
            axes = np.diag([length, 0, 0])
            case.support([node + 1], axes, (length * offset, 0, 0), "x")
        if offset == 0.0:
            push(case, fem.face_load(mesh, end, lambda p, n: FORCE / AREA * n))
    options = {"Sta.SupportStiffness": STIFFNESS}
    u = solver.solve(model(mesh, [solver.solid(E, 0.0)], [case], options=options))[0].u
    axial = E * AREA / SIZE[0]
    system = [[total + axial, -axial], [-axial, total + axial]]
    _, wanted = np.linalg.solve(system, [total * OFFSET, FORCE])
    right = mesh.where(lambda x, y, z: x > 3 - 1e-5)
    worst = right[np.abs(u[right, 0] - wanted).argmax()]
    return compare(f"{NAMES[code]}, bar between springs, right end", u[worst, 0], wanted, 1e-5)


def run(quick: bool) -> Result:
    checks = [make(code) for make in (skew, bar) for code in TYPES]
    return Result(TITLE, TEXT, checks)


TEXT = """
Skew springs: a distorted bar of 3 by 1 by 0.8 that is held by nothing but six springs at four
corners, along axes that are neither perpendicular to each other nor of length 1, each at rest at
an offset, under uneven tractions. A spring along n with offset d pulls with k (u . n - d) n. The
equilibrium of the whole body, six equations, gives all six stretches u . n - d, whatever the body
does in between. Error: largest deviation over the largest stretch.

Bar between springs: stiffness 160 in all at either end, spread over the nodes like a uniform
traction by the lengths of the axes (the stiffness goes with their squares), the left springs at
rest at 0.05, the right end pulled with 3. Reference: two equations with the axial stiffness E A /
L. Value: the node of the right end that is farthest from it. Springs carry no presence factor,
the bar does.
"""
