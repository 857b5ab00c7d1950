"""Weight that follows the design: nodal forces of each step, from the step's own levels.

They are section 3 of a load case's file, which holds nothing else where a weight follows. The
body forces that they are summed of are kept in the loop's folder from its beginning.
"""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import replace
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Model, forces
from vkctl.stress.weight import Weight, weight_of

from .. import history


def body_file(directory: Path, number: int) -> Path:
    return history.folder_of(directory) / f"weight.{number:04d}.npy"


def keep_bodies(directory: Path, bodies: Mapping[int, Array]) -> None:
    """Note the body forces (m, 3) of load cases, by their numbers."""
    for number, body in bodies.items():
        history.save_array(body_file(directory, number), body.ravel())


def read_weights(directory: Path, model: Model, load_cases: list[int]) -> dict[int, Weight]:
    """Weights of the load cases that have one that follows; FormatError for damaged ones."""
    count = 3 * len(model.elements)
    return {
        number: weight_of(
            model, history.load_array(body_file(directory, number), count).reshape(-1, 3)
        )
        for number in load_cases
    }


def write_weights(directory: Path, weights: Mapping[int, Weight], levels: Array) -> None:
    """Put the forces at levels per node into the files that the solver reads."""
    for number, weight in weights.items():
        sections = formats.read_loadcase_map(directory, number)
        following = replace(sections, forces3=weight_records(weight, levels))
        formats.write_loadcase_map(directory, number, following)


def set_weights(cases: list[LoadCase], weights: Mapping[int, Weight], levels: Array) -> None:
    """The same in a model's load cases."""
    for number, weight in weights.items():
        cases[number - 1].forces3 = weight_records(weight, levels)


def weight_records(weight: Weight, levels: Array) -> Array:
    """FORCE records of all nodes that carry some."""
    found = weight.nodal_forces(levels)
    numbers = np.flatnonzero(np.any(found, axis=1)) + 1
    return forces(numbers, found[numbers - 1])
