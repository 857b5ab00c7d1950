"""Nodes, elements and faces that the lines of a deck name."""

from __future__ import annotations

import re
from collections.abc import Iterable

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array

from ..deck_pressures import plain_name
from ..part import Part


class Targets:
    """What a part calls its nodes, elements and faces. Labels come ascending, each once."""

    def __init__(self, part: Part) -> None:
        self.part = part
        rows = [rows.ravel() for _, _, rows in part.solids]
        self.used = distinct(np.concatenate([*rows, np.empty(0, np.int64)])).astype(np.int64)
        own = [labels for _, labels, _ in part.solids]
        labels = np.concatenate([*own, np.empty(0, np.int64)])
        order = np.argsort(labels, kind="stable")
        self.elements = labels[order]
        self._cells = labels[order] if part.cells is None else part.cells[order]  # ascending too
        self.has_assembly = any(section.keyword == "ASSEMBLY" for section in part.deck)
        order = np.argsort(part.labels, kind="stable")
        self._sorted, self._places = part.labels[order], part.points[order]
        self._node_sets = _folded(part.node_sets)
        self._element_sets = _folded(part.element_sets)
        self._surfaces = _folded(part.surfaces)
        self._numbers: dict[bytes, int] = {}  # of faces, by their corners
        self._faces: dict[str, Array] = {}

    def nodes(self, word: str) -> tuple[str, Array] | None:
        """Title ("" of a single node) and labels, those of solids alone; None for no such."""
        if (label := _label(word)) is not None:
            if not _among(label, self._sorted):
                return None
            return "", np.array([label] if _among(label, self.used) else [], np.int64)
        title = self._node_sets.get(plain_name(word).upper())
        if title is None:
            return None
        return title, np.intersect1d(self.part.node_sets[title], self.used)

    def solids(self, word: str) -> tuple[str, Array] | None:
        """Title ("" of a single element) and labels; None for no such."""
        if (label := _label(word)) is not None:
            # All that the element was split into.
            first, last = (np.searchsorted(self._cells, label, side) for side in ("left", "right"))
            members = self.elements[first:last]
            return ("", members) if len(members) else None
        title = self.element_set(word)
        return None if title is None else (title, np.unique(self.part.element_sets[title]))

    def element_set(self, word: str) -> str | None:
        """The name of a set of solids as it is known, whatever letters the deck writes it in."""
        return self._element_sets.get(plain_name(word).upper())

    def faces(self, word: str) -> tuple[str, Array] | None:
        """Title of a surface and numbers of its faces, which are ours."""
        title = self._surfaces.get(word.upper()) or self._surfaces.get(plain_name(word).upper())
        if title is None:
            return None
        if title not in self._faces:
            numbers = []
            for table in self.part.surfaces[title]:
                corners = np.sort(table[:, : 4 if table.shape[1] == 4 else 3], axis=1)
                for row in corners:
                    numbers.append(self._numbers.setdefault(row.tobytes(), len(self._numbers)))
            self._faces[title] = np.unique(np.array(numbers, np.int64))
        return title, self._faces[title]

    def places(self, labels: Array) -> Array:
        """Coordinates (k, 3) of nodes."""
        found: Array = self._places[np.searchsorted(self._sorted, labels)]
        return found


def _label(word: str) -> int | None:
    return int(word) if re.fullmatch(r"[0-9]{1,18}", word) else None


def _among(label: int, labels: Array) -> bool:
    """Whether a label is one of others, which ascend."""
    place = int(np.searchsorted(labels, label))
    return place < len(labels) and int(labels[place]) == label


def _folded(names: Iterable[str]) -> dict[str, str]:
    return {name.upper(): name for name in names}
