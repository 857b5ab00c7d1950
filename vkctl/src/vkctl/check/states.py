"""State and result files of earlier runs that the next run would start from or blend with."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.results import LOWEST_STATE

from .findings import Finding, error, warning
from .inputs import Inputs, elements_listed
from .stored import Stored, load

HUGE = 1e6  # displacements beyond so many extents of the model are none


def check_states(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the files that the load cases still to run will read."""
    for number in inputs.to_run:
        if number <= formats.LARGEST_NUMBER:
            yield from _displacements(inputs, number)
            yield from _element_state(inputs, number)
            yield from _criterion(inputs, number)


def _displacements(inputs: Inputs, number: int) -> Iterator[Finding]:
    if inputs.tp_index is None:
        return
    name = formats.numbered(file_names.DISPLACEMENTS_STEM, number)
    found = load(inputs.directory, name, 2, 3 * len(inputs.tp_index))
    if not isinstance(found, Stored):
        yield from _unreadable(found)
        return
    wanted = 8 + 12 * len(inputs.tp_index)
    if found.size < wanted:
        text = f"{name} is too short for this mesh: the load case starts from zero."
        yield warning("state-displacements", text, name, "Delete it.")
        return
    if found.size > wanted:
        text = f"{name} is longer than this mesh needs and is taken as it is."
        yield warning("state-displacements", text, name, "It belongs to another mesh: delete it.")
    if (trouble := absurd(inputs, found.values)) is not None:
        text = f"{name} {trouble}: nothing to start from."
        yield error("state-displacements", text, name, "It is damaged: delete it.")


def absurd(inputs: Inputs, displacements: Array) -> str | None:
    """What is wrong with displacements that no solution can have, if anything."""
    if not np.isfinite(displacements).all():
        return "holds displacements that are no numbers"
    largest = float(np.abs(displacements).max(initial=0.0))
    extent = inputs.mesh.extent if inputs.mesh is not None else 0.0
    return f"holds displacements of {largest:g}" if largest > HUGE * extent > 0 else None


def _unreadable(found: Finding | Stored | None) -> Iterator[Finding]:
    if isinstance(found, Finding):
        yield found


def _element_state(inputs: Inputs, number: int) -> Iterator[Finding]:
    """Element states are read where the count fits, and ignored where it doesn't."""
    if inputs.element_flags is None or not inputs.has_state:
        return
    elements = len(inputs.element_flags)
    name = formats.numbered(file_names.ELEMENT_STATE_STEM, number)
    found = load(inputs.directory, name, 1, elements)
    if not isinstance(found, Stored):
        yield from _unreadable(found)
    elif found.head and found.head[0] != elements:
        text = f"{name} has {found.head[0]} elements, the model {elements}: it is ignored."
        yield warning("state-elements", text, name, "It belongs to another mesh: delete it.")
    elif len(found.values) < elements or not found.head:
        text = f"{name} is too short: it is ignored."
        yield warning("state-elements", text, name, "Delete it.")
    elif (trouble := impossible(inputs, found.values)) is not None:
        text = f"{name} {trouble}."
        yield error("state-elements", text, name, "It is damaged: delete it.")


def impossible(inputs: Inputs, states: Array) -> str | None:
    """What is wrong with element states that no run writes, if anything.

    Those of elements without a state are never used, but are 1 where the file is sound.
    """
    lowest = np.where(_with_state(inputs, len(states)), np.float32(LOWEST_STATE), np.float32(0))
    odd = ~((states >= lowest) & (states <= 1))
    if not odd.any():
        return None
    which = elements_listed(inputs, np.flatnonzero(odd) + 1)
    return f"has states outside 0.001 to 1 for {which}"


def _with_state(inputs: Inputs, elements: int) -> Array:
    """Active elements of materials with a state, bool (elements,)."""
    mask = np.zeros(elements, np.bool_)
    if inputs.mesh is not None and inputs.tables is not None and inputs.materials is not None:
        valid = np.flatnonzero(inputs.mesh.valid)
        material = inputs.tables.records["MaterialIndex"][valid] - 1
        mask[valid] = inputs.materials["MaterialFlags"][material] & formats.MATERIAL_WITH_STATE != 0
    return mask


def _criterion(inputs: Inputs, number: int) -> Iterator[Finding]:
    """The earlier criterion, which is blended in where asked for, or where a solution is poor."""
    if inputs.tp is None:
        return
    name = formats.numbered(file_names.CRITERION_STEM, number)
    found = load(inputs.directory, name, 1, len(inputs.tp))
    if not isinstance(found, Stored):
        yield from _unreadable(found)
    elif not found.head or (found.head[0] > 0 and len(found.values) < len(inputs.tp)):
        text = f"{name} has fewer values than there are design points: blending would stop the run."
        yield error("state-criterion", text, name, "Delete it.")
    elif np.isnan(found.values).any() and found.head[0] > 0:
        hint = "It is damaged: delete it."
        yield error("state-criterion", f"{name} holds values that are no numbers.", name, hint)
    elif inputs.option_values["Sta.ResponseDumpFac"] > 0 and found.head[0] != len(inputs.tp):
        count = "no" if found.head[0] < 1 else "more"
        text = f"{name} has {count} values where there are {len(inputs.tp)} design points."
        yield warning("state-criterion", text, name, "It belongs to another model: delete it.")
