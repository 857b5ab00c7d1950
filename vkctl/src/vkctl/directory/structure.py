"""The raw sparse structure of a mesh (`mxs.sadr`), built without a loop over nodes or elements.

The structure is that of the mesh: elements which are left out of the model count too, so it
holds for every load case and every choice of element flags.
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array
from vkctl.shapes.groups import distinct

from .formats import RawStructure

# Both bound temporary arrays.
_ELEMENTS_PER_BLOCK = 1 << 16
_NODES_PER_BLOCK = 1 << 13


def node_neighbours(num_nodes: int, tables: Sequence[npt.ArrayLike]) -> tuple[Array, Array]:
    """Node graph of the mesh: (start, neighbours), upper triangle, 0-based.

    `tables` are connectivity tables, (k, nodes per element), of 1-based node numbers. Node i has
    the neighbours ``neighbours[start[i]:start[i + 1]]``: first itself, then in ascending order
    the higher nodes that share an element with it. A node number outside the mesh raises
    ValueError.
    """
    rows = [np.asarray(t, np.int64) - 1 for t in tables if len(np.asarray(t))]
    if any(t.min() < 0 or t.max() >= num_nodes for t in rows):
        raise ValueError(f"connectivity refers to nodes outside 1..{num_nodes}")
    keys = [np.arange(num_nodes) * (num_nodes + 1)]  # each node with itself
    for table in rows:
        low, high = np.triu_indices(table.shape[1], 1)
        for first in range(0, len(table), _ELEMENTS_PER_BLOCK):
            some = np.sort(table[first : first + _ELEMENTS_PER_BLOCK], axis=1)
            keys.append(distinct(some[:, low] * num_nodes + some[:, high]))
    lower, higher = np.divmod(distinct(np.concatenate(keys)), num_nodes)
    start = np.zeros(num_nodes + 1, np.int64)
    np.cumsum(np.bincount(lower, minlength=num_nodes), out=start[1:])
    return start, higher.astype(np.int32)


def build_structure(num_nodes: int, tables: Sequence[npt.ArrayLike]) -> RawStructure:
    """Raw structure of a mesh of `num_nodes` nodes and the given connectivity tables.

    Every node gives three rows, coupled with all components of its neighbours. `max_bandwidth`
    is the largest distance of a column from its row, plus one. ValueError as `node_neighbours`.
    """
    start, neighbours = node_neighbours(num_nodes, tables)
    lengths = (3 * np.diff(start)[:, None] - np.arange(3)).ravel()
    row_start = np.ones(3 * num_nodes + 1, np.int64)
    row_start[1:] += np.cumsum(lengths)
    columns = np.empty(row_start[-1] - 1, np.int32)
    for first in range(0, num_nodes, _NODES_PER_BLOCK):
        last = min(first + _NODES_PER_BLOCK, num_nodes)
        columns[row_start[3 * first] - 1 : row_start[3 * last] - 1] = _component_columns(
            start[first : last + 1] - start[first], neighbours[start[first] : start[last]]
        )
    return RawStructure(columns, row_start, _bandwidth(start, neighbours))


def _component_columns(start: Array, neighbours: Array) -> Array:
    """1-based columns of the three component rows of a block of nodes.

    A node's x row holds the components of all its neighbours; the y row is that without its
    first entry, the z row without its first two.
    """
    counts = np.diff(start)
    thrice = np.repeat(counts, 3)
    begins = np.cumsum(thrice) - thrice
    gather = np.repeat(np.repeat(start[:-1], 3) - begins, thrice)
    gather += np.arange(len(gather))
    columns = 3 * neighbours.take(gather)[:, None] + np.arange(1, 4, dtype=np.int32)
    kept = np.ones(columns.shape, np.bool_)
    kept[begins[1::3], 0] = False
    kept[begins[2::3], :2] = False
    taken: Array = columns[kept]
    return taken


def _bandwidth(start: Array, neighbours: Array) -> int:
    if len(start) < 2:
        return 0
    reach = neighbours[start[1:] - 1].astype(np.int64) - np.arange(len(start) - 1)
    return int(3 * reach.max() + 3)
