"""Wishes from the table [optimise] of a case file; those that exclude others are refused."""

from __future__ import annotations

import numpy as np

from vkctl.basics.words import did_you_mean
from vkctl.prepare.case_file.entries import Vector
from vkctl.prepare.case_file.toml_table import Table

from .entries import Cyclic, Plane, Wishes
from .images import images, turned_directions

_PARALLEL = 1e-3  # sine of the angle between directions that count as one


def read_wishes(table: Table, keep: tuple[str, ...]) -> Wishes:
    """Wishes of the table; mistakes go into its report."""
    wishes = Wishes(
        symmetry=tuple(_plane(entry) for entry in table.table_list("symmetry")),
        cyclic=_cyclic(table),
        extruded=_direction(table, "extruded"),
        void=table.names("void"),
        thickness=_thickness(table, keep),
    )
    if table.report.problems:
        return wishes
    _refuse_together(table, wishes)
    return wishes


def _plane(entry: Table) -> Plane:
    plane = Plane(entry.vector("point"), entry.vector("normal", nonzero=True))
    entry.done()
    return plane


def _cyclic(table: Table) -> Cyclic | None:
    if (entry := table.table("cyclic")) is None:
        return None
    found = Cyclic(
        entry.vector("point"), entry.vector("axis", nonzero=True), entry.integer("count", least=2)
    )
    entry.done()
    return found


def _direction(table: Table, key: str) -> Vector | None:
    """The direction of a table that says nothing else."""
    if (entry := table.table(key)) is None:
        return None
    found: Vector = entry.vector("direction", nonzero=True)
    entry.done()
    return found


def _thickness(table: Table, keep: tuple[str, ...]) -> dict[str, float]:
    if (entry := table.table("thickness")) is None:
        return {}
    named = (*keep, *table.names("void"))
    found = {}
    for name in list(entry.data):
        found[name] = entry.number(name, 0.0, above=0)
        if name not in named:
            text = f"{name!r} is neither to keep nor to be left void"
            entry.report.add(entry.where(name), text, did_you_mean(name, named))
    entry.done()
    return found


def _refuse_together(table: Table, wishes: Wishes) -> None:
    try:
        isometries = images(wishes.symmetry, wishes.cyclic)
    except ValueError as error:
        where = table.where("symmetry" if wishes.symmetry else "cyclic")
        hint = "angles between planes, and to the axis, must divide a full turn"
        table.report.add(where, f"symmetry and cyclic don't go together: {error}", hint)
        return
    if wishes.extruded is not None:
        cosines = turned_directions(isometries, wishes.extruded)
        if (np.abs(cosines) < 1.0 - _PARALLEL).any():
            table.report.add(
                table.where("extruded"),
                "extruded doesn't go together with symmetry or cyclic that turn its direction",
                "take a direction along or across each plane, and along the axis",
            )
