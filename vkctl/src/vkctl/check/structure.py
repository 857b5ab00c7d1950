"""The sparse structure against the mesh: rows, order, and couplings that elements need."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import called, some
from vkctl.directory.formats import RawStructure, file_names
from vkctl.directory.structure import build_structure

from .findings import Finding, error, note, warning
from .inputs import ActiveMesh, Inputs

_WHERE = file_names.STRUCTURE
_ROWS_PER_BLOCK = 300_000
_ENTRIES_64BIT = 500_000_000  # from here on the 64-bit index path is taken
_MOST_ENTRIES = 2**31


def check_structure(inputs: Inputs) -> Iterator[Finding]:
    """Findings on `mxs.sadr`."""
    structure, mesh = inputs.structure, inputs.mesh
    if structure is None or mesh is None or inputs.tables is None:
        return
    yield from size_findings(len(structure.columns))
    expected = build_structure(len(mesh.nodes), [rows for _, rows in mesh.blocks.values()])
    if _same(structure, expected):
        return
    broken = list(_form(structure, 3 * len(mesh.nodes)))
    yield from broken
    if not broken:
        yield from _couplings(structure, expected, mesh)


def size_findings(entries: int) -> Iterator[Finding]:
    """What the number of entries alone says."""
    if entries >= _MOST_ENTRIES:
        text = f"The structure has {entries} entries; up to {_MOST_ENTRIES - 1} are supported."
        yield error("structure-too-large", text, _WHERE, "Use a coarser mesh.")
    elif entries >= _ENTRIES_64BIT:
        text = f"The structure has {entries} entries: automatic mode takes no account of memory."
        hint = "Above 500 million entries of free components it always makes the factor."
        yield warning("structure-64bit", text, _WHERE, hint)


def _same(structure: RawStructure, expected: RawStructure) -> bool:
    return np.array_equal(structure.row_start, expected.row_start) and np.array_equal(
        structure.columns, expected.columns
    )


def _form(structure: RawStructure, components: int) -> Iterator[Finding]:
    """Trouble that can be told without the elements."""
    columns, start = structure.columns, structure.row_start
    if structure.num_rows != components:
        text = f"The structure has {structure.num_rows} rows, three per node would be {components}."
        yield error("structure-rows", text, _WHERE, "It belongs to another mesh.")
        return
    lengths = np.diff(start)
    bad = np.flatnonzero(lengths < 1) + 1
    if len(bad) or start[0] != 1 or start[-1] != len(columns) + 1:
        place = f" in row {some(bad)}" if len(bad) else ""
        text = f"Row starts don't ascend from 1 to the number of entries{place}."
        yield error("structure-starts", text, _WHERE)
        return
    row = np.repeat(np.arange(1, components + 1), lengths)
    if columns.min() < 1 or columns.max() > components:
        bad = distinct(row[(columns < 1) | (columns > components)])
        yield error(
            "structure-column", f"Columns outside 1 to {components} in row {some(bad)}.", _WHERE
        )
        return
    bad = np.flatnonzero(columns[start[:-1] - 1] != np.arange(1, components + 1)) + 1
    if len(bad):
        yield error(
            "structure-diagonal", f"The diagonal isn't the first entry of row {some(bad)}.", _WHERE
        )
    unsorted = (columns[1:] <= columns[:-1]) & (row[1:] == row[:-1])
    if unsorted.any():
        bad = distinct(row[1:][unsorted])
        yield error("structure-order", f"The columns don't ascend in row {some(bad)}.", _WHERE)


def _couplings(
    structure: RawStructure, expected: RawStructure, mesh: ActiveMesh
) -> Iterator[Finding]:
    """Couplings of active elements that are missing, and how many there are too many."""
    rows = structure.num_rows
    missing: list[Array] = []
    for first in range(0, rows, _ROWS_PER_BLOCK):
        last = min(first + _ROWS_PER_BLOCK, rows)
        there, needed = _keys(structure, first, last, rows), _keys(expected, first, last, rows)
        place = np.minimum(np.searchsorted(there, needed), len(there) - 1)
        missing.append(needed[there[place] != needed])
    lost = np.concatenate(missing)
    if len(lost):
        pairs = np.unique(np.column_stack(((lost // rows) // 3, (lost % rows) // 3)), axis=0) + 1
        labels = mesh.labels.nodes
        shown = ", ".join(
            f"{called(a, labels)} with {called(b, labels)}" for a, b in pairs[:3].tolist()
        )
        text = f"{len(pairs)} couplings of nodes that elements need are missing: {shown}."
        hint = "Their stiffness would be added in wrong places. Build the structure from this mesh."
        yield error("structure-missing", text, _WHERE, hint)
    extra = len(structure.columns) - (len(expected.columns) - len(lost))
    if extra > 0 and mesh.active.all():
        text = f"{extra} of {len(structure.columns)} entries couple nodes that share no element."
        yield note("structure-extra", text, _WHERE, "They cost memory and do no harm.")


def _keys(structure: RawStructure, first: int, last: int, rows: int) -> Array:
    """Row and column of the entries of some rows as one ascending number each."""
    start = structure.row_start[first : last + 1]
    row = np.repeat(np.arange(first, last, dtype=np.int64), np.diff(start))
    keys: Array = row * rows + structure.columns[start[0] - 1 : start[-1] - 1] - 1
    return keys
