"""Models that the solver solves for questions, and what they are known to answer."""

from __future__ import annotations

from pathlib import Path

import numpy as np
from stress.states import solved

from vkctl.ask import Solved, open_study, solutions
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.directory.model import read as read_model
from vkctl.shapes.boxes import Box, box

SLOPE = 500.0  # of the presence, where no option sets it
# Of the material where the level is 1, as it is without a level field.
PRESENCE = (np.arctan(SLOPE) / np.pi + 0.5) * (1 - 0.001) + 0.001
DIRECT = {"Sys.ComputationMode": 2.0}
ELASTIC = Material.isotropic(1000.0, 0.0, expansion=1e-3)


def bar(kind: str, cells: tuple[int, int, int] = (8, 2, 2)) -> Box:
    """A bar of 8 x 2 x 1 along x."""
    return box(kind, cells, (8.0, 2.0, 1.0))  # type: ignore[arg-type]


def model_of(part: Box, case: LoadCase, material: Material = ELASTIC) -> Model:
    return Model(part.nodes, part.elements, [material], [case], options=dict(DIRECT))


def solve(model: Model, directory: Path) -> tuple[Model, Solved]:
    """The model as its directory has it, and its one load case, solved.

    The second run begins with the displacements of the first, which it stopped at 1e-5 of the
    largest force: it brings them to where single precision ends.
    """
    solved(model, directory, runs=2)
    return read_model(directory), next(solutions(open_study(directory)))
