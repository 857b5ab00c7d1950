"""The element types: codes, names, nodes, faces and edges. Node orders are those of the solver."""

from __future__ import annotations

import numpy as np

# Element type codes.
TET4 = 40
TET10 = 41
HEX8 = 60
NODES_PER_TYPE = {TET4: 4, TET10: 10, HEX8: 8}

TYPE_NAMES = {
    TET4: "4-node tetrahedra",
    TET10: "10-node tetrahedra",
    HEX8: "8-node hexahedra",
}

# Types in the order of their tables in a file, and how many of their nodes are corners, which come
# first.
TYPES = (TET4, HEX8, TET10)
CORNERS_PER_TYPE = {TET4: 4, HEX8: 8, TET10: 4}

# Cell types of VTK that have the same node order, mid-edge nodes included.
VTK_CELLS = {TET4: 10, HEX8: 12, TET10: 24}

# Local nodes (0-based) of each face, seen from outside counter-clockwise: corners, then the
# mid-edge nodes between corners 1-2, 2-3, 3-1.
TET4_FACES = np.array(((0, 2, 1), (0, 1, 3), (1, 2, 3), (0, 3, 2)))

TET10_FACES = np.array(
    ((0, 2, 1, 6, 5, 4), (0, 1, 3, 4, 8, 7), (1, 2, 3, 5, 9, 8), (0, 3, 2, 7, 9, 6))
)

HEX8_FACES = np.array(
    ((0, 3, 2, 1), (4, 5, 6, 7), (0, 1, 5, 4), (1, 2, 6, 5), (2, 3, 7, 6), (3, 0, 4, 7))
)

FACES = {TET4: TET4_FACES, TET10: TET10_FACES, HEX8: HEX8_FACES}

# Corner pairs (0-based) of the mid-edge nodes 5 to 10 of a 10-node tetrahedron.
TET10_EDGES = np.array(((0, 1), (1, 2), (0, 2), (0, 3), (1, 3), (2, 3)))

# Signs of xi, eta, zeta at the nodes of a hexahedron.
HEX8_SIGNS = np.array(
    (
        (-1, -1, -1),
        (1, -1, -1),
        (1, 1, -1),
        (-1, 1, -1),
        (-1, -1, 1),
        (1, -1, 1),
        (1, 1, 1),
        (-1, 1, 1),
    ),
    dtype=np.float64,
)

# The same element with two corners exchanged: positions of the nodes.
TURNED = {
    TET4: [0, 2, 1, 3],
    TET10: [0, 2, 1, 3, 6, 5, 4, 7, 9, 8],
    HEX8: [4, 5, 6, 7, 0, 1, 2, 3],
}

TET_CORNERS = [(0.0, 0.0, 0.0), (1.0, 0.0, 0.0), (0.0, 1.0, 0.0), (0.0, 0.0, 1.0)]

HEX8_EDGES = np.array(
    [(0, 1), (1, 2), (2, 3), (3, 0), (4, 5), (5, 6), (6, 7), (7, 4), (0, 4), (1, 5), (2, 6), (3, 7)]
)

# Neighbours of a hexahedron's corner along its three edges.
HEX8_NEIGHBOURS = np.array(
    [(1, 3, 4), (0, 2, 5), (1, 3, 6), (0, 2, 7), (0, 5, 7), (1, 4, 6), (2, 5, 7), (3, 4, 6)]
)
