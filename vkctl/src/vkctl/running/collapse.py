"""Whether a load case has settled on a part that can't carry its loads."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.levels import level_field
from vkctl.directory.model import Material, Model, read
from vkctl.directory.numbering import EXCLUDED
from vkctl.directory.results import LOWEST_STATE
from vkctl.shapes.topology import HEX8, NODES_PER_TYPE


def spent_elements(directory: PathLike, number: int) -> int:
    """How many yielding elements of a load case have no stiffness left but the solver's least.

    They are strained a thousand times as far as they yield at: nothing but that least ends their
    yielding. Elements that reach out of the part don't count, nor do those that take compression
    only, which may well carry nothing.
    """
    try:
        states = formats.read_element_state(directory, number)
    except FileNotFoundError:
        return 0
    spent = states <= np.float32(LOWEST_STATE)
    if not spent.any():
        return 0
    model = read(directory)
    if len(states) != len(model.elements) or model.options.get("Sta.YieldStressFac", 1.0) <= 0:
        return 0
    return int((spent & _yielding(model) & _whole(model)).sum())


def _yielding(model: Model) -> Array:
    """Mask of the elements whose factor follows a yield stress."""
    follows = np.array([_yields(material) for material in model.materials], np.bool_)
    place = model.elements.materials.astype(np.int64) - 1
    known = (place >= 0) & (place < len(follows))
    found = np.zeros(len(place), np.bool_)
    found[known] = follows[place[known]]
    return found


def _yields(material: Material) -> bool:
    others = formats.MATERIAL_ORTHOTROPIC | formats.MATERIAL_COMPRESSION_ONLY
    return bool(material.flags & formats.MATERIAL_YIELDING) and not material.flags & others


def _whole(model: Model) -> Array:
    """Mask of the elements that take part and lie inside the part as a whole."""
    assert model.element_flags is not None
    levels = level_field(model)
    whole = np.zeros(len(model.elements), np.bool_)
    for code in NODES_PER_TYPE:
        numbers, rows = model.elements.of_type(code)
        corners = 8 if code == HEX8 else 4  # the level is linear on both tetrahedra
        whole[numbers - 1] = (levels[rows[:, :corners] - 1] > 0).all(axis=1)
    whole[model.element_flags & formats.ELEMENT_NO_LEVEL != 0] = True
    whole[model.element_flags & EXCLUDED != 0] = False
    return whole
