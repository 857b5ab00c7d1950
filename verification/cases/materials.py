"""Several materials in one part, and Poisson's ratio towards a half."""

from __future__ import annotations

import numpy as np
from support import solver
from support.figures import Figure
from support.mesh import NAMES, TYPES, Mesh, block, model
from support.page import Check, Result, Table, compare, number
from support.pictures import picture

from vkctl import stress
from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.topology import HEX8, TET4, TET10

from . import thick_cylinder

Cells = tuple[int, int, int]
TITLE = "Several materials, and Poisson's ratio towards 0.5"

# --- bimetal ------------------------------------------------------------------------------------

LENGTH, WIDTH, LOWER, UPPER = 10.0, 1.0, 0.4, 0.6
STRIP = ((3000.0, 2e-4), (1000.0, 1e-3))  # E and expansion, below and above; Poisson's ratio 0
WARMTH = 10.0
STRIP_CELLS = {TET4: (80, 4, 10), HEX8: (80, 2, 10), TET10: (20, 2, 5)}


def curvature() -> float:
    """Of Timoshenko's bimetal strip, downwards where the upper layer grows more."""
    (below, less), (above, more) = STRIP
    m, n = LOWER / UPPER, below / above
    layers = 3 * (1 + m) ** 2 + (1 + m * n) * (m * m + 1 / (m * n))
    return 6 * (more - less) * WARMTH * (1 + m) ** 2 / ((LOWER + UPPER) * layers)


def strip(code: int) -> tuple[Mesh, Model]:
    height = LOWER + UPPER
    mesh = block(code, STRIP_CELLS[code], lambda g: (g - [0.5, 0.5, 0]) * [LENGTH, WIDTH, height])
    case = LoadCase().heat(np.arange(1, len(mesh.nodes) + 1), WARMTH)
    for point, directions in (
        ((0, 0, 0), "xyz"), ((0, 0, height), "xy"), ((LENGTH / 2, 0, 0), "y"),
    ):  # fmt: skip
        case.prescribe([mesh.at(point) + 1], directions)
    _, table = mesh.only()
    material = 1 + (mesh.nodes[table][:, :, 2].mean(axis=1) > LOWER)
    metals = [solver.solid(e, 0.0, expansion=growth) for e, growth in STRIP]
    return mesh, model(mesh, metals, [case], material_index=material)


def bent(code: int) -> float:
    """Curvature of the middle half of the strip's lower middle line."""
    mesh, part = strip(code)
    u = solver.solve(part)[0].u
    line = mesh.where(lambda x, y, z: (abs(y) < 1e-5) & (z < 1e-5) & (abs(x) < LENGTH / 4 + 1e-5))
    return float(-2 * np.polyfit(mesh.nodes[line, 0], u[line, 2], 2)[0])


# --- cylinder of two materials ------------------------------------------------------------------

INNER, SEAM, OUTER, PRESSURE = 1.0, 1.5, 2.0, 10.0
LAYERS = ((3000.0, 0.3), (1000.0, 0.2))  # E and Poisson's ratio, inside and outside
CYLINDER_CELLS = {TET4: (16, 24, 2), HEX8: (16, 24, 1), TET10: (8, 12, 1)}


def constants() -> Array:
    """A and B of u = A r + B / r in the two layers, in plane strain."""

    def radial(layer: int, r: float) -> Array:
        e, nu = LAYERS[layer]
        row = np.zeros(4)
        row[2 * layer : 2 * layer + 2] = np.array([1.0, -(1 - 2 * nu) / r**2])
        return row * e / ((1 + nu) * (1 - 2 * nu))

    move = np.array([SEAM, 1 / SEAM, -SEAM, -1 / SEAM])
    rows = [radial(0, INNER), move, radial(0, SEAM) - radial(1, SEAM), radial(1, OUTER)]
    return np.linalg.solve(np.array(rows), [-PRESSURE, 0, 0, 0])


def hoop(layer: int) -> float:
    """Stress around the axis at the seam, in either layer."""
    e, nu = LAYERS[layer]
    a, b = constants()[2 * layer : 2 * layer + 2]
    return float(e / ((1 + nu) * (1 - 2 * nu)) * (a + (1 - 2 * nu) * b / SEAM**2))


def lined(code: int) -> tuple[Mesh, Model]:
    mesh, part = thick_cylinder.posed(code, CYLINDER_CELLS[code])
    _, table = mesh.only()
    middle = mesh.nodes[table].mean(axis=1)
    outside = np.hypot(middle[:, 0], middle[:, 1]) > SEAM
    pair = [solver.solid(e, nu) for e, nu in LAYERS]
    return mesh, model(mesh, pair, part.load_cases, material_index=1 + outside)


def pressed(code: int) -> tuple[float, list[float]]:
    """Mean displacement of the bore, and the recovered hoop stress on either side of the seam."""
    mesh, part = lined(code)
    place = solver.Workplace(part)
    place.solve()
    u = place.solve()[0].u
    found = stress.nodal_stress(stress.read_solution(place.path, 1))
    sides = []
    for of_material in found.parts:
        x, y, _ = mesh.nodes[of_material.nodes - 1].T
        seam = np.abs(np.hypot(x, y) - SEAM) < 1e-5
        angle = np.arctan2(y, x)[seam]
        xx, yy, _, xy, _, _ = of_material.stress[seam].T
        around = xx * np.sin(angle) ** 2 + yy * np.cos(angle) ** 2 - xy * np.sin(2 * angle)
        sides.append(float(around.mean()))
    return thick_cylinder.mean_radial(mesh, u), sides


# --- towards incompressibility ------------------------------------------------------------------

RATIOS = (0.3, 0.45, 0.49, 0.499, 0.4999)


def swollen(code: int, nu: float) -> float:
    """Error of the bore's displacement of Lame's cylinder."""
    mesh, part = thick_cylinder.posed(code, thick_cylinder.CELLS[code][1])
    part.materials = [solver.solid(thick_cylinder.E, nu)]
    u = solver.solve(part)[0].u
    share = thick_cylinder.PRESSURE * INNER**2 / (OUTER**2 - INNER**2)
    wanted = (1 + nu) / thick_cylinder.E * share * ((1 - 2 * nu) * INNER + OUTER**2 / INNER)
    return thick_cylinder.mean_radial(mesh, u) / wanted - 1


BOUNDS = {  # curvature, bore, hoop stress inside and outside, error of the bore at 0.4999
    TET4: (0.06, 5e-3, 0.03, 0.25),
    HEX8: (0.012, 2e-3, 0.025, 0.9),
    TET10: (1e-4, 2e-4, 3e-3, 0.02),
}


def run(quick: bool) -> Result:
    checks: list[Check] = []
    rows, curves = [], {}
    a, b = constants()[:2]
    for code in TYPES:
        name, bounds = NAMES[code], BOUNDS[code]
        checks.append(compare(f"{name}, bimetal, curvature", bent(code), curvature(), bounds[0]))
        bore, sides = pressed(code)
        wanted = a * INNER + b / INNER
        checks.append(compare(f"{name}, two layers, bore", bore, wanted, bounds[1]))
        for layer, side in enumerate(("inside", "outside")):
            title = f"{name}, two layers, hoop stress {side} of the seam"
            checks.append(compare(title, sides[layer], hoop(layer), bounds[2]))
        errors = [swollen(code, nu) for nu in RATIOS]
        rows += [
            [name, number(nu), f"{100 * e:+.2f} %"] for nu, e in zip(RATIOS, errors, strict=True)
        ]
        curves[name] = ([1 - 2 * nu for nu in RATIOS], [abs(e) for e in errors])
        checks.append(Check(f"{name}, Poisson's ratio 0.4999, bore", abs(errors[-1]), bounds[3]))
    caption = "error of the bore's displacement as Poisson's ratio nu comes near 0.5"
    figure = Figure("incompressible", "1 - 2 nu", "error of the displacement", curves, caption)
    head = ["type", "Poisson's ratio", "error of the bore's displacement"]
    table = Table(head, rows, "Thick cylinder under internal pressure:")
    shown = [
        picture("bimetal", "bimetal strip", "bimetal strip, 10-node tetrahedra, displacements",
                lambda: strip(TET10)[1]),
        picture("lined", "cylinder of two materials, von Mises stress",
                "cylinder of two materials, von Mises stress", lambda: lined(TET10)[1], "von_mises",
                (0.0, 0.0, 1.0)),
    ]  # fmt: skip
    return Result(TITLE, TEXT, checks, [table], [figure], REMARKS, shown)


TEXT = """
**Bimetal.** A strip of 10 by 1, 0.4 of a metal with E = 3000 and expansion 2e-4 under 0.6 of
another with E = 1000 and 1e-3, Poisson's ratio 0, free and warmed by 10 degrees. Reference: the
curvature of S. Timoshenko (J. Opt. Soc. Am. 11, 1925, 233-255), from the deflections of the
strip's middle half. **Two layers.** The thick cylinder of radii 1 and 2 with E = 3000, Poisson's
ratio 0.3 up to radius 1.5 and E = 1000, 0.2 outside of it. Reference: Lame's displacement A r + B
/ r in each layer, joined at the seam. The stress around the axis jumps there; `vkctl` recovers it
on either side, from the elements of that material alone. **Poisson's ratio.** The thick cylinder
of one material, the middle one of its three meshes, with Poisson's ratios up to 0.4999, against
Lame.
"""

REMARKS = """
**Towards 0.5 linear elements lock.** With all its integration points an 8-node hexahedron can't
keep its volume but for simple motions: at 0.49 it loses several percent, at 0.4999 four fifths of
the displacement. 10-node tetrahedra are the ones to take, 1 % off at 0.4999. `vkctl check` warns
from 0.49 on. The jump of stress at the seam is recovered to 0.1 % with 10-node tetrahedra and to
1 to 2 % with the linear types, none of it smeared over the seam.
"""
