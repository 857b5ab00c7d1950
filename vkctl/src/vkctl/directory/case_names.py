"""What load cases are called, and the units of a directory, without its model."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

from vkctl.basics.types import PathLike
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import printable

from . import formats

if TYPE_CHECKING:
    from .model import Model


def case_names(model: Model) -> list[str]:
    """The name of each load case, by the case file or its record; "" where it has none.

    A record keeps the first 64 bytes of a name, the case file's memory all of it.
    """
    return _names([case.reserved for case in model.load_cases], model.notes)


def read_case_names(directory: PathLike) -> list[str]:
    """`case_names` of a directory, without its model; names only serve messages, so what can't be
    read has none."""
    try:
        records = formats.read_loadcases(directory)
    except (OSError, formats.FormatError):
        return []
    return _names([bytes(one).rstrip(b"\0") for one in records["Reserved"]], _notes(directory))


def read_units(directory: PathLike) -> UnitSystem | None:
    """The system of units that the case file names; None where nobody knows it."""
    notes = _notes(directory)
    return notes.unit_system if notes else None


def _notes(directory: PathLike) -> formats.CaseNotes | None:
    try:
        return formats.read_case_notes(directory)
    except (OSError, formats.FormatError):
        return None


def name_of(number: int, names: Sequence[str]) -> str:
    """The name of a load case, fit to be printed; "" where it has none."""
    return printable(names[number - 1]) if 0 < number <= len(names) else ""


def titled(number: int, names: Sequence[str]) -> str:
    """Such as "load case 3, pull and weight"; the number alone where it has no name."""
    name = name_of(number, names)
    return f"load case {number}, {name}" if name else f"load case {number}"


def _names(reserved: list[bytes], notes: formats.CaseNotes | None) -> list[str]:
    whole = [case.name for case in notes.load_cases] if notes else []
    if len(whole) != len(reserved):
        whole = [""] * len(reserved)
    return [name or _decoded(text) for name, text in zip(whole, reserved, strict=True)]


def _decoded(text: bytes) -> str:
    """The name in a record's spare bytes; other programs may keep anything there."""
    name = text.split(b"\0")[0][:64].decode("utf-8", "ignore")
    return name if name.isprintable() else ""
