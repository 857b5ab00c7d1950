"""What a directory remembers of its case file: names and units. The solver has no use for it."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any

from vkctl.basics.clusters import Cluster, is_plain
from vkctl.basics.types import PathLike
from vkctl.basics.units import UnitSystem, unit_system

from . import file_names
from .regular import open_regular
from .streams import FormatError, write_parts

_LONGEST_FILE = 64 << 20  # bytes


@dataclass(frozen=True)
class Condition:
    """A support or load of the case file: its kind there, and the sets it acts on.

    No sets stand for the whole part.
    """

    kind: str
    sets: tuple[str, ...] = ()


@dataclass(frozen=True)
class NotedCase:
    """A load case of the case file: its whole name, its supports, its loads with their factors."""

    name: str
    supports: tuple[str, ...] = ()
    loads: dict[str, float] = field(default_factory=dict)


@dataclass(frozen=True)
class CaseNotes:
    """`vkctl.case`. `densities` has that of each material, None where the case file has none."""

    units: str | None = None
    densities: tuple[float | None, ...] = ()
    supports: dict[str, Condition] = field(default_factory=dict)
    loads: dict[str, Condition] = field(default_factory=dict)
    load_cases: tuple[NotedCase, ...] = ()  # in the order of their numbers
    clusters: dict[str, Cluster] = field(default_factory=dict)

    @property
    def unit_system(self) -> UnitSystem | None:
        return unit_system(self.units)


def read_case_notes(directory: PathLike) -> CaseNotes | None:
    """`vkctl.case`; None where it isn't there, as in directories that others prepared."""
    path = Path(directory, file_names.CASE_NOTES)
    try:
        with open_regular(path) as stream:
            data = stream.read(_LONGEST_FILE + 1)
    except FileNotFoundError:
        return None
    if len(data) > _LONGEST_FILE:
        raise FormatError(path, f"is longer than {_LONGEST_FILE >> 20} MB")
    try:
        return _notes(json.loads(data))
    except (ValueError, TypeError, KeyError, AttributeError, RecursionError, OverflowError):
        raise FormatError(path, "isn't what vkctl writes there") from None


def _notes(said: Any) -> CaseNotes:
    units = said["units"]
    return CaseNotes(
        None if units is None else _text(units),
        tuple(None if value is None else float(value) for value in said["densities"]),
        {_text(name): _condition(value) for name, value in said["supports"].items()},
        {_text(name): _condition(value) for name, value in said["loads"].items()},
        tuple(_case(value) for value in said["load_cases"]),
        {_text(name): _cluster(value) for name, value in said.get("clusters", {}).items()},
    )


def _cluster(said: Any) -> Cluster:
    """What stands here may come from others, like a case file."""
    cluster = Cluster(_text(said["kind"]), int(said["jobs"]), dict(said["settings"]))
    if not is_plain(cluster):
        raise ValueError
    return cluster


def _condition(said: Any) -> Condition:
    return Condition(_text(said["kind"]), tuple(_text(name) for name in said["sets"]))


def _case(said: Any) -> NotedCase:
    loads = {_text(name): float(factor) for name, factor in said["loads"].items()}
    return NotedCase(_text(said["name"]), tuple(_text(name) for name in said["supports"]), loads)


def _text(value: object) -> str:
    if not isinstance(value, str):
        raise TypeError
    return value


def write_case_notes(directory: PathLike, notes: CaseNotes | None) -> None:
    """`vkctl.case`; None removes it, so that no other model's stays behind."""
    path = Path(directory, file_names.CASE_NOTES)
    if notes is None:
        path.unlink(missing_ok=True)
        return
    write_parts(path, [json.dumps(asdict(notes), indent=1).encode() + b"\n"])
