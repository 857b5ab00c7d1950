"""Wishes of a designer as the case file says them."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass, field

from vkctl.prepare.case_file.entries import Names, Vector


@dataclass(frozen=True)
class Plane:
    """A plane of symmetry."""

    point: Vector
    normal: Vector


@dataclass(frozen=True)
class Cyclic:
    """The same shape `count` times around an axis."""

    point: Vector
    axis: Vector
    count: int


@dataclass(frozen=True)
class Draw:
    """Directions in which tools or moulds are drawn off the shape.

    With a point of the parting plane, across the only direction, both ways from it.
    """

    directions: tuple[Vector, ...]
    parting: Vector | None = None


@dataclass(frozen=True)
class Overhang:
    """How the shape is printed: upwards along a direction, held within a cone below."""

    direction: Vector
    angle: float = 45.0  # degrees of the cone, from its axis to its side
    plate: Vector | None = None  # a point of the plate; None: below the lowest design point


@dataclass(frozen=True)
class SizeWishes:
    """Diameters: of the thinnest member, the smallest hole and the thickest member."""

    member: float | None = None
    hole: float | None = None
    thickest: float | None = None


@dataclass(frozen=True)
class Wishes:
    """What the shape shall have; the default wishes nothing."""

    symmetry: tuple[Plane, ...] = ()
    cyclic: Cyclic | None = None
    extruded: Vector | None = None  # direction along which the shape stays the same
    draw: Draw | None = None
    overhang: Overhang | None = None
    sizes: SizeWishes | None = None
    void: Names = ()  # sets without material
    thickness: dict[str, float] = field(default_factory=dict)  # around sets to keep or leave void

    def told(self) -> str:
        """The wishes in one text, by which changed ones are found."""
        return "" if self == Wishes() else json.dumps(asdict(self), sort_keys=True)
