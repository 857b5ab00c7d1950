"""The same meshes through CalculiX, an independent program."""

from __future__ import annotations

import numpy as np
from support import ccx, fem, solver
from support.closed import push
from support.mesh import NAMES, TYPES, Condition, Mapping, Mesh, block, faces_where, model
from support.page import Check, Result, Table, error_text
from support.pictures import picture

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model, elastic, prescribed
from vkctl.directory.numbering import prescribed_rows
from vkctl.shapes.topology import HEX8, TET4, TET10

from . import slender

TITLE = "CalculiX on the same meshes"
E, NU, EXPANSION = 1000.0, 0.3, 1e-3
MODULI, POISSON, SHEAR = (12000.0, 900.0, 500.0), (0.40, 0.45, 0.35), (700.0, 650.0, 60.0)
SPRING, AXES = 40.0, (1.0, 0.5, 2.0)  # of the springs: stiffness, and lengths of their axes
BOUND = 1e-4
CELLS = {TET4: (12, 4, 4), HEX8: (12, 4, 4), TET10: (6, 2, 2)}
RULES = {3: 1.0, 2: -0.5}  # order of the rule to the level that makes the solver take it


def straight(grid: Array) -> Array:
    x: Array = grid * [6.0, 2.0, 1.5]
    return x


def hook(grid: Array) -> Array:
    """A curved part: an arc of 100 degrees that widens and thickens along the way."""
    along, angle = grid[:, 0], np.radians(100.0) * grid[:, 0]
    r = 2.0 + (1.0 + 0.3 * along) * grid[:, 1]
    return np.column_stack((r * np.sin(angle), r * np.cos(angle), (1 + 0.4 * along) * grid[:, 2]))


def straight_end(x: Array, y: Array, z: Array) -> Array:
    return x > 6.0 - 1e-5


def hook_end(x: Array, y: Array, z: Array) -> Array:
    angle = np.radians(100.0)
    on_end: Array = np.abs(x * np.cos(angle) - y * np.sin(angle)) < 1e-5
    return on_end


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


def gap(a: Array, b: Array) -> float:
    """Largest difference of a component over the largest displacement."""
    return float(np.abs(a - b).max() / np.abs(b).max())


def setting(code: int, mapping: Mapping, end: Condition) -> tuple[Mesh, Array, Array]:
    """Mesh, held nodes and the consistent forces of a traction on the end."""
    mesh = block(code, CELLS[code], mapping)
    faces = faces_where(mesh, end)
    load = fem.face_load(mesh, faces, lambda p, n: np.broadcast_to([0.2, -1.0, 0.5], p.shape))
    return mesh, mesh.where(lambda x, y, z: x < 1e-5), load.astype(np.float32).astype(float)


def held(nodes: Array) -> ccx.Fixed:
    return [(int(node), d, 0.0) for node in nodes for d in range(3)]


def other(mesh: Mesh, root: Array, load: Array, heat: Array | None = None) -> Array:
    step = ccx.Step(held(root), load, heat)
    return ccx.solve(ccx.Job(mesh, ccx.isotropic(E, NU), [step], EXPANSION))[0]


def pulled(code: int) -> tuple[list[Check], list[str]]:
    """Box and curved part under the traction, and how far the two rules are apart."""
    name, law = NAMES[code], fem.isotropic(E, NU)
    box = setting(code, straight, straight_end)
    of_box = gap(by_solver(box[0], 3, *box[1:], None), other(*box))
    mesh, root, load = setting(code, hook, hook_end)
    foreign = other(mesh, root, load)
    coarse, fine = (by_solver(mesh, order, root, load, None) for order in (2, 3))
    checks = [
        Check(f"{name}, box, against CalculiX", of_box, BOUND),
        Check(
            f"{name}, curved part, rule of order 2, against CalculiX", gap(coarse, foreign), BOUND
        ),
        Check(
            f"{name}, curved part, rule of order 3, against numpy",
            gap(fine, fem.solve(mesh, law, root, load, 3)),
            BOUND,
        ),
    ]
    own = gap(fem.solve(mesh, law, root, load, 3), fem.solve(mesh, law, root, load, 2))
    return checks, [name, error_text(gap(fine, foreign)), error_text(own)]


def warmed(code: int) -> list[Check]:
    """The box under a temperature that is linear in space."""
    mesh, root, load = setting(code, straight, straight_end)
    load, heat = 0.0 * load, (mesh.nodes @ [4.0, 5.0, -3.0]).astype(np.float32).astype(float)
    own, foreign = by_solver(mesh, 3, root, load, heat), other(mesh, root, load, heat)
    if code != HEX8:
        return [Check(f"{NAMES[code]}, box, heat, against CalculiX", gap(own, foreign), BOUND)]
    q = fem.Points(HEX8, mesh.nodes, mesh.tables[HEX8], *fem.solver_rule(HEX8, 3))
    varying = EXPANSION * q.field(heat)
    mean = np.broadcast_to(varying.mean(axis=1, keepdims=True), varying.shape)
    law = fem.isotropic(E, NU)
    by_point, by_mean = (fem.solve(mesh, law, root, load, 3, t) for t in (varying, mean))
    return [
        Check("8-node hexahedra, box, heat, against numpy", gap(own, by_point), BOUND),
        Check(
            "CalculiX against numpy with one temperature an element", gap(foreign, by_mean), BOUND
        ),
    ]


def wooden(code: int) -> list[Check]:
    """The curved part, orthotropic, in three load cases and on springs; the rule is of order 2."""
    mesh, root, load = setting(code, hook, hook_end)
    factor = float(solver.presence(RULES[2]))
    e1, e2, e3, g12, g13, g23 = (value / factor for value in (*MODULI, *SHEAR))
    end = np.unique(faces_where(mesh, hook_end))
    moved = np.broadcast_to(np.array([0.02, -0.01, 0.03], np.float32), (len(end), 3))
    turned = load[:, [1, 2, 0]]
    held_case = LoadCase(constraints=prescribed(root + 1))
    moving = LoadCase(pattern=2, constraints=prescribed(root + 1))
    moving.prescribe(end + 1, "xyz", moved)
    turned_case = push(LoadCase(constraints=prescribed(root + 1)), turned)
    sprung = push(LoadCase(pattern=3, constraints=elastic(root + 1, np.diag(AXES))), load)
    part = model(
        mesh,
        [Material.orthotropic((e1, e2, e3), POISSON, (g12, g13, g23))],
        [push(held_case, load), moving, turned_case, sprung],
        options={"Sta.SupportStiffness": SPRING},
    )
    part.set_level(RULES[2])
    own = [answer.u for answer in solver.solve(part)]
    law = ccx.orthotropic(MODULI, POISSON, SHEAR)
    moves = [(int(n), d, float(moved[k, d])) for k, n in enumerate(end) for d in range(3)]
    steps = [
        ccx.Step(held(root), load),
        ccx.Step([*held(root), *moves], 0 * load),
        ccx.Step(held(root), turned),
    ]
    foreign = ccx.solve(ccx.Job(mesh, law, steps))
    springs = [(int(n), d, SPRING * AXES[d] ** 2) for n in root for d in range(3)]
    foreign += ccx.solve(ccx.Job(mesh, law, [ccx.Step([], load)], springs=springs))
    names = ("force", "prescribed displacements", "another force", "springs")
    return [
        Check(f"{NAMES[code]}, orthotropic, {name}, against CalculiX", gap(a, b), BOUND)
        for name, a, b in zip(names, own, foreign, strict=True)
    ]


def vaulted() -> Check:
    """Hexahedra of the thin roof, which lock in both programs alike."""
    mesh, cases = slender.roof(HEX8, (16, 16, 1))
    factor = float(solver.presence(RULES[2]))
    part = model(mesh, [Material.isotropic(slender.ROOF.e / factor, 0.0)], cases)
    part.set_level(RULES[2])
    own = solver.solve(part)[0].u
    load = np.zeros_like(mesh.nodes)
    load[cases[0].forces2["Node"] - 1] = cases[0].forces2["Force"]
    held_rows, _, direction = prescribed_rows(cases[0].constraints)
    nodes = cases[0].constraints["Node"][held_rows] - 1
    fixed = [(int(n), int(d), 0.0) for n, d in zip(nodes, direction, strict=True)]
    step = ccx.Step(fixed, load)
    foreign = ccx.solve(ccx.Job(mesh, ccx.isotropic(slender.ROOF.e, 0.0), [step]))[0]
    return Check("8-node hexahedra, Scordelis-Lo roof, against CalculiX", gap(own, foreign), BOUND)


def hooked() -> Model:
    mesh, root, load = setting(TET10, hook, hook_end)
    return model(mesh, [solver.solid(E, NU)], [push(LoadCase().prescribe(root + 1), load)])


def run(quick: bool) -> Result:
    if not ccx.available():
        return Result(TITLE, TEXT, [Check("ccx is installed", 1.0, 0.0)])
    checks, rows = [], []
    for code in TYPES:
        found, row = pulled(code)
        checks += found + warmed(code) + wooden(code)
        rows.append(row)
    checks.append(vaulted())
    head = ["type", "solver, order 3, and CalculiX", "numpy, orders 3 and 2"]
    caption = "Curved part, default rule: what the other rule of CalculiX makes:"
    return Result(
        TITLE,
        TEXT,
        checks,
        [Table(head, rows, caption)],
        [],
        REMARKS,
        [
            picture(
                "hook",
                "curved part, von Mises stress",
                "Curved part: mesh of 10-node tetrahedra, von Mises stress",
                hooked,
                "von_mises",
            )
        ],
    )


TEXT = """
A box of 6 by 2 by 1.5 and a curved part, an arc of 100 degrees that widens and thickens along the
way, held at one end and under a traction at the other, and the box under a temperature linear in
space. The same nodes, elements and nodal forces go to CalculiX 2.20 (C3D4, C3D8, C3D10; both
programs number the nodes of all three types alike); its table of displacements has seven digits,
as the solver's float32 has, so that nothing below some 3e-7 can be told. Error: largest
difference of a displacement component over the largest displacement.
"""

REMARKS = """
The presence factor is taken out as everywhere by E / H. On a box all rules are exact and the
default rule is compared. On the curved part rules matter: CalculiX integrates C3D8 with 2 by 2 by
2 points and C3D10 with 4, which are the solver's rules of order 2. The solver takes order 3 where
there is material. So the curved part is compared twice. A level of -0.5 at all nodes makes the
solver choose order 2, with E / H(-0.5) as modulus, and both programs agree to single precision.
The default rule is compared with numpy using that rule, and its difference to CalculiX is that of
the two rules in numpy, shown in the table.

Heat on hexahedra: CalculiX gives an 8-node element the mean of its nodal temperatures at all
points, while the solver interpolates, which leads to differences of some percent on this coarse
mesh. Numpy with one temperature an element gives CalculiX's answer, numpy with the interpolated
one the solver's.

The orthotropic curved part has three load cases in one model, two of the same supports, and a
fourth on springs of another stiffness in each direction instead of supports; the thin roof is the
one [below](#thin-parts-cantilever-twisted-beam-scordelis-lo-roof), on 16 by 16 hexahedra, a
quarter of whose deflection is all that either program finds. All of them take the rule of order
2.
"""
