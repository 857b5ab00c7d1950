"""Supports, loads and the level field of a case file."""

from __future__ import annotations

from typing import cast, get_args

from .entries import Level, Load, LoadKind, Names, Per, Spread, Support, SupportKind
from .toml_table import Field, Table


def set_names(table: Table, required: bool = True) -> Names:
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


def read_support(table: Table) -> Support:
    kind = cast(SupportKind, table.choice("type", get_args(SupportKind), "fixed"))
    whole = kind in ("remote_displacement", "symmetry", "frictionless")
    directions = "xyz" if whole else _directions(table)
    support = Support(kind, table.path, set_names(table), directions)
    if kind == "remote_displacement":
        support.point = table.vector("point")
        support.values = table.vector("translation", (0.0, 0.0, 0.0))
        support.rotation = table.vector("rotation", (0.0, 0.0, 0.0))
    elif kind == "prescribed":
        support.values = table.field_vector("value")
    elif kind == "elastic":
        _read_elastic(support, table)
    elif kind == "fixed" and table.has("value"):
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
    support.per = cast(Per, table.choice("per", get_args(Per), "node"))
    if support.per != "node" and support.stiffness is None:
        table.problem("per", f"{support.per!r} needs a 'stiffness'")


def read_load(table: Table) -> Load:
    kind = cast(LoadKind, table.choice("type", get_args(LoadKind)))
    load = Load(kind, table.path, ())
    if kind in ("force", "temperature") and "labels" in table.data:
        return _read_each(load, table)
    load.sets = set_names(table, required=kind not in ("gravity", "temperature"))
    if kind == "force":
        load.values = table.vector("value")
        load.spread = cast(Spread | None, table.choice("spread", get_args(Spread), "") or None)
    elif kind == "traction":
        load.values = table.field_vector("value")
    elif kind == "gravity":
        load.values = table.vector("value")
        load.follows = table.boolean("follows", False)
    elif kind == "pressure":
        load.values = (table.field("value"),)
    elif kind == "moment":
        load.moment = table.vector("value")
        _refuse_rigid(table)
    elif kind == "remote_force":
        load.values = table.vector("value")
        load.point = table.vector("point")
        load.moment = table.vector("moment", (0.0, 0.0, 0.0))
        _refuse_rigid(table)
    elif kind == "bearing":
        _read_bearing(load, table)
    else:
        load.array, value = _value_or_array(table)
        load.values = () if value is None else (value,)
        load.reference = table.number("reference", 0.0)
    table.done()
    return load


def _read_each(load: Load, table: Table) -> Load:
    """A force or temperature that is told node by node."""
    load.labels = table.labels("labels") or ()
    load.each = table.triples("values") if load.kind == "force" else table.numbers("values")
    if load.labels and load.each and len(load.labels) != len(load.each):
        text = f"are {len(load.each)} for {len(load.labels)} labels"
        table.problem("values", text, "give one for each")
    if len(set(load.labels)) != len(load.labels):
        table.problem("labels", "name a node twice")
    if load.kind == "temperature":
        load.reference = table.number("reference", 0.0)
    table.done()
    return load


def _refuse_rigid(table: Table) -> None:
    """The solver has no equations between nodes that would keep a set rigid."""
    if table.choice("coupling", ("soft", "rigid"), "soft") == "rigid":
        table.problem(
            "coupling",
            "can't be 'rigid': the solver has no equations that keep a loaded set rigid",
            "prescribe its motion by a support of type = 'remote_displacement'",
        )


def _read_bearing(load: Load, table: Table) -> None:
    load.values = table.vector("value", nonzero=True)
    if table.has("axis") != table.has("point"):
        missing = "point" if "axis" in table.data else "axis"
        text = f"{table.label} has no {missing!r}"
        table.report.add(table.path, text, "an axis needs both; without both the wall's is taken")
    if "axis" in table.data:
        load.axis = table.vector("axis", nonzero=True)
    if "point" in table.data:
        load.point = table.vector("point")


def _value_or_array(table: Table) -> tuple[str, Field | None]:
    """Keys `value` and `array`, of which one has to be there."""
    array, value = table.text("array", ""), table.field("value", None)
    if bool(array) == (value is not None):
        words = "both 'value' and 'array'" if array else "neither 'value' nor 'array'"
        table.report.add(table.path, f"{table.label} has {words}", "give one of them")
    return array, value


def read_level(table: Table) -> Level:
    names = set_names(table, required=False)
    array, value = _value_or_array(table)
    table.done()
    return Level(table.path, names, value, array)
