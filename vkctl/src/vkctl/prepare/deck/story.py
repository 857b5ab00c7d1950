"""What a deck says beside its mesh: materials, springs, and what acts in each step."""

from __future__ import annotations

from dataclasses import dataclass, field

from vkctl.basics.types import Array

from .axes import Axes
from .history import Entry
from .materials import Assigned


@dataclass
class Acting:
    """What acts in a step. Lists are replaced, never changed, so that steps can share them."""

    supports: list[Entry] = field(default_factory=list)
    forces: list[Entry] = field(default_factory=list)
    pressures: list[Entry] = field(default_factory=list)
    gravity: dict[tuple[float, ...], list[Entry]] = field(default_factory=dict)  # by direction
    temperatures: list[Entry] = field(default_factory=list)


@dataclass
class Spring:
    """Springs between nodes and the ground, `counts` of them at each."""

    labels: Array
    counts: Array
    direction: int
    stiffness: float
    axes: Axes | None
    name: str


@dataclass
class Turned:
    """Nodes whose supports and forces are told in axes of their own."""

    labels: Array
    axes: Axes


@dataclass
class Step:
    name: str
    acting: Acting


@dataclass
class Story:
    materials: list[Assigned] = field(default_factory=list)
    springs: list[Spring] = field(default_factory=list)
    turned: list[Turned] = field(default_factory=list)
    initial: list[Entry] = field(default_factory=list)  # temperatures
    model: Acting = field(default_factory=Acting)  # before the first step
    steps: list[Step] = field(default_factory=list)
