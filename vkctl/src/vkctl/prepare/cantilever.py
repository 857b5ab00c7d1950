"""The cantilever of the quick start: about 100,000 equations, two load cases."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.sides import side_sets
from vkctl.shapes.boxes import Box, box

LENGTH, WIDTH = 420.0, 95.0  # mm
CELLS = (84, 19, 19)
E, NU = 210000.0, 0.3  # MPa, steel
DENSITY = 7.85e-9  # t/mm^3
BENDING_FORCE = 20000.0  # N, downwards at the tip
TWISTING_MOMENT = 2.0e6  # N mm, about the long axis

_NOTES = formats.CaseNotes(
    "mm-N-MPa",
    (DENSITY,),
    {"clamp": formats.Condition("fixed", ("x-",))},
    {
        "bend": formats.Condition("traction", ("x+",)),
        "twist": formats.Condition("traction", ("x+",)),
    },
    (
        formats.NotedCase("bent", ("clamp",), {"bend": 1.0}),
        formats.NotedCase("twisted", ("clamp",), {"twist": 1.0}),
    ),
)


def cantilever() -> tuple[Model, Box]:
    """Steel bar of 420 x 95 x 95 mm, clamped at x = 0: bent in case 1, twisted in case 2.

    Both load cases have one pattern, so the second finds matrix and factor ready. All nodes are
    design points with the level 1: the part fills the box.
    """
    part = box("tet4", CELLS, (LENGTH, WIDTH, WIDTH))
    clamped = part.face("x-")
    bending = LoadCase(reserved=b"bent").prescribe(clamped)
    bending.load(*part.traction("x+", (0.0, 0.0, -BENDING_FORCE / WIDTH**2)))
    twisting = LoadCase(reserved=b"twisted").prescribe(clamped)
    twisting.load(*part.traction("x+", _whirl))
    model = Model(
        part.nodes,
        part.elements,
        [Material.isotropic(E, NU, name="steel")],
        [bending, twisting],
    )
    model.set_level(1.0)
    model.sets, model.notes = side_sets(part), _NOTES
    return model, part


def _whirl(points: Array) -> Array:
    """Traction around the axis, proportional to the distance, of moment TWISTING_MOMENT."""
    y, z = points[:, 1] - WIDTH / 2, points[:, 2] - WIDTH / 2
    return np.column_stack((np.zeros(len(points)), -z, y)) * TWISTING_MOMENT / (WIDTH**4 / 6)


def write_cantilever(directory: PathLike) -> None:
    """Write the working directory of `cantilever`."""
    write(cantilever()[0], directory)


def beam_deflection() -> float:
    """Tip deflection of the bending case by beam theory with shear (Timoshenko 1921), mm."""
    inertia = WIDTH**4 / 12
    bending = BENDING_FORCE * LENGTH**3 / (3 * E * inertia)
    shear_modulus = E / (2 * (1 + NU))
    return bending + BENDING_FORCE * LENGTH / (5 / 6 * shear_modulus * WIDTH**2)
