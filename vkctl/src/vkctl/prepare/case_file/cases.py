"""The case file: what it says, as typed data, before any mesh is known.

Names of sets are resolved later, when the part is there; the key path kept with each entry lets
those messages name a line too.
"""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

import numpy as np

from vkctl.directory.formats import OPTIONS, PathLike
from vkctl.directory.model import Material

from ..readers.gmsh import MeshOptions
from . import locate
from .expression import Expression
from .schema import Field, Report, Table, did_you_mean, load

Vector = tuple[float, float, float]
Names = tuple[str, ...]
SetKind = Literal["node", "element", "face"]
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


@dataclass
class MaterialEntry:
    material: Material
    where: locate.Path
    elements: Names  # empty: all elements that no other material has
    density: float | None


@dataclass
class Support:
    """`values` are the prescribed displacements or the offsets of an elastic support."""

    kind: Literal["fixed", "prescribed", "elastic"]
    where: locate.Path
    sets: Names
    directions: str
    values: tuple[Field, Field, Field] = (0.0, 0.0, 0.0)
    axes: tuple[Vector, ...] = ((1.0, 0.0, 0.0), (0.0, 1.0, 0.0), (0.0, 0.0, 1.0))
    stiffness: Vector | None = None  # along each axis; None: the option's
    per: Literal["node", "area", "total"] = "node"


@dataclass
class Load:
    kind: Literal["force", "traction", "pressure", "gravity", "temperature"]
    where: locate.Path
    sets: Names  # empty: the whole part
    values: tuple[Field, ...] = ()  # three, or one of pressure and temperature
    spread: Literal["area", "equal", "each"] | None = None
    array: str = ""  # node data that holds the temperature
    reference: float = 0.0


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
    report: Report
    part: str = ""
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


def read_cases(path: PathLike) -> Cases:
    """Read and check a case file; CaseFileError tells all its mistakes at once."""
    top, report = load(path)
    cases = Cases(Path(path), report)
    cases.part = top.text("part", "")
    _read_mesh(cases, top.table("mesh"))
    _read_model(cases, top.table("model"))
    for name, table in top.tables("materials").items():
        cases.materials[name] = _read_material(name, table)
    _check_materials(cases, top)
    kinds: tuple[SetKind, ...] = ("node", "element", "face")
    for kind in kinds:
        for name, table in top.tables(f"{kind}_sets").items():
            cases.sets.append((name, _read_set(kind, table)))
    cases.supports = {n: _read_support(t) for n, t in top.tables("supports").items()}
    cases.loads = {n: _read_load(t) for n, t in top.tables("loads").items()}
    if level := top.table("level"):
        cases.level = _read_level(level)
    _read_load_cases(cases, top)
    cases.run_order = _read_run_order(cases, top)
    if options := top.table("options"):
        cases.options = _read_options(options)
    top.table("optimise")  # keys of the optimisation loop, which reads them itself
    top.done()
    report.finish()
    return cases


def _read_mesh(cases: Cases, table: Table | None) -> None:
    if table is None:
        return
    cases.scale = table.number("scale", 1.0, above=0)
    cases.reorder = table.choice("inverted", ("reorder", "refuse"), "reorder") == "reorder"
    options = MeshOptions(
        size=table.number("size", None, above=0),
        smallest_size=table.number("smallest_size", None, above=0),
        per_circle=table.integer("per_circle", 0, 0),
        order=table.integer("order", 2),
        curved=table.boolean("curved", True),
        threads=table.integer("threads", 1, 1),
    )
    if options.order not in (1, 2):
        table.problem("order", f"must be 1 or 2, not {options.order}")
    cases.mesh = options
    table.done()


def _read_model(cases: Cases, table: Table | None) -> None:
    if table is None:
        return
    cases.exclude = table.names("exclude")
    cases.ignore_level = table.names("ignore_level")
    cases.marked_nodes = table.names("marked_nodes")
    table.done()


# --- materials -------------------------------------------------------------------------------


def _read_material(name: str, table: Table) -> MaterialEntry:
    kind = table.choice("kind", MATERIAL_KINDS, "isotropic")
    if len(name.encode("latin-1", "replace")) > 32:
        table.report.add(table.path, f"material name {name!r} is longer than 32 characters")
    material = _orthotropic(table) if kind == "orthotropic" else _isotropic(kind, table)
    material.name = name
    material.initial_strain = table.number("initial_strain", 0.0)
    material.limit_stress = table.number("limit_stress", 1.0, above=0)
    entry = MaterialEntry(
        material,
        table.path,
        table.names("elements"),
        table.number("density", None, least=0),
    )
    table.done()
    return entry


def _isotropic(kind: str, table: Table) -> Material:
    e = table.number("E", above=0)
    nu = table.number("nu", above=-1, below=0.5)
    expansion = table.number("expansion", 0.0)
    if kind == "yielding":
        strength = table.number("yield_stress", above=0)
        ratio = table.number("hardening_ratio", 0.001, least=0, most=1)
        return Material.yielding(e, nu, strength, hardening_ratio=ratio, expansion=expansion)
    make = Material.compression_only if kind == "compression_only" else Material.isotropic
    return make(e, nu, expansion=expansion)


def _orthotropic(table: Table) -> Material:
    moduli = table.vector("E")
    poisson = table.vector("nu")
    shear = table.vector("G")
    for key, values in (("E", moduli), ("G", shear)):
        if table.has(key) and min(values) <= 0 and not table.report.problems:
            table.problem(key, "must be three numbers above 0: in x, y, z or xy, xz, yz")
    if not table.report.problems and min(moduli) > 0:
        compliance = np.diag(1.0 / np.array(moduli))
        for (i, j), nu in zip(((0, 1), (0, 2), (1, 2)), poisson, strict=True):
            compliance[i, j] = compliance[j, i] = -nu / moduli[i]
        if np.linalg.eigvalsh(compliance)[0] <= 0:
            table.problem(
                "nu",
                "gives a material of negative stiffness",
                "the ratios are nu12, nu13, nu23 with nu12/E1 = nu21/E2",
            )
    return Material.orthotropic(
        moduli, poisson, shear, expansions=table.vector("expansion", (0.0, 0.0, 0.0))
    )


def _check_materials(cases: Cases, top: Table) -> None:
    if not cases.materials and not top.has("materials"):
        top.report.add((), "no materials", "add a table [materials.NAME] with E and nu")
    rest = [name for name, entry in cases.materials.items() if not entry.elements]
    for name in rest[1:]:
        top.report.add(
            cases.materials[name].where,
            f"[materials.{name}] and [materials.{rest[0]}] both have no 'elements'",
            "only one material can take all elements that are left",
        )


# --- sets ------------------------------------------------------------------------------------


def _read_set(kind: SetKind, table: Table) -> SetDefinition:
    definition = SetDefinition(
        kind=kind,
        where=table.path,
        sources=table.names("from", None),
        minus=table.names("minus"),
        regions=[r for r in map(_region, _regions(table)) if r],
        formula=table.formula("where"),
        nearest=table.triples("nearest") if kind == "node" and table.has("nearest") else (),
        normal=_normal(table) if kind == "face" else None,
    )
    table.done()
    return definition


def _regions(table: Table) -> Iterable[tuple[str, Table]]:
    for shape in ("box", "plane", "sphere", "cylinder"):
        if (below := table.table(shape)) is not None:
            yield shape, below


def _region(named: tuple[str, Table]) -> Region | None:
    shape, table = named
    if shape == "box":
        region = Region("box", table.vector("min"), table.vector("max"))
        if any(a > b for a, b in zip(region.point, region.direction, strict=True)):
            table.problem("min", "is above max")
    elif shape == "plane":
        region = Region("plane", table.vector("point"), table.vector("normal", nonzero=True))
    elif shape == "sphere":
        region = Region("sphere", table.vector("center"), radius=table.number("radius", above=0))
    else:
        region = Region(
            "cylinder",
            table.vector("point"),
            table.vector("axis", nonzero=True),
            table.number("radius", above=0),
        )
    region.tolerance = table.number("tolerance", None, least=0)
    table.done()
    return region


def _normal(table: Table) -> tuple[Vector, float] | None:
    below = table.table("normal")
    if below is None:
        return None
    direction = below.vector("direction", nonzero=True)
    angle = below.number("angle", 5.0, least=0, most=180)
    below.done()
    return direction, angle


# --- supports and loads ----------------------------------------------------------------------


def _set_names(table: Table, required: bool = True) -> Names:
    names: Names = table.names("set") if not required else table.names("set", _needed(table))
    return names


def _needed(table: Table) -> Names:
    if not table.has("set"):
        table.report.add(table.path, f"{table.label} has no 'set'", "name the set it acts on")
    return ()


def _directions(table: Table) -> str:
    text = table.text("directions", "xyz")
    if not text or set(text) - set("xyz") or len(set(text)) != len(text):
        table.problem("directions", f"must be letters of 'xyz', not {text!r}")
        return "xyz"
    return text


def _read_support(table: Table) -> Support:
    kinds = ("fixed", "prescribed", "elastic")
    kind = table.choice("type", kinds, "fixed")
    support = Support(kind, table.path, _set_names(table), _directions(table))  # type: ignore[arg-type]
    if kind == "prescribed":
        support.values = table.field_vector("value")
    elif kind == "elastic":
        _read_elastic(support, table)
    elif table.has("value"):
        table.problem("value", "has no effect on a fixed support", "write type = 'prescribed'")
        table.field_vector("value")
    table.done()
    return support


def _read_elastic(support: Support, table: Table) -> None:
    if table.has("axes"):
        support.axes = table.triples("axes", 3) or support.axes
        for i, axis in enumerate(support.axes):
            if axis == (0.0, 0.0, 0.0) and "xyz"[i] in support.directions:
                table.problem("axes", "holds a zero vector", "", i)
    if isinstance(table.data.get("stiffness"), list):
        support.stiffness = table.vector("stiffness")
    elif table.has("stiffness"):
        support.stiffness = (table.number("stiffness", 1.0, least=0),) * 3
    if support.stiffness and min(support.stiffness) < 0:
        table.problem("stiffness", "must not be negative")
    if table.has("offset"):
        support.values = table.field_vector("offset")
    support.per = table.choice("per", ("node", "area", "total"), "node")  # type: ignore[assignment]
    if support.per != "node" and support.stiffness is None:
        table.problem("per", f"{support.per!r} needs a 'stiffness'")


def _read_load(table: Table) -> Load:
    kinds = ("force", "traction", "pressure", "gravity", "temperature")
    kind = table.choice("type", kinds)
    load = Load(kind, table.path, ())  # type: ignore[arg-type]
    load.sets = _set_names(table, required=kind in ("force", "traction", "pressure"))
    if kind == "force":
        load.values = table.vector("value")
        load.spread = table.choice("spread", ("area", "equal", "each"), "") or None  # type: ignore[assignment]
    elif kind == "traction":
        load.values = table.field_vector("value")
    elif kind == "gravity":
        load.values = table.vector("value")
    elif kind == "pressure":
        load.values = (table.field("value"),)
    else:
        load.array, value = _value_or_array(table)
        load.values = () if value is None else (value,)
        load.reference = table.number("reference", 0.0)
    table.done()
    return load


def _value_or_array(table: Table) -> tuple[str, Field | None]:
    """Keys `value` and `array`, of which one has to be there."""
    array, value = table.text("array", ""), table.field("value", None)
    if bool(array) == (value is not None):
        words = "both 'value' and 'array'" if array else "neither 'value' nor 'array'"
        table.report.add(table.path, f"{table.label} has {words}", "give one of them")
    return array, value


def _read_level(table: Table) -> Level:
    names = _set_names(table, required=False)
    array, value = _value_or_array(table)
    table.done()
    return Level(table.path, names, value, array)


# --- load cases and options ------------------------------------------------------------------


def _read_load_cases(cases: Cases, top: Table) -> None:
    tables = top.table_list("load_case")
    everything = dict.fromkeys(cases.loads, 1.0)
    if not tables:
        entry = CaseEntry("all", (), tuple(cases.supports), everything, True, False)
        cases.load_cases = [entry]
    for number, table in enumerate(tables, 1):
        name = table.text("name", f"case {number}")
        if name in [entry.name for entry in cases.load_cases]:
            table.problem("name", f"{name!r} is taken by an earlier load case")
        entry = CaseEntry(
            name,
            table.path,
            table.names("supports", tuple(cases.supports)),
            _case_loads(cases, table) if table.has("loads") else everything,
            table.boolean("requested", True),
            table.boolean("excluded", False),
        )
        _check_names(table, "supports", entry.supports, cases.supports)
        cases.load_cases.append(entry)
        table.done()
    if len(cases.load_cases) > 9999:
        top.report.add(("load_case",), "more than 9999 load cases")
    if not cases.supports:
        text = "no supports: nothing holds the part"
        top.report.add((), text, "add a table [supports.NAME] with a 'set'")


def _case_loads(cases: Cases, table: Table) -> dict[str, float]:
    """Loads of a case: a list of names, or a table of factors."""
    if isinstance(table.data["loads"], dict):
        below = table.table("loads")
        assert below is not None
        factors = {name: below.number(name) for name in below.data}
    else:
        factors = dict.fromkeys(table.names("loads"), 1.0)
    _check_names(table, "loads", factors, cases.loads)
    return factors


def _check_names(table: Table, key: str, used: Iterable[str], known: Iterable[str]) -> None:
    for index, name in enumerate(used):
        if name not in known:
            inside = name if isinstance(table.data.get(key), dict) else index
            text = f"names {name!r}, which isn't in [{key}]"
            table.problem(key, text, did_you_mean(name, known), inside)


def _read_run_order(cases: Cases, top: Table) -> list[int] | None:
    if not top.has("run_order"):
        return None
    names = [entry.name for entry in cases.load_cases]
    given = top.names("run_order")
    for index, name in enumerate(given):
        if name not in names:
            text = f"names {name!r}, which isn't a load case"
            top.problem("run_order", text, did_you_mean(name, names), index)
    missing = [name for name in names if name not in given]
    if missing:
        top.problem(
            "run_order", f"leaves out {', '.join(missing)}", "it has to name all load cases"
        )
    if len(set(given)) != len(given):
        top.problem("run_order", "names a load case twice")
    if top.report.problems:
        return None
    return [names.index(name) + 1 for name in given]


def _read_options(table: Table) -> dict[str, float]:
    """Options by full key; written either quoted or as TOML's dotted keys."""
    options = {}
    flat = dict(_flattened(table))
    for (*above, last), value in flat.items():
        key = ".".join((*above, last))
        at = (*table.path, *above, last)
        if key not in OPTIONS:
            text = f"unknown option {key!r} in [options]"
            table.report.add(at, text, did_you_mean(key, OPTIONS))
            continue
        option = OPTIONS[key]
        holder = Table({key: value}, table.path, table.report)
        table.report.lines.setdefault((*table.path, key), table.report.lines.get(at, 0))
        if option.type is int:
            number: float = holder.integer(key, 0)
        else:
            number = holder.number(key, 0.0)
        options[key] = number
        if option.low is not None and number < option.low:
            holder.problem(key, f"is {value}, the solver takes {option.low} at least")
        if option.high is not None and number > option.high:
            holder.problem(key, f"is {value}, the solver takes {option.high} at most")
    return options


def _flattened(table: Table) -> Iterable[tuple[Names, object]]:
    for key, value in table.data.items():
        if isinstance(value, dict):
            for below, inner in value.items():
                yield (key, below), inner
        else:
            yield (key,), value
