"""Results of finished load cases: whether all of them are there, whole, and of this model."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.formats import TOTALS, file_names
from vkctl.directory.results import KEEP_QUALITY, STOP_QUALITY

from .findings import Finding, error, warning
from .inputs import Inputs
from .states import absurd, impossible
from .stored import Stored, load

_AGAIN = "Clear bit 1 of its flags and run it again."
_WORDS_OF_TOTALS, _VALUES_OF_TOTALS = 2, 8
_ROUNDING = 1e-4  # of the largest displacement, between files that hold the same solution


@dataclass(frozen=True)
class _File:
    """A result file of header words and as many values as the model has of something."""

    stem: str
    words: int
    values: int  # its last header word tells as many
    trouble: Callable[[Array], str | None]  # what is wrong with the values


def check_results(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the results of load cases that are marked done."""
    if inputs.tp_index is None or inputs.element_flags is None or inputs.tp is None:
        return
    for number in inputs.done:
        if number <= formats.LARGEST_NUMBER:
            yield from _load_case(inputs, number)


def _load_case(inputs: Inputs, number: int) -> Iterator[Finding]:
    record, findings = _totals(inputs, number)
    yield from findings
    sound: dict[str, Array] = {}
    for file in _files(inputs, record):
        values, findings = _values(inputs, file, number)
        yield from findings
        if values is not None:
            sound[file.stem] = values
    if record is not None:
        yield from _agreement(sound, record, f"load case {number}")


def _files(inputs: Inputs, totals: np.void | None) -> Iterator[_File]:
    """The files of a finished load case but its totals."""
    assert inputs.tp_index is not None and inputs.element_flags is not None
    assert inputs.tp is not None
    nodes, points, elements = len(inputs.tp_index), len(inputs.tp), len(inputs.element_flags)
    yield _File(file_names.CRITERION_STEM, 1, points, _undefined)
    yield _File(file_names.STRESS_STEM, 1, nodes, _undefined)
    yield _File(file_names.MAGNITUDE_STEM, 1, nodes, _no_magnitudes)
    if inputs.has_state:
        states = file_names.ELEMENT_STATE_STEM
        yield _File(states, 1, elements, lambda v: impossible(inputs, v))
    # A poor solution leaves none, and an older one's may be there.
    if totals is not None and totals["ARQua"] > np.float32(KEEP_QUALITY):
        shifts = file_names.DISPLACEMENTS_STEM
        yield _File(shifts, 2, 3 * nodes, lambda v: absurd(inputs, v))


def _undefined(values: Array) -> str | None:
    return "holds values that are no numbers" if not np.isfinite(values).all() else None


def _no_magnitudes(values: Array) -> str | None:
    if (undefined := _undefined(values)) is not None:
        return undefined
    return "holds negative magnitudes" if (values < 0).any() else None


def _values(inputs: Inputs, file: _File, number: int) -> tuple[Array | None, list[Finding]]:
    """The values of a file that is there, whole and sound, and else what is wrong with it."""
    name, where = formats.numbered(file.stem, number), f"load case {number}"
    found = load(inputs.directory, name, file.words, file.values)
    if not isinstance(found, Stored):
        return None, [found or _missing(name, number)]
    if len(found.head) < file.words or len(found.values) < file.values:
        text = f"{name} is too short for {file.values} values."
        return None, [error("result-length", text, where, "It was cut off. " + _AGAIN)]
    if found.head[-1] != file.values:
        text = f"{name} tells a count of {found.head[-1]}, the model has {file.values}."
        return None, [error("result-count", text, where, "It belongs to another model. " + _AGAIN)]
    if (trouble := file.trouble(found.values)) is not None:
        hint = "It is damaged. " + _AGAIN
        return None, [error("result-undefined", f"{name} {trouble}.", where, hint)]
    if found.size > 4 * (file.words + file.values):
        text = f"{name} is longer than its {file.values} values."
        return found.values, [warning("result-length", text, where, "Another program wrote it?")]
    return found.values, []


def _missing(name: str, number: int) -> Finding:
    text = f"Load case {number} is marked done, but {name} is missing."
    return error("result-missing", text, f"load case {number}", _AGAIN)


def _totals(inputs: Inputs, number: int) -> tuple[np.void | None, list[Finding]]:
    """The record of totals if it is sound, and else what is wrong with it."""
    name, where = formats.numbered(file_names.TOTALS_STEM, number), f"load case {number}"
    found = load(inputs.directory, name, _WORDS_OF_TOTALS, _VALUES_OF_TOTALS)
    if not isinstance(found, Stored):
        return None, [found or _missing(name, number)]
    if found.size != TOTALS.itemsize:
        text = f"{name} has {found.size} bytes, not {TOTALS.itemsize}."
        return None, [error("result-length", text, where, "It was cut off. " + _AGAIN)]
    words = np.array(found.head, "<i4").tobytes()
    record: np.void = np.frombuffer(words + found.values.tobytes(), TOTALS)[0]
    hint = "It is damaged. " + _AGAIN
    if (record["LoadCase"], record["Kind"]) != (number, formats.LOADCASE_STATIC):
        text = f"{name} is of load case {record['LoadCase']}, kind {record['Kind']}."
        return None, [error("result-totals", text, where, hint)]
    if not np.isfinite(found.values).all():
        text = f"{name} holds values that are no numbers."
        return None, [error("result-undefined", text, where, hint)]
    if not STOP_QUALITY <= record["ARQua"] <= 1:
        text = f"{name} tells a quality of {record['ARQua']:g}, which no finished load case has."
        return None, [error("result-totals", text, where, hint)]
    return record, []


def _agreement(sound: dict[str, Array], record: np.void, where: str) -> Iterator[Finding]:
    """Files that hold parts of one solution must agree on it."""
    magnitude = sound.get(file_names.MAGNITUDE_STEM)
    shift = sound.get(file_names.DISPLACEMENTS_STEM)
    if magnitude is None:
        return
    allowed = _ROUNDING * float(magnitude.max(initial=0.0))
    names = []
    # Totals leave prescribed displacements out, so they may tell less.
    if record["MaxDis"] > magnitude.max(initial=0.0) + allowed or record["MaxDis"] < 0:
        names.append(file_names.TOTALS_STEM)
    if shift is not None:
        lengths = np.linalg.norm(shift.reshape(-1, 3).astype(np.float64), axis=1)
        if (np.abs(lengths - magnitude) > allowed).any():
            names.append(file_names.DISPLACEMENTS_STEM)
    for stem in names:
        text = f"{stem} and {file_names.MAGNITUDE_STEM} tell different displacements."
        yield error("result-contradiction", text, where, "One of them is damaged. " + _AGAIN)
