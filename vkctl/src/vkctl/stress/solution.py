"""What stresses follow from: the model and the displacements of one load case, gathered."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.formats.options_file import OPTIONS
from vkctl.directory.levels import level_field
from vkctl.directory.model import Model, read
from vkctl.directory.numbering import EXCLUDED
from vkctl.directory.results import KEEP_QUALITY, Results, read_results
from vkctl.shapes.elements import Elements
from vkctl.shapes.topology import NODES_PER_TYPE

from .law import Laws, element_factors, laws_of


@dataclass(frozen=True)
class Solution:
    """One solved load case, in double precision; made by `solution_of`."""

    nodes: Array  # (n, 3)
    elements: Elements
    active: Array  # bool (m,): takes part, and is of a known type
    levelled: Array  # bool (m,): follows the level field
    levels: Array  # (n,)
    slope: float  # of the presence over the level
    displacements: Array  # (n, 3)
    temperatures: Array | None  # (n,); None where the load case has none
    laws: Laws
    factors: Array  # (m,) on the laws


def has_stress(results: Results) -> bool:
    """Whether the solve was good enough to leave displacements, from which stresses follow."""
    return results.displacements is not None and results.quality > KEEP_QUALITY


def solution_of(model: Model, results: Results) -> Solution:
    """Gather a load case; ValueError where its results can't tell a stress, or are another model's.

    Element states are those that the run left, which its next repetition begins with: of a model
    that has settled they are those that the displacements belong to.
    """
    displacements = results.displacements
    if displacements is None or not has_stress(results):
        raise ValueError(
            f"load case {results.number} was solved too poorly to leave displacements, "
            "from which stresses follow"
        )
    _require_length(results, displacements, len(model.nodes), "displacements")
    states = results.element_state if any(m.has_state for m in model.materials) else None
    _require_length(results, states, len(model.elements), "element states")
    return _gathered(model, displacements, _temperatures(model, results.number), states)


def undeformed(model: Model) -> Solution:
    """The model at rest, for what its shape alone tells."""
    return _gathered(model, np.zeros((len(model.nodes), 3)), None, None)


def _gathered(
    model: Model, displacements: Array, temperatures: Array | None, states: Array | None
) -> Solution:
    assert model.element_flags is not None
    active = model.element_flags & EXCLUDED == 0
    active &= np.isin(model.elements.type_codes, list(NODES_PER_TYPE))
    materials = model.elements.materials.astype(np.int64)
    outside = active & ((materials < 1) | (materials > len(model.materials)))
    if outside.any():
        number = int(np.flatnonzero(outside)[0]) + 1
        raise ValueError(f"element {number} is of material {materials[number - 1]}, not there")
    materials = np.where(active, materials, 1)
    yield_factor = option_of(model, "Sta.YieldStressFac")
    return Solution(
        nodes=np.asarray(model.nodes, np.float64),
        elements=model.elements,
        active=active,
        levelled=model.element_flags & formats.ELEMENT_NO_LEVEL == 0,
        levels=level_field(model).astype(np.float64),
        slope=option_of(model, "Sta.MatSlopeFactor"),
        displacements=displacements.astype(np.float64),
        temperatures=temperatures,
        laws=laws_of(model.materials),
        factors=element_factors(model.materials, materials, states, yield_factor),
    )


def read_solution(directory: PathLike, number: int) -> Solution:
    """`solution_of` a load case of a working directory."""
    return solution_of(read(directory), read_results(directory, number))


def _require_length(results: Results, values: Array | None, count: int, what: str) -> None:
    if values is not None and len(values) != count:
        text = f"load case {results.number} has {len(values)} {what}, the model has {count}"
        raise ValueError(text)


def option_of(model: Model, key: str) -> float:
    """An option of a model as the solver takes it."""
    option = OPTIONS[key]
    return option.taken(model.options.get(key, option.default))


def _temperatures(model: Model, number: int) -> Array | None:
    if not 1 <= number <= len(model.load_cases):
        raise ValueError(f"there is no load case {number}")
    pairs = model.load_cases[number - 1].scalars
    if not len(pairs):
        return None
    inside = (pairs["Node"] >= 1) & (pairs["Node"] <= len(model.nodes))
    if not inside.all():
        raise ValueError(f"load case {number} has a temperature at a node that isn't there")
    values = np.zeros(len(model.nodes))
    values[pairs["Node"] - 1] = pairs["Value"]  # of a node named twice the later one
    return values
