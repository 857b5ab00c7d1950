"""Reads what there is of a working directory and reports files that can't be read as they are."""

from __future__ import annotations

import re
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from functools import cached_property, partial
from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.failures import reason
from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import listed
from vkctl.directory import formats
from vkctl.directory.formats import (
    ElementTables,
    Labels,
    LoadCaseMap,
    OptionLine,
    RawStructure,
    file_names,
)
from vkctl.directory.numbering import active_elements, tables_by_type
from vkctl.shapes.topology import HEX8, TET4, TET10

from .findings import Finding, error, note, warning

# The solver's new file beside the one that it replaces, and vkctl's.
_UNFINISHED = re.compile(r"(mxs\.lcflags|ws\.[a-z]+\.([0-9]{4}|\*{4}))~[0-9a-f]{16}")
_OWN_UNFINISHED = re.compile(r"\.(vk_rund_cmd|mxs?\.|ws\.).*\.tmp")
_DIRECTIONS = 7  # bits of a DofMask
_SMALLEST = float(np.finfo(np.float32).tiny)  # the solver has no denormal numbers


@dataclass
class ActiveMesh:
    """Active elements whose indices are in range, by type, and the nodes they use."""

    nodes: Array  # float64 (n, 3)
    active: Array  # bool per element
    valid: Array  # bool per element: active, and every index in range
    blocks: dict[int, tuple[Array, Array]]  # type code: element numbers, node numbers (k, width)
    used: Array  # bool per node
    labels: Labels = field(default_factory=Labels)

    @cached_property
    def extent(self) -> float:
        """Largest dimension of the used nodes."""
        points = self.nodes[self.used & np.isfinite(self.nodes).all(axis=1)]
        return float(np.ptp(points, axis=0).max()) if len(points) else 0.0


@dataclass
class Inputs:
    """The files of a directory; None for what can't be read."""

    directory: Path
    materials: Array | None = None
    nodes: Array | None = None  # float32 (n, 3)
    tables: ElementTables | None = None
    node_flags: Array | None = None
    tp_index: Array | None = None
    element_flags: Array | None = None
    tp: Array | None = None
    structure: RawStructure | None = None
    load_cases: Array | None = None
    flags: Array | None = None
    maps: dict[int, LoadCaseMap] = field(default_factory=dict)
    options: list[OptionLine] | None = None
    labels: Labels = field(default_factory=Labels)  # empty where nobody knows them
    units: UnitSystem | None = None  # that the case file names

    @cached_property
    def option_values(self) -> dict[str, float]:
        """Option values as the solver has them: defaults, given values, limits applied."""
        values = {key: option.default for key, option in formats.OPTIONS.items()}
        for line in self.options or []:
            if line.key is not None and line.value is not None:
                values[line.key] = formats.OPTIONS[line.key].taken(line.value)
        return values

    @cached_property
    def node_count(self) -> int:
        """Nodes that every table of nodes has."""
        tables = (self.nodes, self.node_flags, self.tp_index)
        return min((len(table) for table in tables if table is not None), default=0)

    @cached_property
    def mesh(self) -> ActiveMesh | None:
        """The mesh, if its files could be read."""
        if self.nodes is None or self.tables is None or self.element_flags is None:
            return None
        count = min(len(self.tables.records), len(self.element_flags))
        records = self.tables.records[:count]
        active = active_elements(self.tables, self.element_flags)[:count]
        valid = active.copy()
        if self.materials is not None:
            valid &= _within(records["MaterialIndex"], len(self.materials))
        blocks, used = {}, np.zeros(len(self.nodes), np.bool_)
        for code, table in tables_by_type(self.tables).items():
            chosen = valid & (records["TypeCode"] == code)
            valid[chosen] = _within(records["ConnIndex"][chosen], len(table))
            numbers = np.flatnonzero(valid & chosen)
            rows = table[records["ConnIndex"][numbers] - 1]
            sound = _within(rows, self.node_count).all(axis=1)
            valid[numbers[~sound]] = False
            blocks[code] = numbers[sound] + 1, rows[sound]
            used[blocks[code][1] - 1] = True
        points = self.nodes.astype(np.float64)
        points[np.abs(points) < _SMALLEST] = 0.0
        return ActiveMesh(points, active, valid, blocks, used, self.labels)

    @cached_property
    def sequence(self) -> list[int]:
        """Static load cases in run order that are requested and not excluded, done or not."""
        if self.load_cases is None or self.flags is None:
            return []
        numbers = []
        for number in self.load_cases["RunOrder"][: len(self.flags)].tolist():
            if not 1 <= number <= min(len(self.load_cases), len(self.flags)):
                continue
            kind, word = int(self.load_cases["Kind"][number - 1]), int(self.flags[number - 1])
            if formats.is_wanted(kind, word) and number not in numbers:
                numbers.append(number)
        return numbers

    @cached_property
    def to_run(self) -> list[int]:
        """What the next run works on."""
        if self.load_cases is None or self.flags is None:
            return []
        kinds, flags = self.load_cases["Kind"], self.flags
        return [n for n in self.sequence if formats.is_to_run(int(kinds[n - 1]), int(flags[n - 1]))]

    @cached_property
    def has_state(self) -> bool:
        """Whether element states are read and written: some material has one, used or not."""
        if self.materials is None:
            return False
        return bool((self.materials["MaterialFlags"] & formats.MATERIAL_WITH_STATE).any())

    @cached_property
    def done(self) -> list[int]:
        """What earlier runs have finished."""
        return [number for number in self.sequence if number not in self.to_run]

    @cached_property
    def sound_maps(self) -> list[int]:
        """Load cases of the sequence whose file is there and names only nodes that are there."""
        sound = []
        for number in self.sequence:
            sections = self.maps.get(number)
            if sections is not None and all(
                _within(rows["Node"], self.node_count).all()
                for rows in (acting(sections.constraints), sections.forces2, sections.forces3)
            ):
                sound.append(number)
        return sound

    def pattern(self, number: int) -> int:
        """Constraint pattern of a load case."""
        assert self.load_cases is not None
        return int(self.load_cases["PatternIndex"][number - 1])


def nodes_listed(named: Inputs | ActiveMesh, numbers: Array) -> str:
    """Such as "2 nodes (3, 9; 17, 412 in the mesh)"."""
    return listed(numbers, "node", named.labels.nodes)


def elements_listed(named: Inputs | ActiveMesh, numbers: Array) -> str:
    """The same of elements."""
    return listed(numbers, "element", named.labels.elements)


def fingerprints(rows: Array) -> Array:
    """A number per row of node numbers that is the same for the same nodes in any order."""
    salt = _scattered(np.arange(int(rows.max(initial=0)) + 1, dtype=np.uint64))
    mixed: Array = salt[rows].sum(axis=1, dtype=np.uint64)
    return mixed


def _scattered(numbers: Array) -> Array:
    """Numbers of 64 bits as if drawn by chance, another for each: the generator splitmix64."""
    mixed = (numbers + 1) * np.uint64(0x9E3779B97F4A7C15)
    for shift, factor in ((30, 0xBF58476D1CE4E5B9), (27, 0x94D049BB133111EB)):
        mixed = (mixed ^ (mixed >> np.uint64(shift))) * np.uint64(factor)
    scattered: Array = mixed ^ (mixed >> np.uint64(31))
    return scattered


def acting(constraints: Array) -> Array:
    """Constraint rows that act in some direction; nobody follows the others."""
    rows: Array = constraints[constraints["DofMask"] & _DIRECTIONS != 0]
    return rows


def _within(numbers: Array, count: int) -> Array:
    inside: Array = (numbers >= 1) & (numbers <= count)
    return inside


_WIDTHS = {TET4: 4, HEX8: 8, TET10: 10}

# Attribute of Inputs: file, reader, bytes that the content takes in the file.
_Row = tuple[str, Callable[[Path], Any], Callable[[Any], int]]

_TABLES: dict[str, _Row] = {
    "materials": (file_names.MATERIALS, formats.read_materials, lambda v: 8 + v.nbytes),
    "nodes": (file_names.NODES, formats.read_nodes, lambda v: 8 + v.nbytes),
    "tables": (
        file_names.ELEMENTS,
        formats.read_elements,
        lambda v: 20 + v.records.nbytes + v.tet4.nbytes + v.hex8.nbytes + v.tet10.nbytes,
    ),
    "node_flags": (file_names.NODE_FLAGS, formats.read_node_flags, lambda v: 4 + v.nbytes),
    "tp_index": (file_names.TP_INDEX, formats.read_tp_index, lambda v: 4 + v.nbytes),
    "element_flags": (file_names.ELEMENT_FLAGS, formats.read_element_flags, lambda v: 4 + v.nbytes),
    "tp": (file_names.TP, formats.read_tp, lambda v: 4 + v.nbytes),
    "structure": (
        file_names.STRUCTURE,
        formats.read_structure,
        lambda v: 16 + (v.columns.nbytes + v.row_start.nbytes if v.num_rows > 0 else 0),
    ),
    "load_cases": (file_names.LOAD_CASES, formats.read_loadcases, lambda v: 8 + v.nbytes),
    "flags": (
        file_names.LOAD_CASE_FLAGS,
        lambda d: formats.read_loadcase_flags(d)[0],
        lambda v: 4 + 8 * len(v),
    ),
}


def read_inputs(directory: Path) -> tuple[Inputs, list[Finding]]:
    """Everything that can be read, and what is to be said about the files."""
    inputs, findings = Inputs(directory), []
    for attribute, (name, reader, size) in _TABLES.items():
        content, found = _read(directory, name, reader, size)
        setattr(inputs, attribute, content)
        findings += found
    inputs.options, found = _read(directory, formats.OPTIONS_FILE, formats.read_option_lines, None)
    findings += found
    findings += _read_maps(inputs)
    findings += _unfinished(directory)
    return inputs, findings


def _read(
    directory: Path,
    name: str,
    reader: Callable[[Path], Any],
    size: Callable[[Any], int] | None,
) -> tuple[Any, list[Finding]]:
    try:
        content = reader(directory)
        bytes_there = Path(directory, name).stat().st_size
    except (OSError, formats.FormatError) as trouble:
        return None, [_file_finding(name, trouble)]
    extra = bytes_there - size(content) if size is not None else 0
    if extra <= 0:
        return content, []
    text = f"{name} has {extra} bytes behind what its counts announce."
    hint = "They are not read; a count may be wrong, or the file be of another format."
    return content, [warning("file-long", text, name, hint)]


def _file_finding(name: str, trouble: Exception) -> Finding:
    if isinstance(trouble, FileNotFoundError):
        hint = "An empty file takes all defaults." if name == formats.OPTIONS_FILE else ""
        return error("file-missing", f"{name} is missing.", name, hint)
    if isinstance(trouble, formats.ShortFileError):
        text = f"{name} is too short: {trouble.reason}."
        return error("file-short", text, name, "It was cut off, or a count in it is wrong.")
    if isinstance(trouble, formats.FormatError):
        return error("format-number", f"{name}: {trouble.reason}.", name, "Prepare it anew.")
    why = reason(trouble) if isinstance(trouble, OSError) else str(trouble)
    return error("file-unreadable", f"{name} can't be read: {why}.", name)


def _read_maps(inputs: Inputs) -> Iterator[Finding]:
    """The load-case files; those of load cases that won't run may be missing."""
    for number in inputs.sequence:
        if number > formats.LARGEST_NUMBER:
            continue
        name = formats.numbered(file_names.LOAD_CASE_MAP_STEM, number)
        if number not in inputs.to_run and not Path(inputs.directory, name).exists():
            continue
        content, found = _read(
            inputs.directory,
            name,
            partial(formats.read_loadcase_map, number=number),
            lambda v: 16 + sum(p.nbytes for p in (v.constraints, v.forces2, v.forces3, v.scalars)),
        )
        if content is not None:
            inputs.maps[number] = content
        yield from found


def _unfinished(directory: Path) -> list[Finding]:
    """What killed programs leave of files that they were replacing."""
    names = sorted(path.name for path in directory.iterdir())
    findings = []
    for pattern, who, hint in (
        (_UNFINISHED, "run", "The next run clears it away."),
        (_OWN_UNFINISHED, "vkctl", "Nothing reads it: delete it."),
    ):
        if left := [name for name in names if pattern.fullmatch(name)]:
            text = f"Left over from a killed {who}: {', '.join(left)}."
            findings.append(note("file-unfinished", text, left[0], hint))
    return findings
