"""The sets of a part by name, kept for questions and pictures. The solver has no use for them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array, PathLike

from . import file_names
from .streams import FormatError, Reader, int32_bytes, write_parts

SetKind = Literal["node", "element", "face"]
_KINDS: tuple[SetKind, ...] = ("node", "element", "face")  # of the numbers 1, 2, 3 in the file
_FACE_COLUMNS = (3, 4, 6)
_LONGEST_NAME = 4096  # bytes


@dataclass(frozen=True)
class NamedSet:
    """Members of a set: numbers of nodes or elements, or faces as rows of node numbers."""

    name: str
    kind: SetKind
    numbers: Array = field(default_factory=lambda: np.empty(0, np.int64))  # (k,), ascending
    faces: tuple[Array, ...] = ()  # tables of 3, 4 or 6 columns, outward

    def __len__(self) -> int:
        return len(self.numbers) + sum(len(table) for table in self.faces)

    def own_nodes(self) -> Array:
        """Numbers of the nodes of a node or face set, ascending; elements name none themselves."""
        if self.kind == "node":
            return self.numbers
        rows = [table.ravel() for table in self.faces]
        return distinct(np.concatenate([np.empty(0, np.int64), *rows])).astype(np.int64)


def read_sets(directory: PathLike) -> list[NamedSet] | None:
    """`vkctl.sets`; None where it isn't there, as in directories that others prepared."""
    try:
        reader = Reader(Path(directory, file_names.SETS))
    except FileNotFoundError:
        return None
    with reader as r:
        return [_read_set(r) for _ in range(r.int32("NumSets"))]


def _read_set(r: Reader) -> NamedSet:
    code, size = r.int32("Kind"), r.int32("NameBytes")
    if not 1 <= code <= len(_KINDS):
        raise FormatError(r.path, f"a set has the kind {code}")
    if not 0 < size <= _LONGEST_NAME:
        raise FormatError(r.path, f"a set's name has {size} bytes")
    try:
        name = r.array("u1", size, "set name").tobytes().decode()
    except UnicodeDecodeError:
        raise FormatError(r.path, "a set's name isn't UTF-8 text") from None
    if _KINDS[code - 1] != "face":
        return NamedSet(name, _KINDS[code - 1], _numbers(r, r.int32("Count")))
    tables = [_read_table(r) for _ in range(r.int32("NumTables"))]
    return NamedSet(name, "face", faces=tuple(tables))


def _read_table(r: Reader) -> Array:
    columns = r.int32("Columns")
    if columns not in _FACE_COLUMNS:
        raise FormatError(r.path, f"faces have {columns} nodes")
    return _numbers(r, r.int32("Rows") * columns).reshape(-1, columns)


def _numbers(r: Reader, count: int) -> Array:
    values = r.array("<i4", count, "set members").astype(np.int64)
    if len(values) and values.min() < 1:
        raise FormatError(r.path, f"a set has the member {values.min()}")
    return values


def write_sets(directory: PathLike, sets: Sequence[NamedSet] | None) -> None:
    """`vkctl.sets`; None removes it, so that no other model's stays behind."""
    path = Path(directory, file_names.SETS)
    if sets is None:
        path.unlink(missing_ok=True)
        return
    parts: list[bytes | Array] = [int32_bytes(len(sets))]
    for one in sets:
        name = one.name.encode()
        parts += [int32_bytes(_KINDS.index(one.kind) + 1, len(name)), name]
        if one.kind == "face":
            parts.append(int32_bytes(len(one.faces)))
            for table in one.faces:
                rows, columns = table.shape
                parts += [int32_bytes(columns, rows), np.asarray(table, "<i4")]
        else:
            parts += [int32_bytes(len(one.numbers)), np.asarray(one.numbers, "<i4")]
    write_parts(path, parts)
