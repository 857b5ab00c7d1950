"""What the numbers of a report are called, where the directory knows its system of units."""

from __future__ import annotations

from vkctl.ask.extremes import FIELDS
from vkctl.ask.told import field_unit, unit_of
from vkctl.basics.units import UnitSystem


def shown_unit(units: UnitSystem | None, field: str) -> str:
    """The unit of a field; empty where nobody knows it, and of the criterion, which has a scale of
    its own."""
    if field in FIELDS:
        return field_unit(units, field)
    return unit_of(units, "stress") if field == "element_mean" else ""


def in_unit(units: UnitSystem | None, what: str) -> str:
    """Such as " [mm]", to follow a heading."""
    unit = unit_of(units, what)
    return f" [{unit}]" if unit else ""
