"""State and result files of earlier runs that the next run would start from or blend with."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import listed
from vkctl.directory import formats
from vkctl.directory.formats import file_names

from .findings import Finding, error, warning
from .inputs import Inputs

_LOWEST_STATE = np.float32(0.001)  # the solver holds states at this or above
_HUGE = 1e6  # displacements beyond so many extents of the model are no start


def check_states(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the files that the load cases still to run will read."""
    for number in inputs.to_run:
        if number <= formats.LARGEST_NUMBER:
            yield from _displacements(inputs, number)
            yield from _element_state(inputs, number)
            yield from _criterion(inputs, number)


def _displacements(inputs: Inputs, number: int) -> Iterator[Finding]:
    name = formats.numbered(file_names.DISPLACEMENTS_STEM, number)
    path = Path(inputs.directory, name)
    if inputs.tp_index is None or not path.exists():
        return
    size, wanted = path.stat().st_size, 8 + 12 * len(inputs.tp_index)
    if size < wanted:
        text = f"{name} is too short for this mesh: the load case starts from zero."
        yield warning("state-displacements", text, name, "Delete it.")
        return
    if size > wanted:
        text = f"{name} is longer than this mesh needs and is taken as it is."
        yield warning("state-displacements", text, name, "It belongs to another mesh: delete it.")
    values = np.fromfile(path, "<f4", 3 * len(inputs.tp_index), offset=8)
    extent = inputs.mesh.extent if inputs.mesh is not None else 0.0
    largest = float(np.abs(values).max(initial=0.0))
    if not largest <= _HUGE * extent:
        text = f"{name} holds displacements of {largest:g}: nothing to start from."
        yield error("state-displacements", text, name, "It is damaged: delete it.")


def _element_state(inputs: Inputs, number: int) -> Iterator[Finding]:
    """Element states are read where the count fits, and ignored where it doesn't."""
    name = formats.numbered(file_names.ELEMENT_STATE_STEM, number)
    path = Path(inputs.directory, name)
    if inputs.materials is None or inputs.element_flags is None or not path.exists():
        return
    if not (inputs.materials["MaterialFlags"] & formats.MATERIAL_WITH_STATE).any():
        return
    there, elements = np.fromfile(path, "<i4", 1), len(inputs.element_flags)
    if len(there) and there[0] != elements:
        text = f"{name} has {there[0]} elements, the model {elements}: it is ignored."
        yield warning("state-elements", text, name, "It belongs to another mesh: delete it.")
    elif path.stat().st_size < 4 + 4 * elements:
        yield error(
            "state-elements", f"{name} is too short: the run would stop.", name, "Delete it."
        )
    else:
        values = np.fromfile(path, "<f4", elements, offset=4)
        odd = _with_state(inputs, elements) & ~((values >= _LOWEST_STATE) & (values <= 1))
        if odd.any():
            which = listed(np.flatnonzero(odd) + 1, "element")
            text = f"{name} has states outside 0.001 to 1 for {which}."
            yield error("state-elements", text, name, "It is damaged: delete it.")


def _with_state(inputs: Inputs, elements: int) -> Array:
    """Active elements of materials with a state, bool (elements,)."""
    mask = np.zeros(elements, np.bool_)
    if inputs.mesh is not None and inputs.tables is not None and inputs.materials is not None:
        valid = np.flatnonzero(inputs.mesh.valid)
        material = inputs.tables.records["MaterialIndex"][valid] - 1
        mask[valid] = inputs.materials["MaterialFlags"][material] & formats.MATERIAL_WITH_STATE != 0
    return mask


def _criterion(inputs: Inputs, number: int) -> Iterator[Finding]:
    """The earlier criterion, where it is blended in for sure."""
    name = formats.numbered(file_names.CRITERION_STEM, number)
    if inputs.tp is None or inputs.option_values["Sta.ResponseDumpFac"] <= 0:
        return
    path = Path(inputs.directory, name)
    if not path.exists():
        return
    wanted = 4 + inputs.tp.nbytes
    if path.stat().st_size < wanted:
        text = f"{name} has fewer values than there are design points: blending would stop the run."
        yield error("state-criterion", text, name, "Delete it, or set Sta.ResponseDumpFac to 0.")
    elif path.stat().st_size > wanted:
        text = f"{name} has more values than there are design points."
        yield warning("state-criterion", text, name, "It belongs to another model: delete it.")
