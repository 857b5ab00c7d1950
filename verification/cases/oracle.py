"""The same meshes through CalculiX, an independent program."""

from __future__ import annotations

import numpy as np
from support import ccx, fem, solver
from support.closed import push
from support.mesh import NAMES, TYPES, Mesh, block, boundary, faces_where, model
from support.page import Check, Result, Table, error_text

from vkctl.formats import HEX8, TET4, TET10, Array
from vkctl.model import LoadCase, Material, prescribed

E, NU, EXPANSION = 1000.0, 0.3, 1e-3
BOUND = 1e-4
CELLS = {TET4: (12, 4, 4), HEX8: (12, 4, 4), TET10: (6, 2, 2)}
RULES = {3: 1.0, 2: -0.5}  # order of the rule to the level that makes the solver take it


def straight(grid: Array) -> Array:
    return grid * [6.0, 2.0, 1.5]


def hook(grid: Array) -> Array:
    """A curved part: an arc of 100 degrees that widens and thickens along the way."""
    along, angle = grid[:, 0], np.radians(100.0) * grid[:, 0]
    r = 2.0 + (1.0 + 0.3 * along) * grid[:, 1]
    return np.column_stack((r * np.sin(angle), r * np.cos(angle), (1 + 0.4 * along) * grid[:, 2]))


def straight_end(x: Array, y: Array, z: Array) -> Array:
    return x > 6.0 - 1e-5


def hook_end(x: Array, y: Array, z: Array) -> Array:
    angle = np.radians(100.0)
    return np.abs(x * np.cos(angle) - y * np.sin(angle)) < 1e-5


def by_solver(mesh: Mesh, order: int, root: Array, load: Array, heat: Array | None) -> Array:
    case = LoadCase(constraints=prescribed(root + 1))
    push(case, load)
    if heat is not None:
        case.heat(np.arange(1, len(heat) + 1), heat)
    level = RULES[order]
    material = Material.isotropic(E / float(solver.presence(level)), NU, expansion=EXPANSION)
    part = model(mesh, [material], [case])
    if level < 0.0:
        part.set_level(level)
    return solver.solve(part)[0].u


def difference(code: int, mapping, end, order: int, warm: bool) -> float:
    """Largest difference of a displacement component over the largest displacement.

    The load is a traction on the end, or a temperature that is linear along the axes.
    """
    mesh = block(code, CELLS[code], mapping)
    root = mesh.where(lambda x, y, z: x < 1e-5)
    fixed = [(node, d, 0.0) for node in root for d in range(3)]
    heat, load = None, np.zeros_like(mesh.nodes)
    if warm:
        heat = mesh.nodes @ [4.0, 5.0, -3.0]
    else:
        faces = faces_where(mesh, end)
        load = fem.face_load(mesh, faces, lambda p, n: np.broadcast_to([0.2, -1.0, 0.5], p.shape))
    other = ccx.solve(mesh, E, NU, fixed, load, (EXPANSION, heat) if warm else None)
    own = by_solver(mesh, order, root, load, heat)
    return float(np.abs(own - other).max() / np.abs(other).max())


def run(quick: bool) -> Result:
    checks, rows = [], []
    for code in TYPES:
        for part, mapping, end in (("box", straight, straight_end), ("curved part", hook, hook_end)):
            for order in RULES:
                print(code, part, order, *[difference(code, mapping, end, order,w) for w in (False,True)])
    return Result("CalculiX on the same meshes", TEXT, checks, [], [])


TEXT = ""
