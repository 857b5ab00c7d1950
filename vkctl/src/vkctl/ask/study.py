"""The directory that is asked: its model, its solved load cases, its sets."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array, PathLike
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import did_you_mean
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.formats import NamedSet, SetKind
from vkctl.directory.model import Model, read
from vkctl.directory.numbering import EXCLUDED
from vkctl.directory.results import Results, read_results, solved
from vkctl.shapes.elements import Elements
from vkctl.shapes.topology import NODES_PER_TYPE
from vkctl.stress import Solution, has_stress, solution_of


class AskError(ValueError):
    """What was asked has no answer; says why."""


@dataclass(frozen=True)
class Study:
    """A working directory with the load cases that are asked for."""

    directory: Path
    model: Model
    names: list[str]  # of all load cases, "" where one has none
    numbers: tuple[int, ...]  # of the load cases to answer for
    remarks: tuple[str, ...]  # sentences on those without an answer, or with one of an earlier run

    @property
    def units(self) -> UnitSystem | None:
        return None if self.model.notes is None else self.model.notes.unit_system

    def title(self, number: int) -> str:
        return titled(number, self.names)


@dataclass(frozen=True)
class Solved:
    """One load case with its displacements."""

    number: int
    name: str
    results: Results
    solution: Solution


def open_study(directory: PathLike, cases: Sequence[int | str] = ()) -> Study:
    """The model of a directory, and the load cases `cases` (numbers or names), or all solved ones.

    AskError where one of them isn't there or has no displacements.
    """
    model = read(directory)
    names = case_names(model)
    done = set(solved(directory))
    wanted = [_number_of(case, names) for case in cases]
    numbers, remarks = [], []
    for number in wanted or range(1, len(names) + 1):
        title = titled(number, names)
        why = _missing(directory, number) if number in done else "hasn't been solved"
        if why and wanted:
            raise AskError(f"{title} {why}; vkctl run {directory} solves what is open")
        if why:
            remarks.append(f"{title} {why}")
            continue
        numbers.append(number)
        if model.load_cases[number - 1].flags & _STATE == formats.LOADCASE_REQUESTED:
            remarks.append(f"{title} is to be solved again: these are results of an earlier run")
    return Study(Path(directory), model, names, tuple(numbers), tuple(remarks))


_STATE = formats.LOADCASE_REQUESTED | formats.LOADCASE_DONE | formats.LOADCASE_EXCLUDED


def _missing(directory: PathLike, number: int) -> str:
    """Why a load case with results can't answer; empty where it can."""
    results = read_results(directory, number)
    if not has_stress(results) or results.displacements is None:
        return "was solved too poorly to leave displacements"
    finite = np.isfinite(results.displacements).all()
    return "" if finite else "left displacements that aren't all numbers"


def _number_of(case: int | str, names: list[str]) -> int:
    """The number of a load case that is told by its number or its name."""
    text = str(case).strip()
    if text and text in names:
        return names.index(text) + 1
    if text.isdecimal():
        if 1 <= int(text) <= len(names):
            return int(text)
        raise AskError(f"there is no load case {text}; the directory has {len(names)}")
    hint = did_you_mean(text, [name for name in names if name])
    raise AskError(f"there is no load case {text!r}" + (f"; {hint}" if hint else ""))


def solutions(study: Study) -> Iterator[Solved]:
    """The load cases one after the other; AskError where there is none."""
    if not study.numbers:
        first = study.remarks[0] if study.remarks else "there is no load case"
        raise AskError(f"no load case can answer: {first}; vkctl run {study.directory} solves them")
    for number in study.numbers:
        solution = solution_of(study.model, results := read_results(study.directory, number))
        yield Solved(number, study.names[number - 1], results, solution)


# --- sets --------------------------------------------------------------------------------------

WHOLE = "whole part"


@dataclass(frozen=True)
class Region:
    """Nodes that belong together under a name."""

    name: str
    nodes: Array  # (k,) numbers, ascending
    materials: frozenset[int] | None = None  # of its elements; None where nodes alone are known


def regions(model: Model, names: Sequence[str] = ()) -> list[Region]:
    """The sets of these names; without names the whole part and every set of the directory.

    AskError where there is no such set.
    """
    if names:
        return [_region(model, find_set(model, name)) for name in names]
    return [whole_part(model), *(_region(model, one) for one in model.sets or [])]


def whole_part(model: Model) -> Region:
    return Region(WHOLE, np.arange(1, len(model.nodes) + 1))


_KINDS: tuple[SetKind, ...] = ("node", "face", "element")


def find_set(model: Model, name: str, kinds: Sequence[SetKind] = _KINDS) -> NamedSet:
    """The set of a name; of several kinds the first of `kinds`."""
    if model.sets is None:
        raise AskError(
            f"there is no set {name!r}: the directory doesn't tell its sets, "
            "as those that vkctl new makes do"
        )
    for fold in (str, str.lower):  # as the case file finds them
        for kind in kinds:
            for one in model.sets:
                if one.kind == kind and fold(one.name) == fold(name):
                    return one
    hint = did_you_mean(name, [one.name for one in model.sets])
    raise AskError(f"there is no set {name!r}" + (f"; {hint}" if hint else ""))


def _region(model: Model, one: NamedSet) -> Region:
    materials = None
    if one.kind == "element":
        materials = frozenset(model.elements.materials[one.numbers - 1].tolist())
    return Region(one.name, set_nodes(model, one), materials)


def find_elements(model: Model, name: str) -> NamedSet:
    """The set of elements of a name; AskError where there is none."""
    found = find_set(model, name, ("element", "face", "node"))
    if found.kind != "element":
        raise AskError(f"{name!r} is a {found.kind} set; a set of elements is wanted")
    return found


def set_nodes(model: Model, one: NamedSet) -> Array:
    """Numbers of the nodes of a set, ascending; of elements those that they touch."""
    if one.kind != "element":
        return one.own_nodes()
    found = [rows.ravel() for rows in rows_of(model.elements, one.numbers)]
    return distinct(np.concatenate([np.empty(0, np.int64), *found])).astype(np.int64)


def rows_of(elements: Elements, numbers: Array) -> Iterator[Array]:
    """Connectivity rows of the elements, a table for each type."""
    codes = elements.type_codes[numbers - 1]
    for code in NODES_PER_TYPE:
        own = numbers[codes == code]
        yield elements.table(code)[elements.conn_index[own - 1] - 1]


def active_nodes(model: Model) -> Array:
    """Nodes that an active element touches, bool (n,)."""
    assert model.element_flags is not None
    numbers = np.flatnonzero(model.element_flags & EXCLUDED == 0) + 1
    used = np.zeros(len(model.nodes), np.bool_)
    for rows in rows_of(model.elements, numbers):
        used[rows.ravel() - 1] = True
    return used


def place_of(text: str) -> tuple[float, float, float]:
    """The point or vector that "x,y,z" says; AskError where it says something else."""
    try:
        x, y, z = (float(part) for part in text.split(","))
    except ValueError:
        raise AskError(f"{text.strip()!r} is no point: three numbers as X,Y,Z are wanted") from None
    if not np.isfinite((x, y, z)).all():
        raise AskError(f"{text.strip()!r} is no point: its numbers must be finite")
    return x, y, z


def require_nodes(model: Model, number: int, records: Array, what: str) -> None:
    """AskError where a record names a node that isn't there."""
    nodes = records["Node"]
    outside = nodes[(nodes < 1) | (nodes > len(model.nodes))]
    if len(outside):
        count = len(model.nodes)
        raise AskError(f"load case {number} has {what} at node {outside[0]}, of {count}")
