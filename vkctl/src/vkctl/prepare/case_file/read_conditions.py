"""Supports, loads and the level field of a case file."""

from __future__ import annotations

from .entries import Level, Load, Names, Support
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
    kinds = ("fixed", "prescribed", "elastic")
    kind = table.choice("type", kinds, "fixed")
    support = Support(kind, table.path, set_names(table), _directions(table))  # type: ignore[arg-type]
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


def read_load(table: Table) -> Load:
    kinds = ("force", "traction", "pressure", "gravity", "temperature")
    kind = table.choice("type", kinds)
    load = Load(kind, table.path, ())  # type: ignore[arg-type]
    load.sets = set_names(table, required=kind in ("force", "traction", "pressure"))
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


def read_level(table: Table) -> Level:
    names = set_names(table, required=False)
    array, value = _value_or_array(table)
    table.done()
    return Level(table.path, names, value, array)
