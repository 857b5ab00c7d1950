"""Patch tests: a displacement field of constant strain on distorted meshes."""

from __future__ import annotations

import numpy as np
from support import solver
from support.mesh import NAMES, TYPES, Mesh, block, boundary, merge, model, shake
from support.page import Check, Result

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, prescribed
from vkctl.shapes.topology import HEX8, TET4, TET10

TITLE = "Patch tests of constant strain"
E, NU = 210000.0, 0.3
GRADIENT = 1e-3 * np.array([[1.0, 0.5, -0.3], [0.2, -0.7, 0.4], [0.6, -0.1, 0.8]])
BOUND = 2e-6


def linear(x: Array) -> Array:
    return x @ GRADIENT.T + 1e-3 * np.array([0.3, -0.2, 0.1])


def patch_error(mesh: Mesh, fixed: Array, level: float | None = None) -> float:
    """Largest nodal error relative to the largest displacement, boundary prescribed.

    `level` 1 where None; a level at every node otherwise.
    """
    wanted = linear(mesh.nodes)
    factor = float(solver.presence(-0.5)) if level is not None else solver.FULL
    case = LoadCase(constraints=prescribed(fixed + 1, "xyz", wanted[fixed]))
    patch = model(mesh, [Material.isotropic(E / factor, NU)], [case])
    if level is not None:
        patch.set_level(level)
    u = solver.solve(patch)[0].u
    return float(np.abs(u - wanted).max() / np.abs(wanted).max())


def outside(mesh: Mesh) -> Array:
    """Nodes on the boundary of the unit cube's image; valid for undeformed outer faces."""
    x = mesh.nodes
    return np.flatnonzero(((x < 1e-6) | (x > 1.0 - 1e-6)).any(axis=1))


def curved(mesh: Mesh) -> Mesh:
    """Inner nodes moved by a smooth field, mid-edge nodes off the middles of their edges."""
    s = np.sin(np.pi * mesh.nodes)
    bump = 0.12 * s.prod(axis=1)
    waves = np.cos(np.pi * mesh.nodes @ [[1.0, 0.6, -0.8], [0.4, -1.0, 0.7], [0.9, 0.5, 1.0]])
    return Mesh(mesh.nodes + bump[:, None] * waves, mesh.tables)


def half(code: int, low: float, cells: tuple[int, int, int]) -> Mesh:
    """The part of the unit cube between heights low and low + 1/3."""
    return block(code, cells, lambda g: g * [1.0, 1.0, 1.0 / 3.0] + [0.0, 0.0, low])


def mixed(seam_shift: float) -> tuple[Mesh, Array]:
    """Layers of hexahedra, of 4-node and of 10-node tetrahedra, with their prescribed nodes.

    Inner nodes of the layers are shaken. `seam_shift` moves the nodes of the seam between
    hexahedra and tetrahedra within its plane.
    """
    layers = [half(HEX8, 0.0, (4, 4, 2)), half(TET4, 1 / 3, (4, 4, 2))]
    layers.append(half(TET10, 2 / 3, (4, 4, 1)))
    layers = [shake(layer, 0.03, seed) for seed, layer in enumerate(layers)]
    mesh = merge(layers)
    nodes = mesh.nodes.copy()
    seam = (abs(nodes[:, 2] - 1 / 3) < 1e-5) & (np.abs(nodes[:, :2] - 0.5) < 0.49).all(axis=1)
    nodes[seam, :2] += seam_shift * np.random.default_rng(7).uniform(-1, 1, (seam.sum(), 2))
    mesh = Mesh(nodes, mesh.tables)
    upper = mesh.where(lambda x, y, z: abs(z - 2 / 3) < 1e-5)
    return mesh, np.union1d(outside(mesh), upper)


def run(quick: bool) -> Result:
    checks = []
    for code in TYPES:
        mesh = shake(block(code, (3, 3, 3)), 0.08)
        for level, rule in ((None, "order 3"), (-1.0, "order 2")):
            error = patch_error(mesh, np.unique(boundary(*mesh.only())), level)
            checks.append(Check(f"{NAMES[code]}, distorted, rule of {rule}", error, BOUND))
    bent = curved(block(TET10, (3, 3, 3)))
    fixed = np.unique(boundary(*bent.only()))
    checks.append(
        Check("10-node tetrahedra, curved edges, rule of order 3", patch_error(bent, fixed), BOUND)
    )
    weak = patch_error(bent, fixed, -1.0)
    checks.append(Check("10-node tetrahedra, curved edges, rule of order 2", weak, 1e-3))
    checks.append(
        Check("all three types in one model, regular seam", patch_error(*mixed(0)), BOUND)
    )
    torn = patch_error(*mixed(0.04))
    checks.append(Check("all three types in one model, distorted seam", torn, 1e-2))
    return Result(TITLE, TEXT, checks, remarks=REMARKS)


TEXT = """
A cube of 3 by 3 by 3 cells, its inner nodes moved at random by up to 0.08 (a quarter of the cell
size), all boundary nodes prescribed by a linear displacement field with a full gradient. The
exact answer is the same linear field at every inner node (Irons and Razzaque, The Mathematical
Foundations of the Finite Element Method, 1972, 557-587). Each type runs with level 1, where the
rule of order 3 is chosen, and with a level of -0.5 at all nodes, where it is order 2. Error: the
largest nodal error over the largest displacement.
"""

REMARKS = """
Curved 10-node tetrahedra: constant stress needs the exact integral of a shape function's
gradient times the Jacobian determinant, a polynomial of degree 3 where edges are curved. The
rule of order 3 integrates it, that of order 2 is exact to degree 2 only. The test is passed
exactly with the first and not with the second, which the solver chooses only where the level is
at or below -0.2, so where there is next to no material.

Mixed model: three layers share their nodes. The quadrilateral of a hexahedron and the two
triangles of tetrahedra on it carry different shape functions, so no seam between them conforms:
a linear field is in both spaces, but the nodal forces of a constant stress are a quarter of the
face each on one side and a third or a sixth on the other. On a regular seam, cut by parallel
diagonals, the six triangles around an inner node give the same sum as the four quadrilaterals
and the test is passed exactly; that is the case above. With the seam's nodes moved within its
plane by up to 0.04 the sums differ and the error shown is what remains; it belongs to the mesh,
not to the solver. The seam towards 10-node tetrahedra has its nodes prescribed, since mid-edge
nodes have no partner on the other side.
"""
