"""State and result files of earlier runs that the next run would start from or blend with."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

from .. import formats
from .findings import Finding, error, warning
from .inputs import LARGEST_NUMBER, Inputs

_STATE = formats.MATERIAL_YIELDING | formats.MATERIAL_COMPRESSION_ONLY


def check_states(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the files that the load cases still to run will read."""
    for number in inputs.to_run:
        if number <= LARGEST_NUMBER:
            yield from _displacements(inputs, number)
            yield from _element_state(inputs, number)
            yield from _criterion(inputs, number)


def _displacements(inputs: Inputs, number: int) -> Iterator[Finding]:
    name = formats.numbered("ws.sstate", number)
    path = Path(inputs.directory, name)
    if inputs.tp_index is None or not path.exists():
        return
    size, wanted = path.stat().st_size, 8 + 12 * len(inputs.tp_index)
    if size < wanted:
        text = f"{name} is too short for this mesh: the load case starts from zero."
        yield warning("state-displacements", text, name, "Delete it.")
    elif size > wanted:
        text = f"{name} is longer than this mesh needs and is taken as it is."
        yield warning("state-displacements", text, name, "It belongs to another mesh: delete it.")


def _element_state(inputs: Inputs, number: int) -> Iterator[Finding]:
    name = formats.numbered("ws.mstate", number)
    if inputs.materials is None or inputs.element_flags is None:
        return
    if not (inputs.materials["MaterialFlags"] & _STATE).any():
        return
    try:
        count = len(formats.read_element_state(inputs.directory, number))
    except FileNotFoundError:
        return
    except formats.FormatError:
        yield error(
            "state-elements", f"{name} is too short: the run would stop.", name, "Delete it."
        )
        return
    if count != len(inputs.element_flags):
        text = f"{name} has {count} elements, the model {len(inputs.element_flags)}: it is ignored."
        yield warning("state-elements", text, name, "It belongs to another mesh: delete it.")


def _criterion(inputs: Inputs, number: int) -> Iterator[Finding]:
    """The earlier criterion, where it is blended in for sure."""
    name = formats.numbered("ws.tcval", number)
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
