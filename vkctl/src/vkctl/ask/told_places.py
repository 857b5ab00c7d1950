"""Cuts, values at points and mass properties as tables with the units of the case file."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem, unit_of
from vkctl.basics.words import place_words
from vkctl.stress.fields import STRESS_FIELDS, field_unit

from .cut import Cut
from .mass import Mass
from .tables import Cell, Column, Table
from .told import (
    CASE,
    left_over_words,
    resultant_cells,
    resultant_columns,
    title_of,
)

_ROUNDING = 1e-12  # of sums over many points


def with_unit(value: float, unit: str) -> str:
    return f"{value:.6g} {unit}".rstrip()


def cut_table(found: Sequence[Cut], units: UnitSystem | None) -> Table:
    """Section forces, a row a load case, with the balance below."""
    force, moment = unit_of(units, "force"), unit_of(units, "moment")
    columns = [*CASE, *resultant_columns(units)]
    columns += [Column(title, force, "force") for title in ("axial", "shear")]
    columns += [Column(title, moment, "moment") for title in ("torsion", "bending")]
    first = found[0]
    plane = f"{place_words(first.point)} across {place_words(first.normal)}"
    whose = f" through the set {first.set}" if first.set else ""
    table = Table(
        f"section at {plane}{whose}: what the part beyond puts on the part behind; "
        f"moments about {place_words(first.about)}",
        columns,
        hidden=2,
    )
    area = with_unit(first.area, unit_of(units, "area"))
    centre = f", centre {place_words(first.centre)}" if first.centre else ", all of it void"
    table.notes.append(f"{first.elements} elements are cut; area of the material {area}{centre}")
    for one in found:
        title = title_of(one.load_case, one.name)
        table.headings[len(table.rows)] = title
        cells = (*resultant_cells(one.resultant), one.axial, one.shear, one.torsion, one.bending)
        table.rows.append((one.load_case, one.name, *cells))
        if one.behind:
            shares = one.behind.relative_force, one.behind.relative_moment
            table.notes += left_over_words(title, shares, "forces at the section and behind it")
        if one.beside > 0:
            table.notes.append(
                f"{title}: loads of {with_unit(one.beside, force)} in all lie at nodes of cut "
                "elements: the forces step by them from one layer of nodes to the next"
            )
    return table


def value_table(
    points: Array,
    elements: Array,
    answers: Sequence[tuple[int, str, Array]],
    names: Sequence[str],
    units: UnitSystem | None,
    distances: Array | None,
) -> Table:
    """Fields at points, a row a point, load case by load case: (number, name, values (p, names)).

    `distances` of points along a line are told beside them.
    """
    length = unit_of(units, "length")
    along = [] if distances is None else [Column("distance", length, "distance")]
    columns = [*CASE, *along, *(Column(axis, length, "place") for axis in "xyz")]
    columns += [Column("element")]
    scales = {name: _scale(name) for name in names}
    columns += [Column(name, field_unit(units, name), scales[name]) for name in names]
    table = Table("values at points" if distances is None else "values along a line", columns)
    table.hidden = 2
    for number, name, values in answers:
        table.headings[len(table.rows)] = title_of(number, name)
        for place, point in enumerate(points.tolist()):
            apart = () if distances is None else (float(distances[place]),)
            element = int(elements[place]) or None
            cells = [_cell(value) for value in values[place].tolist()]
            table.rows.append((number, name, *apart, *point, element, *cells))
    return table


def _scale(name: str) -> str:
    """Columns that show the same decimals."""
    if name == "energy_density":
        return name
    return "stress" if name in STRESS_FIELDS else "displacement"


def _cell(value: float) -> Cell:
    return value if np.isfinite(value) else None


def mass_table(found: Sequence[Mass], units: UnitSystem | None) -> Table:
    """A property a row, sets one after the other."""
    columns = [Column("set"), Column("property"), Column("value", digits=6)]
    columns += [Column("unit")] if units is not None else []
    table = Table("mass properties, in the volume that the solver counts", columns, hidden=1)
    for one in found:
        table.headings[len(table.rows)] = one.set
        for title, value, what in _mass_rows(one):
            unit = (unit_of(units, what),) if units is not None else ()
            table.rows.append((one.set, title, value, *unit))
        table.notes += [f"{one.set}: {note}" for note in one.notes]
    return table


def _mass_rows(one: Mass) -> list[tuple[str, float | None, str]]:
    rows: list[tuple[str, float | None, str]] = [("volume", one.volume, "volume")]
    several = len(one.materials) > 1
    if several:
        rows += [(f"volume of {part.name}", part.volume, "volume") for part in one.materials]
    rows.append(("mass", one.mass, "mass"))
    if several:
        rows += [(f"mass of {part.name}", part.mass, "mass") for part in one.materials]
    what = "gravity" if one.mass is not None else "volume"
    centre = one.centre or (None, None, None)
    rows += [
        (f"centre of {what} {axis}", value, "length")
        for axis, value in zip("xyz", centre, strict=True)
    ]
    if one.inertia and one.principal:
        rows += [
            (f"inertia I{'xyz'[i]}{'xyz'[j]}", _told(one.inertia[i][j], one.principal), "inertia")
            for i, j in ((0, 0), (1, 1), (2, 2), (0, 1), (1, 2), (0, 2))
        ]
        rows += [
            (f"principal inertia {place}", value, "inertia")
            for place, value in enumerate(one.principal, 1)
        ]
    return rows


def _told(product: float, principal: Sequence[float]) -> float:
    """0 for what rounding leaves of a product of inertia that vanishes."""
    return product if abs(product) > _ROUNDING * principal[-1] else 0.0
