"""Single numbers of a stress by name, for pictures, files and tables."""

from __future__ import annotations

from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem, unit_of

from .measures import principal, signed_von_mises, tresca, von_mises

COMPONENTS = ("stress_xx", "stress_yy", "stress_zz", "stress_xy", "stress_yz", "stress_xz")
PRINCIPAL = ("principal_1", "principal_2", "principal_3")
STRESS_FIELDS = (
    *("von_mises", "signed_von_mises", "tresca"),
    *PRINCIPAL,
    *COMPONENTS,
    "energy_density",
)


def field_unit(units: UnitSystem | None, field: str) -> str:
    """The text of the unit of a field at nodes; empty where it has none or nobody knows it."""
    if field in ("criterion", "level", "safety"):
        return ""
    if field == "energy_density":
        return unit_of(units, field)
    stressed = field in STRESS_FIELDS or field.endswith("element_mean")
    return unit_of(units, "stress" if stressed else "length")


def stress_field(stress: Array, energy: Array, name: str) -> Array:
    """One of `STRESS_FIELDS` of stresses (..., 6) with these strain energy densities."""
    if name in COMPONENTS:
        component: Array = stress[..., COMPONENTS.index(name)]
        return component
    if name == "von_mises":
        return von_mises(stress)
    if name == "signed_von_mises":
        return signed_von_mises(stress)
    if name == "energy_density":
        return energy
    values = principal(stress)
    if name == "tresca":
        return tresca(values)
    value: Array = values[..., PRINCIPAL.index(name)]
    return value
