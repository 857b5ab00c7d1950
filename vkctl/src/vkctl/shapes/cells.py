"""Cells that meshes hold and the solver doesn't, and how cells are cut into tetrahedra.

Every cell is cut from its lowest corner: what fans out from there are the triangles of the faces
that don't touch it, and a quadrilateral face is cut from its own lowest corner. A face between two
cells is so cut alike from both sides, and the diagonals of a wedge never go round in a circle.
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.basics.types import Array

from .topology import CORNERS_PER_TYPE, FACES, HEX8, NODES_PER_TYPE, TET4, TET10, TYPE_NAMES

# Numbers of our own, beyond those of the solver's types.
PYRAMID5, WEDGE6, PYRAMID13, WEDGE15, HEX20, HEX27 = 1005, 1006, 1013, 1015, 1020, 1027

CELL_NODES = {
    **NODES_PER_TYPE,
    **{PYRAMID5: 5, WEDGE6: 6, PYRAMID13: 13, WEDGE15: 15, HEX20: 20, HEX27: 27},
}
CELL_NAMES = {
    **TYPE_NAMES,
    PYRAMID5: "5-node pyramids",
    WEDGE6: "6-node wedges",
    PYRAMID13: "13-node pyramids",
    WEDGE15: "15-node wedges",
    HEX20: "20-node hexahedra",
    HEX27: "27-node hexahedra",
}
CELL_CORNERS = {
    **CORNERS_PER_TYPE,
    **{PYRAMID5: 5, WEDGE6: 6, PYRAMID13: 5, WEDGE15: 6, HEX20: 8, HEX27: 8},
}

# Corners of each face, seen from outside counter-clockwise, in the order of a deck's sides.
_PYRAMID_FACES = [np.array(f) for f in ((0, 3, 2, 1), (0, 1, 4), (1, 2, 4), (2, 3, 4), (3, 0, 4))]
_WEDGE_FACES = [
    np.array(f) for f in ((0, 2, 1), (3, 4, 5), (0, 1, 4, 3), (1, 2, 5, 4), (2, 0, 3, 5))
]
CELL_FACES: dict[int, Sequence[Array]] = {
    **{code: list(faces) for code, faces in FACES.items()},
    **dict.fromkeys((PYRAMID5, PYRAMID13), _PYRAMID_FACES),
    **dict.fromkeys((WEDGE6, WEDGE15), _WEDGE_FACES),
    **dict.fromkeys((HEX20, HEX27), list(FACES[HEX8])),
}

_LEAST_SHARE = 1e-6  # of its cell's volume, that a tetrahedron may have


def triangles_of(faces: Array) -> Array:
    """Rows of 3 or 4 corners as triangles (k, 1 or 2, 3), turned alike, from the lowest corner."""
    if faces.shape[1] == 3:
        return faces[:, None]
    lowest = faces.argmin(axis=1)
    turned = np.take_along_axis(faces, (lowest[:, None] + np.arange(4)) % 4, axis=1)
    return np.stack((turned[:, [0, 1, 2]], turned[:, [0, 2, 3]]), axis=1)


def cut(code: int, corners: Array, points: Array, centres: Array) -> tuple[Array, Array, Array]:
    """Tetrahedra of cells of a type: (rows (k, 4), the cell of each, which cells have a centre).

    `corners` are positions in `points`; their order decides where faces are cut. Where the cut
    from the lowest corner makes a tetrahedron turned the wrong way or flat, the cell is cut around
    its centre, the number for which is taken from `centres` (one per cell). The tetrahedra are
    turned as their cell is. ValueError, with the position of the first such cell, where neither
    will do.
    """
    if code in (TET4, TET10):
        return corners, np.arange(len(corners)), np.zeros(len(corners), np.bool_)
    outside = [face[: 4 if len(face) == 4 else 3] for face in CELL_FACES[code]]
    shell = np.concatenate([triangles_of(corners[:, face]) for face in outside], axis=1)
    lowest = corners.min(axis=1)
    middle = points[corners].mean(axis=1)
    direct, direct_good = _fans(shell, lowest, points[lowest], points)
    around, around_good = _fans(shell, centres, middle, points)
    if not np.all(direct_good | around_good):
        raise ValueError(int(np.flatnonzero(~(direct_good | around_good))[0]))
    kept_direct = direct_good[:, None] & ~_repeated(direct)
    kept_around = ~direct_good[:, None] & ~_repeated(around)
    cells = np.concatenate((np.nonzero(kept_direct)[0], np.nonzero(kept_around)[0]))
    rows = np.concatenate((direct[kept_direct], around[kept_around]))
    order = np.argsort(cells, kind="stable")
    return rows[order], cells[order], ~direct_good


def _fans(shell: Array, apex: Array, where: Array, points: Array) -> tuple[Array, Array]:
    """Tetrahedra (cells, triangles, 4) between triangles and each cell's apex; which cells fit.

    Tetrahedra that name a node twice, since the triangle has the apex or lies in a collapsed face,
    don't count.
    """
    tips = np.broadcast_to(apex[:, None, None], (*shell.shape[:2], 1))
    rows = np.concatenate((shell[:, :, ::-1], tips), axis=2)
    arms = points[rows[:, :, :3]] - where[:, None, None]
    six_volumes = -np.linalg.det(arms)
    six_volumes[_repeated(rows)] = 0.0
    whole = six_volumes.sum(axis=1)
    shares = np.divide(
        six_volumes, whole[:, None], out=np.zeros_like(six_volumes), where=whole[:, None] != 0
    )
    return rows, np.all((shares > _LEAST_SHARE) | _repeated(rows), axis=1) & (whole != 0)


def _repeated(rows: Array) -> Array:
    """Which rows name a node twice."""
    ordered = np.sort(rows, axis=-1)
    found: Array = np.any(ordered[..., 1:] == ordered[..., :-1], axis=-1)
    return found
