"""Sets of faces, and the solid faces that surface elements lie on."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import face_keys, faces_within, row_identities


@dataclass
class Faces:
    """Faces of active elements as rows of node numbers, outward, tables of 3, 4 or 6 columns.

    `interior` counts those with an active element on both sides, whose outward is arbitrary.
    """

    tables: list[Array] = field(default_factory=list)
    interior: int = 0

    def __len__(self) -> int:
        return sum(len(table) for table in self.tables)

    def nodes(self) -> Array:
        """Numbers of their nodes, ascending."""
        if not len(self):
            return np.empty(0, np.int64)
        return distinct(np.concatenate([t.ravel() for t in self.tables]))

    def chosen(self, masks: list[Array]) -> Faces:
        """Those whose mask is set; faces keep counting as interior if any is."""
        tables = [t[m] for t, m in zip(self.tables, masks, strict=True)]
        return Faces([t for t in tables if len(t)], self.interior)


def faces_of_surface(elements: Elements, surface: list[Array], num_nodes: int) -> tuple[Faces, int]:
    """Solid faces that surface elements lie on, and how many lie on none.

    Each face comes once, however many surface elements name it.
    """
    nodes = distinct(np.concatenate([t.ravel() for t in surface] or [np.empty(0, np.int64)]))
    candidates = faces_within(elements, nodes)
    faces, missing = Faces(), 0
    for width in (3, 4, 6):
        wanted = [t for t in surface if t.shape[1] == width]
        there = [t for t in candidates if t.shape[1] == width]
        if not wanted:
            continue
        given = np.concatenate(wanted)
        found = np.concatenate(there) if there else np.empty((0, width), given.dtype)
        ids = row_identities(np.concatenate((face_keys(found), face_keys(given))))
        solid, flat = ids[: len(found)], distinct(ids[len(found) :])
        names, first, count = np.unique(solid, return_index=True, return_counts=True)
        hit = np.isin(names, flat)
        missing += len(flat) - int(np.count_nonzero(hit))
        faces.interior += int(np.count_nonzero(count[hit] > 1))
        if np.any(hit):
            faces.tables.append(found[first[hit]])
    return faces, missing


def unique_faces(faces: Faces) -> Faces:
    tables = []
    for width in (3, 4, 6):
        same = [t for t in faces.tables if t.shape[1] == width]
        if same:
            rows = np.concatenate(same)
            tables.append(rows[np.unique(row_identities(face_keys(rows)), return_index=True)[1]])
    return Faces(tables, faces.interior)


def faces_without(faces: Faces, less: Faces) -> Faces:
    masks = []
    for table in faces.tables:
        others = [t for t in less.tables if t.shape[1] == table.shape[1]]
        keys = np.concatenate([face_keys(t) for t in (table, *others)])
        ids = row_identities(keys)
        masks.append(~np.isin(ids[: len(table)], ids[len(table) :]))
    return faces.chosen(masks)
