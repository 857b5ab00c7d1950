"""Small models that the tests start from."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.shapes.boxes import Box, Kind, box
from vkctl.shapes.elements import Elements

KINDS: tuple[Kind, ...] = ("tet4", "hex8", "tet10", "mixed")
CELLS = {"tet4": (3, 2, 2), "hex8": (3, 2, 2), "tet10": (2, 1, 1), "mixed": (3, 1, 1)}
SIZE = (3.0, 2.0, 1.5)

STEEL = Material.isotropic(1000.0, 0.3, expansion=1e-3, limit_stress=1.5)
MATERIALS = {
    "isotropic": STEEL,
    "initially strained": Material.isotropic(1000.0, 0.2, initial_strain=1e-3),
    "yielding": Material.yielding(1000.0, 0.3, 5.0, hardening_ratio=0.1, expansion=1e-3),
    "compression only": Material.compression_only(1000.0, 0.25, initial_strain=-1e-3),
    "orthotropic": Material.orthotropic(
        (1000.0, 600.0, 400.0),
        (0.2, 0.25, 0.3),
        (300.0, 200.0, 250.0),
        expansions=(1e-3, 2e-3, -5e-4),
        initial_strain=5e-4,
        limit_stress=0.7,
    ),
}


def random(seed: int) -> np.random.Generator:
    return np.random.default_rng(seed)


def part(kind: Kind = "tet4", level: bool = True) -> tuple[Model, Box]:
    """A distorted box of one material without load cases, with a rough level field."""
    mesh = box(kind, CELLS[kind], SIZE, distortion=0.1)
    model = Model(mesh.nodes, mesh.elements, [STEEL])
    if level:
        model.set_level(random(1).uniform(-0.6, 1.0, len(mesh.nodes)))
    return model, mesh


def pulled(mesh: Box, pattern: int = 1, force: npt.ArrayLike = (1.0, 2.0, -3.0)) -> LoadCase:
    """Held at one end and loaded all over the other."""
    return LoadCase(pattern=pattern).prescribe(mesh.face("x-")).load(mesh.face("x+"), force)


def written(directory: Path, model: Model, *cases: LoadCase, **options: float) -> Path:
    """Working directory of a model with these load cases; options as `Sys_ComputationMode=1`."""
    model.load_cases = list(cases) or model.load_cases
    model.options |= {key.replace("_", "."): value for key, value in options.items()}
    write(model, directory)
    return directory


def tiny(directory: Path, *cases: LoadCase, **options: float) -> Path:
    """Two tetrahedra on five nodes, held at the three nodes they share."""
    nodes = ((0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1), (0.3, 0.3, -1))
    elements = Elements.from_tables(tet4=((1, 2, 3, 4), (2, 1, 3, 5)))
    model = Model(np.array(nodes), elements, [STEEL])
    return written(directory, model, *(cases or (tiny_case(),)), **options)


def tiny_case(pattern: int = 1, force: npt.ArrayLike = (1.0, 2.0, 3.0), **values: Any) -> LoadCase:
    return LoadCase(pattern=pattern, **values).prescribe((1, 2, 3)).load(4, force)
