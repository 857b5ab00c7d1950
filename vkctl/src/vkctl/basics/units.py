"""Systems of units that fit together: what the numbers of a model are called."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass(frozen=True)
class UnitSystem:
    """Texts of units that fit: force = mass length / time^2, stress = force / length^2."""

    name: str
    length: str
    force: str
    stress: str
    mass: str
    energy: str  # of force times length
    time: str = "s"
    pascals: float = 1.0  # in its unit of stress

    @property
    def area(self) -> str:
        return f"{self.length}²"

    @property
    def volume(self) -> str:
        return f"{self.length}³"

    @property
    def moment(self) -> str:
        return f"{self.force} {self.length}"

    @property
    def energy_density(self) -> str:
        return f"{self.energy}/{self.length}³"

    @property
    def density(self) -> str:
        return f"{self.mass}/{self.length}³"

    @property
    def inertia(self) -> str:
        return f"{self.mass} {self.length}²"

    @property
    def stiffness(self) -> str:
        return f"{self.force}/{self.length}"


# Length, force and stress make the name; mass and time follow from them.
_KNOWN = (
    UnitSystem("mm-N-MPa", "mm", "N", "MPa", "t", "mJ", pascals=1e6),
    UnitSystem("m-N-Pa", "m", "N", "Pa", "kg", "J"),
    UnitSystem("mm-kN-GPa", "mm", "kN", "GPa", "kg", "J", "ms", pascals=1e9),
    UnitSystem("mm-mN-kPa", "mm", "mN", "kPa", "kg", "µJ", pascals=1e3),
    UnitSystem("m-kN-kPa", "m", "kN", "kPa", "t", "kJ", pascals=1e3),
    UnitSystem("m-MN-MPa", "m", "MN", "MPa", "kt", "MJ", pascals=1e6),
    UnitSystem("um-uN-MPa", "µm", "µN", "MPa", "kg", "pJ", pascals=1e6),
    UnitSystem("in-lbf-psi", "in", "lbf", "psi", "lbf s²/in", "in lbf", pascals=6894.757),
    UnitSystem("ft-lbf-psf", "ft", "lbf", "psf", "slug", "ft lbf", pascals=47.88026),
)
UNIT_SYSTEMS = {system.name: system for system in _KNOWN}


def unit_of(units: UnitSystem | None, quantity: str) -> str:
    """The text of the unit of a quantity such as "length", empty where nobody knows the units."""
    return "" if units is None else str(getattr(units, quantity))


def in_unit(value: str, units: UnitSystem | None, quantity: str) -> str:
    """A number's text with its unit behind it, where that is known."""
    return f"{value} {unit_of(units, quantity)}".rstrip()


def unit_system(name: str | None) -> UnitSystem | None:
    """The system of a name; None for no name and for one that isn't known."""
    return UNIT_SYSTEMS.get(name) if name else None
