"""Which nodes are in use and which components are prescribed, as the solver sees it."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.topology import HEX8, NODES_PER_TYPE, TET4, TET10

from . import formats
from .formats import ElementTables

EXCLUDED = np.int16(formats.ELEMENT_EXCLUDED | formats.ELEMENT_EXCLUDED_ALSO)


def tables_by_type(tables: ElementTables) -> dict[int, Array]:
    """Connectivity tables by type code."""
    return {TET4: tables.tet4, HEX8: tables.hex8, TET10: tables.tet10}


def active_elements(tables: ElementTables, flags: Array) -> Array:
    """Elements that take part, bool (m,): of a known type and not left out by their flags.

    Elements beyond the end of the flags take no part.
    """
    codes = tables.records["TypeCode"][: len(flags)]
    active = np.zeros(len(tables.records), np.bool_)
    active[: len(codes)] = np.isin(codes, list(NODES_PER_TYPE))
    active[: len(codes)] &= flags[: len(codes)] & EXCLUDED == 0
    return active


def active_nodes(tables: ElementTables, flags: Array, count: int) -> Array:
    """Nodes that an active element touches, bool (count,). Indices must be in range."""
    active = active_elements(tables, flags)
    used = np.zeros(count, np.bool_)
    for code, table in tables_by_type(tables).items():
        chosen = active & (tables.records["TypeCode"] == code)
        used[table[tables.records["ConnIndex"][chosen] - 1] - 1] = True
    return used


def prescribed_rows(constraints: Array) -> tuple[Array, Array, Array]:
    """Prescribed components as (row, node, direction), 0-based, in file order.

    Row is the position in `constraints`; of two entries for a component the later one holds.
    """
    mask = constraints["DofMask"][:, None] >> np.arange(3) & 1 == 1
    mask &= (constraints["Kind"] & formats.CONSTRAINT_PENALTY == 0)[:, None]
    rows, directions = np.nonzero(mask)
    return rows, constraints["Node"][rows].astype(np.int64) - 1, directions


def prescribed_components(constraints: Array, count: int) -> Array:
    """Components with a prescribed displacement, bool (count, 3). Nodes must be in range."""
    _, nodes, directions = prescribed_rows(constraints)
    fixed = np.zeros((count, 3), np.bool_)
    fixed[nodes, directions] = True
    return fixed
