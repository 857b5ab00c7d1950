"""Sets of a case file."""

from __future__ import annotations

from collections.abc import Iterable

from .entries import Region, SetDefinition, SetKind, Vector
from .toml_table import Table


def read_set(kind: SetKind, table: Table) -> SetDefinition:
    definition = SetDefinition(
        kind=kind,
        where=table.path,
        sources=table.names("from", None),
        minus=table.names("minus"),
        regions=[r for r in map(_region, _regions(table)) if r],
        formula=table.formula("where"),
        nearest=table.triples("nearest") if kind == "node" and table.has("nearest") else (),
        normal=_normal(table) if kind == "face" else None,
        labels=table.labels("labels") if kind != "face" else None,
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
