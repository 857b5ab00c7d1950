"""Wishes from the table [optimise] of a case file; those that exclude others are refused."""

from __future__ import annotations

from vkctl.basics.words import did_you_mean
from vkctl.prepare.case_file.entries import Vector
from vkctl.prepare.case_file.toml_table import Table

from .entries import Cyclic, Draw, Overhang, Plane, SizeWishes, Wishes
from .together import refuse_together

_STEEPEST = 80.0  # degrees: beyond it next to everything is held


def read_wishes(table: Table, keep: tuple[str, ...]) -> Wishes:
    """Wishes of the table; mistakes go into its report."""
    wishes = Wishes(
        symmetry=tuple(_plane(entry) for entry in table.table_list("symmetry")),
        cyclic=_cyclic(table),
        extruded=_direction(table, "extruded"),
        draw=_draw(table),
        overhang=_overhang(table),
        sizes=_sizes(table),
        void=table.names("void"),
        thickness=_thickness(table, keep),
    )
    if not table.report.problems:
        refuse_together(table, wishes)
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


def _draw(table: Table) -> Draw | None:
    if (entry := table.table("draw")) is None:
        return None
    found = Draw(entry.triples("directions"), entry.vector("parting", None))
    for number, direction in enumerate(found.directions):
        if not any(direction):
            entry.problem("directions", "must not hold the zero vector", "", number)
    if found.parting is not None and len(found.directions) > 1:
        entry.problem("parting", "goes with one direction, which is drawn both ways")
    entry.done()
    return found


def _overhang(table: Table) -> Overhang | None:
    if (entry := table.table("overhang")) is None:
        return None
    found = Overhang(
        entry.vector("direction", nonzero=True),
        entry.number("angle", 45.0, above=0, most=_STEEPEST),
        entry.vector("plate", None),
    )
    entry.done()
    return found


def _sizes(table: Table) -> SizeWishes | None:
    if (entry := table.table("sizes")) is None:
        return None
    member, hole, thickest = (
        entry.number(name, None, above=0) for name in ("member", "hole", "thickest")
    )
    entry.done()
    if member is hole is thickest is None:
        table.problem("sizes", "says nothing", "give member, hole, thickest or some of them")
    if member and thickest and thickest < member:
        text = f"is below member = {member:g}"
        entry.problem("thickest", text, "members can't be thinner than their least")
    return SizeWishes(member, hole, thickest)


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
