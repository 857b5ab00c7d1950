"""A part as its file tells it, in the labels of the file, and the positions of its labels."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass, field

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array


@dataclass
class MeshOptions:
    """How geometry is meshed, and whether cells are cut into 4-node tetrahedra.

    Sizes are in units of the geometry, before any scaling.
    """

    size: float | None = None  # largest edge length; a twentieth of the diagonal if not given
    smallest_size: float | None = None
    per_circle: int = 0  # elements per full circle of curvature, 0 for no refinement
    order: int = 2  # 1 for 4-node, 2 for 10-node tetrahedra
    curved: bool = True  # mid-edge nodes on the geometry rather than halfway
    threads: int = 1
    split: bool = False  # of any part: cells that the solver doesn't have are taken then


@dataclass(frozen=True)
class Told:
    """What there is to tell while a part is read: to be kept, or true for the moment only."""

    text: str
    lasting: bool = False


@dataclass(frozen=True)
class Reading:
    """How far the sender of a part is trusted, and who is told how its reading goes on.

    Without trust nothing in the part's file starts a program, writes a file, or opens another one
    outside of its folder. `limits` bound time and memory. `conditions` asks for what a deck says
    beside its mesh.
    """

    trust_scripts: bool = False
    limits: bool = True
    tell: Callable[[Told], None] = lambda told: None
    conditions: bool = False


# What has cells that the solver doesn't have split, for messages.
SPLITTING = "split = true in [mesh] of the case file, or --split of vkctl import"
_SHOWN = 5  # labels named in a message


class PartError(Exception):
    """A part that can't be turned into a model; the text says why and what helps."""


@dataclass
class DeckSection:
    """One keyword with its parameters (names in capitals) and its data lines.

    `pieces` are the data between comments: the number of the line each begins in, and its text.
    """

    keyword: str
    parameters: dict[str, str]
    pieces: list[tuple[int, str]]
    first_line: str
    file: str
    line: int

    @property
    def data(self) -> str:
        return "\n".join(text for _, text in self.pieces)

    def get(self, name: str) -> str:
        return self.parameters.get(name, "")

    def lines(self) -> Iterator[tuple[int, str]]:
        """Number and text of each data line that holds anything."""
        for first, text in self.pieces:
            for number, line in enumerate(text.split("\n"), first):
                if line.strip():
                    yield number, line.strip()


@dataclass
class Part:
    """Mesh in the labels of its file.

    `solids` holds (type code, element labels (k,), rows of node labels (k, nodes)) in the order
    of the file, nodes already in the solver's order. `surfaces` holds for each name the node
    labels of surface elements, arrays of 3, 4 or 6 columns. `node_data` has one value per entry
    of `labels`. `meshed` tells that the mesh was made here, of geometry: its labels are Gmsh's.
    `deck` holds what a deck says beside its mesh, where that was asked for. Where cells were split,
    `cells` holds the label of the one that each element is of, in the order of `solids`.
    """

    labels: Array
    points: Array  # float64 (n, 3)
    solids: list[tuple[int, Array, Array]]
    node_sets: dict[str, Array] = field(default_factory=dict)
    element_sets: dict[str, Array] = field(default_factory=dict)
    surfaces: dict[str, list[Array]] = field(default_factory=dict)
    node_data: dict[str, Array] = field(default_factory=dict)
    unsupported: dict[str, int] = field(default_factory=dict)  # element type and count
    notes: list[str] = field(default_factory=list)
    meshed: bool = False
    deck: list[DeckSection] = field(default_factory=list)
    cells: Array | None = None


def labelled(labels: Iterable[int]) -> str:
    """The first few labels, for messages."""
    shown = [int(label) for label in labels]
    dots = ", ..." if len(shown) > _SHOWN else ""
    return ", ".join(str(label) for label in shown[:_SHOWN]) + dots


class Lookup:
    """Positions of labels; the labels need not be dense nor sorted."""

    def __init__(self, labels: Array, what: str) -> None:
        self.what = what
        self.order = np.argsort(labels, kind="stable")
        self.sorted = np.asarray(labels)[self.order]
        self.dense = False
        self.first = self.last = 0
        if len(labels):
            double = self.sorted[1:][self.sorted[1:] == self.sorted[:-1]]
            if len(double):
                raise PartError(f"{what} labels occur twice: {labelled(double)}")
            self.first, self.last = int(self.sorted[0]), int(self.sorted[-1])
            self.dense = self.last - self.first + 1 == len(labels)

    def positions(self, labels: Array) -> Array:
        """Positions (0-based) of `labels`; PartError names those that don't exist."""
        wanted = np.asarray(labels)
        if not len(self.sorted):
            place = np.zeros(wanted.shape, np.int64)
            missing = np.ones(wanted.shape, np.bool_)
        elif self.dense:
            missing = (wanted < self.first) | (wanted > self.last)
            place = np.where(missing, self.first, wanted) - self.first
        else:
            place = np.minimum(np.searchsorted(self.sorted, wanted), len(self.sorted) - 1)
            missing = self.sorted[place] != wanted
        if np.any(missing):
            bad = distinct(wanted[missing])
            raise PartError(f"{self.what}s that don't exist are referred to: {labelled(bad)}")
        return self.order[place]

    def known(self, labels: Array) -> Array:
        """Those of `labels` that exist."""
        return labels[np.isin(labels, self.sorted)]
