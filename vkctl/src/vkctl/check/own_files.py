"""What vkctl keeps beside the model: labels, sets and names. The solver reads none of it."""

from __future__ import annotations

from collections.abc import Iterator

from vkctl.basics.failures import reason
from vkctl.directory import formats
from vkctl.directory.formats import FormatError, file_names
from vkctl.directory.model.whole import fitting_sets

from .findings import Finding, warning
from .inputs import Inputs

_UNNAMED = (
    "Numbers are told without what the mesh calls them. Delete it, or prepare the model anew."
)
_NO_SETS = "Questions and pictures know no sets. Delete it, or prepare the model anew."
_NO_NAMES = "Supports, loads and units aren't known by name. Delete it, or prepare the model anew."


def read_own_files(inputs: Inputs) -> Iterator[Finding]:
    """Takes what is there and belongs to this model into `inputs`."""
    yield from _read_labels(inputs)
    yield from _read_sets(inputs)
    yield from _read_notes(inputs)


def _reason(trouble: OSError | FormatError) -> str:
    return trouble.reason if isinstance(trouble, FormatError) else reason(trouble)


def _read_labels(inputs: Inputs) -> Iterator[Finding]:
    name = file_names.LABELS
    try:
        labels = formats.read_labels(inputs.directory)
    except (OSError, FormatError) as trouble:
        text = f"{name} can't be read: {_reason(trouble)}."
        yield warning("labels-unfit", text, name, _UNNAMED)
        return
    if labels is None or inputs.nodes is None or inputs.tables is None:
        return
    counts = len(inputs.nodes), len(inputs.tables.records)
    if (len(labels.nodes), len(labels.elements)) == counts:
        inputs.labels = labels
        return
    text = f"{name} is of another mesh, one of {len(labels.nodes)} nodes"
    text += f" and {len(labels.elements)} elements."
    yield warning("labels-unfit", text, name, _UNNAMED)


def _read_sets(inputs: Inputs) -> Iterator[Finding]:
    if inputs.nodes is None or inputs.tables is None:
        return
    name = file_names.SETS
    try:
        fitting_sets(inputs.directory, len(inputs.nodes), len(inputs.tables.records))
    except (OSError, FormatError) as trouble:
        yield warning("sets-unfit", f"{name} can't be used: {_reason(trouble)}.", name, _NO_SETS)


def _read_notes(inputs: Inputs) -> Iterator[Finding]:
    name = file_names.CASE_NOTES
    try:
        notes = formats.read_case_notes(inputs.directory)
    except (OSError, FormatError) as trouble:
        yield warning("names-unfit", f"{name} can't be used: {_reason(trouble)}.", name, _NO_NAMES)
        return
    if notes is None:
        return
    inputs.units = notes.unit_system
    if inputs.load_cases is not None and len(notes.load_cases) != len(inputs.load_cases):
        text = f"{name} tells of {len(notes.load_cases)} load cases, not {len(inputs.load_cases)}."
        yield warning("names-unfit", text, name, _NO_NAMES)
