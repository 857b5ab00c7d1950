"""Faces of elements: which there are, and what tells one from another."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .elements import Elements
from .topology import FACES, HEX8


def faces_within(elements: Elements, nodes: npt.ArrayLike) -> list[Array]:
    """Element faces whose nodes are all among `nodes`, seen from outside counter-clockwise.

    One table of node numbers for each width that occurs: 3 and 6 for tetrahedra, 4 for
    hexahedra. An inner face that lies in the set comes out twice, once from each side.
    """
    chosen = np.asarray(nodes)
    highest = max((int(t.max()) for t in elements.used_tables() if t.size), default=0)
    member = np.zeros(max(highest, int(chosen.max(initial=0))) + 1, np.bool_)
    member[chosen] = True
    found = []
    for code, local in FACES.items():
        rows = elements.of_type(code)[1]
        inside = member[rows]
        faces = [rows[inside[:, face].all(axis=1)][:, face] for face in local]
        if any(len(f) for f in faces):
            found.append(np.concatenate(faces))
    return found


def boundary_faces(elements: Elements) -> list[Array]:
    """Faces that belong to one element only, as `faces_within` gives them.

    Triangles and quadrangles never match each other, so where tetrahedra and hexahedra meet both
    sides count as boundary.
    """
    triangles: list[Array] = []
    quadrangles: list[Array] = []
    for code, local in FACES.items():
        rows = elements.of_type(code)[1]
        if len(rows):
            target = quadrangles if code == HEX8 else triangles
            target.append(rows[:, local].reshape(-1, local.shape[1]))
    found = []
    for group, corners in ((triangles, 3), (quadrangles, 4)):
        if group:
            keys = np.concatenate([g[:, :corners] for g in group])
            single = occur_once(np.sort(keys, axis=1))
            parts = np.split(single, np.cumsum([len(g) for g in group])[:-1])
            found += [g[part] for g, part in zip(group, parts, strict=True) if part.any()]
    return found


def occur_once(rows: Array) -> Array:
    """Mask of the rows that occur once; the first three columns are enough to tell a face."""
    span = int(rows.max()) + 1
    if span < 1 << 21:  # three node numbers fit one integer, which sorts faster
        packed = rows[:, :3].astype(np.int64) @ np.array((span * span, span, 1))
        order = np.argsort(packed)
    else:
        order = np.lexsort((rows[:, 2], rows[:, 1], rows[:, 0]))
    ordered = rows[order, :3]
    differs = np.any(ordered[1:] != ordered[:-1], axis=1)
    first = np.concatenate(([True], differs))
    last = np.concatenate((differs, [True]))
    mask = np.empty(len(rows), np.bool_)
    mask[order] = first & last
    return mask


def face_triangles(faces: list[Array]) -> Array:
    """Flat triangles (k, 3) that draw faces: quadrangles give two, 6-node triangles four."""
    parts = {3: ((0, 1, 2),), 4: ((0, 1, 2), (0, 2, 3))}
    parts[6] = ((0, 3, 5), (3, 1, 4), (5, 4, 2), (3, 4, 5))
    triangles = [face[:, list(p)] for face in faces for p in parts[face.shape[1]]]
    return np.concatenate(triangles) if triangles else np.empty((0, 3), np.int32)


def face_keys(table: Array) -> Array:
    """Three lowest corner numbers of each face, which are enough to tell it."""
    corners = table[:, : 4 if table.shape[1] == 4 else 3]
    return np.sort(corners, axis=1)[:, :3]


def row_identities(rows: Array) -> Array:
    """One integer per distinct row."""
    span = int(rows.max(initial=0)) + 1
    if span < 1 << 21:
        packed: Array = rows.astype(np.int64) @ np.array((span * span, span, 1))
        return packed
    inverse: Array = np.unique(rows, axis=0, return_inverse=True)[1].ravel()
    return inverse
