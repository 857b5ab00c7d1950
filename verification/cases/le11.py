"""NAFEMS LE11: solid cylinder, taper and sphere under a temperature field."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from support import fem, solver
from support.mesh import Mesh, block, model
from support.page import Result
from support.pictures import picture
from support.recovery import Level, finest, level, series

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Model, prescribed
from vkctl.shapes.topology import HEX8, TET10

TITLE = "NAFEMS LE11: solid cylinder, taper and sphere under a temperature field"
E, NU, EXPANSION = 210e3, 0.3, 2.3e-4  # MPa, -, per degree
TARGET = -105.0  # MPa
A = (1.0, 0.0, 0.0)
TOP = 1.79
CELLS = {  # through the wall, along it (a multiple of 4), around
    HEX8: [(2, 8, 4), (4, 16, 6), (8, 32, 12), (12, 48, 18)],
    TET10: [(1, 4, 2), (2, 8, 4), (3, 12, 6), (4, 16, 8)],
}
BOUNDS = {HEX8: (0.02, 0.01), TET10: (0.03, 0.01)}
QUICK_BOUNDS = {HEX8: (0.1, 0.1), TET10: (0.05, 0.1)}


def _arc(radius: float, degrees: Array) -> Array:
    angle = np.radians(degrees)
    return radius * np.column_stack((np.cos(angle), np.sin(angle)))


def _line(start: tuple[float, float], end: tuple[float, float], t: Array) -> Array:
    return (1 - t[:, None]) * start + t[:, None] * end


def _pieces(t: Array, pieces: list[Callable[[Array], Array]]) -> Array:
    """Curve of four pieces, each over a quarter of 0..1, given by functions of 0..1."""
    k = np.minimum((4 * t).astype(int), 3)
    points = np.empty((len(t), 2))
    for piece, curve in enumerate(pieces):
        points[k == piece] = curve(4 * t[k == piece] - piece)
    return points


def wall(grid: Array) -> Array:
    """Unit cube (outwards, along the axis, around) to the quarter of the body."""
    r45 = np.sqrt(0.5)
    inner = [
        lambda t: _arc(1.0, 22.5 * t),
        lambda t: _arc(1.0, 22.5 + 22.5 * t),
        lambda t: _line((r45, r45), (r45, (r45 + TOP) / 2), t),
        lambda t: _line((r45, (r45 + TOP) / 2), (r45, TOP), t),
    ]
    d = (1.4 * np.cos(np.pi / 6), 0.7)
    f = ((d[0] + 1.0) / 2, 1.045)
    outer = [
        lambda t: _arc(1.4, 30.0 * t),
        lambda t: _line(d, f, t),
        lambda t: _line(f, (1.0, 1.39), t),
        lambda t: _line((1.0, 1.39), (1.0, TOP), t),
    ]
    s, along, angle = grid[:, :1], grid[:, 1], 0.5 * np.pi * grid[:, 2]
    r, z = ((1 - s) * _pieces(along, inner) + s * _pieces(along, outer)).T
    return np.column_stack((r * np.cos(angle), r * np.sin(angle), z))


def temperature(mesh: Mesh) -> Array:
    x, y, z = mesh.nodes.T
    found: Array = np.hypot(x, y) + z
    return found


def posed(code: int, cells: tuple[int, int, int]) -> tuple[Mesh, Model]:
    mesh = block(code, cells, wall)
    case = LoadCase(constraints=prescribed(mesh.where(lambda x, y, z: x < 1e-5) + 1, "x"))
    for condition, direction in (
        (lambda x, y, z: y < 1e-5, "y"),
        (lambda x, y, z: (z < 1e-5) | (z > TOP - 1e-5), "z"),
    ):
        rows = prescribed(mesh.where(condition) + 1, direction)
        case.constraints = np.concatenate((case.constraints, rows))
    case.heat(np.arange(1, len(mesh.nodes) + 1), temperature(mesh))
    steel = solver.solid(E, NU, expansion=EXPANSION)
    return mesh, model(mesh, [steel], [case])


def solved(code: int, cells: tuple[int, int, int]) -> Level:
    mesh, part = posed(code, cells)
    u = solver.solve(part)[0].u
    return level(mesh, u, fem.isotropic(E, NU), mesh.at(A), 2, EXPANSION * temperature(mesh))


def run(quick: bool) -> Result:
    take = 3 if quick else 4
    levels = {code: [solved(code, c) for c in cells[:take]] for code, cells in CELLS.items()}
    checks = finest(levels, TARGET, QUICK_BOUNDS if quick else BOUNDS)
    table, figure = series("le11", "stress zz at A", TARGET, levels)
    shown = picture(
        "le11_mesh",
        "LE11, von Mises stress",
        "LE11: mesh of 10-node tetrahedra, von Mises stress",
        lambda: posed(TET10, CELLS[TET10][3])[1],
        "von_mises",
    )
    return Result(TITLE, TEXT, checks, [table], [figure], REMARKS, [shown])


TEXT = """
A body of revolution, a quarter of it meshed: inside a sphere of radius 1 m up to 45 degrees, then
a cylinder of radius 0.7071 m; outside a sphere of radius 1.4 m up to 30 degrees, a taper to
radius 1 m at height 1.39 m, then a cylinder; height 1.79 m. E = 210 GPa, Poisson's ratio 0.3,
expansion coefficient 2.3e-4 per degree, temperature sqrt(x^2 + y^2) + z. Symmetry planes, bottom
and top held normally. Wanted: stress zz at A = (1, 0, 0), on the inner sphere at the bottom.
Reference: -105 MPa (The Standard NAFEMS Benchmarks, Rev. 3, 1990, test LE11). Recovery of the
stress as in LE10, the thermal strain of the element's own interpolation taken off.
"""

REMARKS = """
The field varies smoothly around A, so the fit is within 1 % from the third refinement on. The
mean at the node is of first order for hexahedra and trails for tetrahedra too, since A lies on
the surface and all its elements are on one side.
"""
