"""What a case file says, as typed data, before any mesh is known."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

from vkctl.basics.clusters import Cluster
from vkctl.directory.model import Material

from ..part import MeshOptions
from . import locate
from .expression import Expression
from .mistakes import Mistakes
from .toml_table import Field

Vector = tuple[float, float, float]
Names = tuple[str, ...]
SetKind = Literal["node", "element", "face"]
SupportKind = Literal[
    "fixed", "prescribed", "elastic", "remote_displacement", "symmetry", "frictionless"
]
Per = Literal["node", "area", "total"]  # what a stiffness is of
LoadKind = Literal[
    "force",
    "traction",
    "pressure",
    "gravity",
    "temperature",
    "moment",
    "remote_force",
    "bearing",
]
Spread = Literal["area", "equal", "each"]
MATERIAL_KINDS = ("isotropic", "yielding", "compression_only", "orthotropic")


@dataclass
class Region:
    """One geometric condition; which fields count depends on `shape`."""

    shape: Literal["box", "plane", "sphere", "cylinder"]
    point: Vector  # lower corner, point of the plane or axis, centre
    direction: Vector = (0.0, 0.0, 0.0)  # upper corner, normal, axis
    radius: float = 0.0
    tolerance: float | None = None  # None: the default of the part


@dataclass
class SetDefinition:
    """A set of the case file: what all conditions given hold for."""

    kind: SetKind
    where: locate.Path
    sources: Names | None  # None: all active nodes or elements, all outer faces
    minus: Names
    regions: list[Region]
    formula: Expression | None
    nearest: tuple[Vector, ...]
    normal: tuple[Vector, float] | None  # direction, largest angle in degrees
    labels: tuple[int, ...] | None = None  # in the numbers of the part's file


@dataclass
class MaterialEntry:
    material: Material
    where: locate.Path
    elements: Names  # empty: all elements that no other material has
    density: float | None


@dataclass
class Support:
    """`values` are the prescribed displacements or the offsets of an elastic support."""

    kind: SupportKind
    where: locate.Path
    sets: Names
    directions: str
    values: tuple[Field, Field, Field] = (0.0, 0.0, 0.0)
    axes: tuple[Vector, ...] = ((1.0, 0.0, 0.0), (0.0, 1.0, 0.0), (0.0, 0.0, 1.0))
    stiffness: Vector | None = None  # along each axis; None: the option's
    per: Per = "node"
    point: Vector = (0.0, 0.0, 0.0)  # of a remote displacement
    rotation: Vector = (0.0, 0.0, 0.0)  # about it, in radians; `values` is its translation


@dataclass
class Load:
    kind: LoadKind
    where: locate.Path
    sets: Names  # empty: the whole part
    values: tuple[Field, ...] = ()  # three, or one of pressure and temperature
    spread: Spread | None = None
    array: str = ""  # node data that holds the temperature
    reference: float = 0.0
    point: Vector | None = None  # where a remote force acts, or of a bearing's axis
    moment: Vector = (0.0, 0.0, 0.0)  # beside a remote force
    axis: Vector | None = None  # of a bearing; None: that of the wall
    follows: bool = False  # gravity: weighs what the level field has of material
    # In the place of sets, nodes in the numbers of the part's file with a value each.
    labels: tuple[int, ...] = ()
    each: tuple[float, ...] | tuple[Vector, ...] = ()


@dataclass
class Level:
    where: locate.Path
    sets: Names
    value: Field | None
    array: str


@dataclass
class CaseEntry:
    """One load case; supports and loads by name, loads with a factor."""

    name: str
    where: locate.Path
    supports: Names
    loads: dict[str, float]
    requested: bool
    excluded: bool


@dataclass
class Cases:
    """A case file. `report` holds the lines of its keys and takes further mistakes."""

    path: Path
    report: Mistakes
    part: str = ""
    units: str | None = None  # name of a system of `UNIT_SYSTEMS`
    scale: float = 1.0
    reorder: bool = True
    mesh: MeshOptions = field(default_factory=MeshOptions)
    exclude: Names = ()
    ignore_level: Names = ()
    marked_nodes: Names = ()
    materials: dict[str, MaterialEntry] = field(default_factory=dict)
    sets: list[tuple[str, SetDefinition]] = field(default_factory=list)
    supports: dict[str, Support] = field(default_factory=dict)
    loads: dict[str, Load] = field(default_factory=dict)
    level: Level | None = None
    load_cases: list[CaseEntry] = field(default_factory=list)
    run_order: list[int] | None = None  # numbers of load cases
    options: dict[str, float] = field(default_factory=dict)
    clusters: dict[str, Cluster] = field(default_factory=dict)
