"""The raw sparse structure of a mesh (`mxs.sadr`), built without a loop over nodes or elements.

The structure is that of the mesh: elements which are left out of the model count too, so it
holds for every load case and every choice of element flags.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .formats import RawStructure

if TYPE_CHECKING:
    from scipy import sparse

_NODES_PER_BLOCK = 1 << 16  # bounds the temporary index arrays of the expansion


def node_neighbours(num_nodes: int, tables: Sequence[npt.ArrayLike]) -> tuple[Array, Array]:
    """Node graph of the mesh: (start, neighbours), upper triangle, 0-based.

    `tables` are connectivity tables, (k, nodes per element), of 1-based node numbers. Node i has
    the neighbours ``neighbours[start[i]:start[i + 1]]``: first itself, then in ascending order
    the higher nodes that share an element with it. A node number outside the mesh raises
    ValueError.
    """
    from scipy import sparse

    rows = [np.asarray(t, np.int32) for t in tables if len(np.asarray(t))]
    nodes = np.concatenate([t.ravel() for t in rows]) if rows else np.empty(0, np.int32)
    if nodes.size and (nodes.min() < 1 or nodes.max() > num_nodes):
        raise ValueError(f"connectivity refers to nodes outside 1..{num_nodes}")
    # Each node is an element of its own too, so that every row has its diagonal.
    widths = [np.full(len(t), t.shape[1], np.int64) for t in rows]
    widths.append(np.ones(num_nodes, np.int64))
    start = np.concatenate(([0], np.cumsum(np.concatenate(widths))))
    columns = np.concatenate((nodes - 1, np.arange(num_nodes, dtype=np.int32)))
    ones = np.ones(len(columns), np.bool_)
    incidence = sparse.csr_matrix((ones, columns, start), (len(start) - 1, num_nodes))
    return _upper_product(incidence, num_nodes)


def _upper_product(incidence: sparse.csr_matrix, num_nodes: int) -> tuple[Array, Array]:
    """Pattern of the sorted upper triangle of incidence^T incidence, in blocks of rows."""
    from scipy import sparse

    transposed = incidence.T.tocsr()
    counts = np.zeros(num_nodes + 1, np.int64)
    pieces = []
    for first in range(0, num_nodes, _NODES_PER_BLOCK):
        last = min(first + _NODES_PER_BLOCK, num_nodes)
        upper = sparse.triu(transposed[first:last] @ incidence, k=first, format="csr")
        upper.sort_indices()
        counts[first + 1 : last + 1] = np.diff(upper.indptr)
        pieces.append(upper.indices.astype(np.int32, copy=False))
    columns = np.concatenate(pieces) if pieces else np.empty(0, np.int32)
    return np.cumsum(counts), columns


def build_structure(num_nodes: int, tables: Sequence[npt.ArrayLike]) -> RawStructure:
    """Raw structure of a mesh of `num_nodes` nodes and the given connectivity tables.

    Every node gives three rows, coupled with all components of its neighbours. `max_bandwidth`
    is the largest distance of a column from its row, plus one. ValueError as `node_neighbours`.
    """
    start, neighbours = node_neighbours(num_nodes, tables)
    per_node = np.diff(start)
    lengths = (3 * per_node[:, None] - np.arange(3)).ravel()
    row_start = np.ones(3 * num_nodes + 1, np.int64)
    row_start[1:] += np.cumsum(lengths)
    columns = np.empty(row_start[-1] - 1, np.int32)
    for first in range(0, num_nodes, _NODES_PER_BLOCK):
        last = min(first + _NODES_PER_BLOCK, num_nodes)
        block = slice(row_start[3 * first] - 1, row_start[3 * last] - 1)
        columns[block] = _component_columns(
            start[first : last + 1] - start[first],
            neighbours[start[first] : start[last]],
            lengths[3 * first : 3 * last],
        )
    return RawStructure(columns, row_start, _bandwidth(start, neighbours))


def _component_columns(start: Array, neighbours: Array, lengths: Array) -> Array:
    """1-based columns of the three component rows of a block of nodes.

    A node's x row holds the components of all its neighbours; the y row is that without its
    first entry, the z row without its first two.
    """
    components = (3 * neighbours[:, None] + np.arange(1, 4, dtype=np.int32)).ravel()
    source = (3 * start[:-1, None] + np.arange(3)).ravel()
    target = np.cumsum(lengths) - lengths
    gather = np.repeat(source - target, lengths)
    gather += np.arange(len(gather))
    taken: Array = components[gather]
    return taken


def _bandwidth(start: Array, neighbours: Array) -> int:
    if len(start) < 2:
        return 0
    reach = neighbours[start[1:] - 1].astype(np.int64) - np.arange(len(start) - 1)
    return int(3 * reach.max() + 3)
