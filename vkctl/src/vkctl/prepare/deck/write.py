"""A case file of what a deck says."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np

from .case_tables import CaseTables, node_set
from .history import Entry
from .materials import Assigned
from .report import Report
from .story import Acting, Spring, Story
from .targets import Targets
from .toml_text import table
from .write_loads import force_tables, gravity_tables, pressure_tables, temperature_tables
from .write_supports import support_tables

# Material without a level field then has 0.99997 of its stiffness, by default 0.9994.
_OPTIONS = """[options]
Sta.MatSlopeFactor = 10000.0   # full material to 3e-5; leave it out with a [level]
"""


def case_text(
    part: str, title: str, story: Story, targets: Targets, report: Report, split: bool
) -> tuple[str, dict[str, int]]:
    """Text of the case file, and how many tables of each kind it has."""
    case = CaseTables(story, targets, report)
    materials = [_material(case, assigned) for assigned in story.materials]
    springs = [name for spring in story.springs for name in _spring(case, spring)]
    steps = []
    for step in story.steps or []:
        keys = {"name": step.name, **_acting(case, step.acting, springs)}
        steps.append(table(["load_case"], keys, list_of=True))
    if not steps:
        _acting(case, story.model, springs)
    first = f"# What {title!r} says, as vkctl import understood it.\n\n"
    top = table([], {"part": part})
    mesh = [table(["mesh"], {"split": True})] if split else []
    blocks = [*mesh, *materials, *case.sets, *case.supports, *case.loads, *steps, _OPTIONS]
    counts = {
        "material": len(materials),
        "support": len(case.supports),
        "load": len(case.loads),
        "load case": len(steps) or 1,
    }
    return first + "\n".join([top, *blocks]), counts


def _acting(case: CaseTables, acting: Acting, springs: list[str]) -> dict[str, Any]:
    """Names of a step's supports and loads, their tables written."""
    supports = list(springs)
    loads: list[str] = []
    for entry in acting.supports:
        supports += _once(case, entry, support_tables)
    for entry in acting.forces:
        loads += _once(case, entry, force_tables)
    for entry in acting.pressures:
        loads += _once(case, entry, pressure_tables)
    for direction, entries in acting.gravity.items():
        for entry in entries:
            loads += _once(case, entry, lambda c, e, d=direction: gravity_tables(c, e, d))  # type: ignore[misc]
    for entry in acting.temperatures:
        loads += _once(case, entry, temperature_tables)
    return {"supports": supports, "loads": loads}


def _once(
    case: CaseTables, entry: Entry, write: Callable[[CaseTables, Entry], list[str]]
) -> list[str]:
    """Names of an entry's tables, which are written where they are needed first."""
    known = case.done.setdefault(entry.name, [])
    for other, names in known:
        if entry.same(other):
            return names
    names = write(case, entry)
    known.append((entry, names))
    return names


# --- materials and springs ---------------------------------------------------------------------


def _material(case: CaseTables, assigned: Assigned) -> str:
    material = assigned.material
    plain = len(material.moduli) < 3
    shear = list(material.shear) or None
    expansion: Any = list(material.expansion) or None
    if expansion and (plain or len(expansion) == 1):
        expansion = expansion[0] if plain else expansion * 3
        if len(material.expansion) > 1:
            text = f"expansion of material {material.name!r} is taken as in its first direction"
            case.report.leave(material.section, text)
    if not material.moduli:
        text = f"material {material.name!r} has no *ELASTIC taken: give it E and nu"
        case.report.leave(material.section, text)
    keys = {
        "kind": None if plain else "orthotropic",
        "elements": _elements(case, assigned.sets),
        "E": _one_or_all(material.moduli),
        "nu": _one_or_all(material.poisson),
        "G": shear,
        "density": material.density,
        "expansion": expansion,
    }
    return table(["materials", case.name(material.name)], keys)


def _one_or_all(values: tuple[float, ...]) -> Any:
    return None if not values else values[0] if len(values) == 1 else list(values)


def _elements(case: CaseTables, sets: list[str]) -> list[str] | None:
    """The sets of a material, none where they are all elements."""
    held = [case.targets.part.element_sets[name] for name in sets]
    if (
        len(case.story.materials) == 1
        and np.isin(case.targets.elements, np.concatenate(held)).all()
    ):
        return None
    return sets


def _spring(case: CaseTables, spring: Spring) -> list[str]:
    names = []
    for count in np.unique(spring.counts):
        labels = spring.labels[spring.counts == count]
        name = case.name(spring.name)
        frame = None if spring.axes is None else spring.axes.at(np.zeros(3))
        keys = {
            "type": "elastic",
            "set": node_set(case, spring.name, labels),
            "directions": "xyz"[spring.direction],
            "axes": None if frame is None else frame.tolist(),
            "stiffness": float(count) * spring.stiffness,
        }
        case.supports.append(table(["supports", name], keys))
        names.append(name)
    return names
