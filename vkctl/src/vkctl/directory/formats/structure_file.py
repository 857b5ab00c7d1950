"""The file of the sparse structure."""

from __future__ import annotations

import struct
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike

from . import file_names
from .streams import Reader, write_parts


@dataclass
class RawStructure:
    """`mxs.sadr`: upper triangle by rows, one row per displacement component.

    Rows run node 1 x, y, z, node 2 x, y, z, ...; `row_start` has one value more than there are
    rows; the first column of a row is the row itself, the others ascend. All values 1-based.
    """

    columns: Array  # int32 (entries,)
    row_start: Array  # int64 (rows + 1,)
    max_bandwidth: int

    @property
    def num_rows(self) -> int:
        return len(self.row_start) - 1


def read_structure(directory: PathLike) -> RawStructure:
    """`mxs.sadr`."""
    with Reader(Path(directory, file_names.STRUCTURE)) as r:
        rows, bandwidth = r.int32("NumRawRows"), r.int32("MaxBW")
        entries = r.int64("NumRawEntries")
        if rows <= 0:
            return RawStructure(np.empty(0, "<i4"), np.ones(1, "<i8"), bandwidth)
        columns = r.array("<i4", entries, "columns")
        return RawStructure(columns, r.array("<i8", rows + 1, "row starts"), bandwidth)


def write_structure(directory: PathLike, structure: RawStructure) -> None:
    """`mxs.sadr`."""
    columns = np.asarray(structure.columns, "<i4")
    header = struct.pack("<iiq", structure.num_rows, structure.max_bandwidth, len(columns))
    parts: list[bytes | Array] = [header]
    if structure.num_rows > 0:
        parts += [columns, np.asarray(structure.row_start, "<i8")]
    write_parts(Path(directory, file_names.STRUCTURE), parts)
