"""Elements as 4-node tetrahedra that fit together, for what is linear in each of them."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.basics.types import Array

from .topology import HEX8, HEX8_FACES, TET4, TET10, TET10_EDGES

# The eight 4-node tetrahedra of a 10-node one; every face is cut alike from both sides.
_TET10_PARTS = np.array(
    (
        (1, 5, 7, 8),
        (5, 2, 6, 9),
        (7, 6, 3, 10),
        (8, 9, 10, 4),
        (5, 6, 7, 9),
        (5, 7, 8, 9),
        (6, 7, 9, 10),
        (7, 8, 9, 10),
    )
)
# In the order that `tetrahedra` has the types in.
TETRAHEDRA_PER_TYPE = {TET4: 1, TET10: 8, HEX8: 12}


def tetrahedra(
    nodes: Array, tables: dict[int, Array], fields: dict[str, Array], of_corners: Sequence[str] = ()
) -> tuple[Array, Array, dict[str, Array]]:
    """Rows (k, 4) of tetrahedra, their points, and fields (per node) at the points.

    `tables` has rows of nodes for each type; all rows count from 0. A 10-node tetrahedron gives
    eight, a hexahedron twelve around an added centre point. Of the fields `of_corners` a 10-node
    tetrahedron has at its mid-edge nodes the mean of its corners, as the solver has the level.
    """
    hex8, tet10 = tables[HEX8], tables[TET10]
    centres = len(nodes) + np.arange(len(hex8))
    points = at_points(nodes, tables)
    extended = {
        name: at_points(values, tables, name in of_corners) for name, values in fields.items()
    }
    parts = (
        tables[TET4],
        tet10[:, _TET10_PARTS - 1].reshape(-1, 4),
        _hexahedron_parts(hex8, centres),
    )
    return np.concatenate(parts), points, extended


def at_points(values: Array, tables: dict[int, Array], of_corners: bool = False) -> Array:
    """Values per node at the points of `tetrahedra`; those of a hexahedron's centre are means."""
    if of_corners:
        tet10 = tables[TET10]
        values = values.copy()
        values[tet10[:, 4:].ravel()] = values[tet10[:, TET10_EDGES]].mean(axis=2).ravel()
    return np.concatenate((values, values[tables[HEX8]].mean(axis=1)))


def _hexahedron_parts(rows: Array, centres: Array) -> Array:
    """Twelve tetrahedra (k, 4) a hexahedron, around its centre.

    A face is cut from its lowest node number, so that neighbours cut it alike.
    """
    faces = rows[:, HEX8_FACES]
    lowest = faces.argmin(axis=2)
    turned = np.take_along_axis(faces, (lowest[:, :, None] + np.arange(4)) % 4, axis=2)
    triangles = np.concatenate((turned[:, :, [0, 1, 2]], turned[:, :, [0, 2, 3]]), axis=1)
    apex = np.broadcast_to(centres[:, None, None], (*triangles.shape[:2], 1))
    # The faces are seen from outside: turned inwards they have the apex on their positive side.
    return np.concatenate((triangles[:, :, ::-1], apex), axis=2).reshape(-1, 4)
