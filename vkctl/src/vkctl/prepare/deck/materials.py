"""Materials of a deck and the elements that have them."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np

from ..part import DeckSection
from .axes import Axes, along
from .report import Report, data_numbers, numbers_of, words_of
from .targets import Targets

_CONSTANTS = {"ISO": 2, "ENGINEERINGCONSTANTS": 9, "ORTHO": 9}


@dataclass
class DeckMaterial:
    """What can be written of a material; numbers are missing where the deck's can't be taken.

    `moduli`, `poisson` and `shear` have three values each of an orthotropic material, in the order
    1, 2, 3 and 12, 13, 23.
    """

    name: str
    section: DeckSection
    moduli: tuple[float, ...] = ()
    poisson: tuple[float, ...] = ()
    shear: tuple[float, ...] = ()
    density: float | None = None
    expansion: tuple[float, ...] = ()


@dataclass
class Assigned:
    """A material with the element sets that have it."""

    material: DeckMaterial
    sets: list[str] = field(default_factory=list)


def first_row(report: Report, section: DeckSection, width: int) -> list[float] | None:
    """The first record of a table over temperatures; others are told, mistakes too."""
    numbers = data_numbers(report, section)
    if numbers is None:
        return None
    if len(numbers) < width:
        text = f"*{section.keyword} has {len(numbers)} numbers, it needs {width}"
        report.mistake(section, section.line, text)
        return None
    # Records of eight numbers a line; the temperature follows the constants.
    if len(list(section.lines())) > (2 if width > 8 else 1):
        text = f"*{section.keyword} by temperature is taken as in its first record"
        report.leave(section, text)
    return numbers[:width]


def take_elastic(report: Report, material: DeckMaterial, section: DeckSection) -> None:
    kind = section.get("TYPE").upper().replace(" ", "") or "ISO"
    if kind not in _CONSTANTS:
        report.leave(section, f"*ELASTIC, TYPE={kind} isn't taken: the solver has no such material")
        return
    row = first_row(report, section, _CONSTANTS[kind])
    if row is None:
        return
    places = {"ISO": (0,), "ENGINEERINGCONSTANTS": (0, 1, 2, 6, 7, 8), "ORTHO": (0, 2, 5, 6, 7, 8)}
    if min(row[place] for place in places[kind]) <= 0:
        report.mistake(section, section.line, "*ELASTIC holds a modulus that isn't above 0")
        return
    if kind == "ISO":
        material.moduli, material.poisson = (row[0],), (row[1],)
        return
    if kind == "ENGINEERINGCONSTANTS":
        material.moduli, material.poisson = tuple(row[:3]), tuple(row[3:6])
        material.shear = tuple(row[6:9])
        return
    d11, d12, d22, d13, d23, d33 = row[:6]
    try:
        inverse = np.linalg.inv(np.array(((d11, d12, d13), (d12, d22, d23), (d13, d23, d33))))
    except np.linalg.LinAlgError:
        inverse = np.zeros((3, 3))
    with np.errstate(over="ignore", divide="ignore"):
        e = 1.0 / np.diag(inverse)
    if e.min() <= 0 or not np.isfinite(e).all():
        report.mistake(section, section.line, "*ELASTIC, TYPE=ORTHO is no stiffness above 0")
        return
    pairs = ((0, 1), (0, 2), (1, 2))
    material.moduli = tuple(float(v) for v in e)
    material.poisson = tuple(float(-inverse[i, j] * e[i]) for i, j in pairs)
    material.shear = tuple(row[6:9])


def take_expansion(report: Report, material: DeckMaterial, section: DeckSection) -> None:
    kind = section.get("TYPE").upper() or "ISO"
    if kind not in ("ISO", "ORTHO"):
        report.leave(section, f"*EXPANSION, TYPE={kind} isn't taken")
        return
    row = first_row(report, section, 1 if kind == "ISO" else 3)
    if row is not None:
        material.expansion = tuple(row)


def take_density(report: Report, material: DeckMaterial, section: DeckSection) -> None:
    row = first_row(report, section, 1)
    if row is not None:
        material.density = row[0]


def read_axes(report: Report, section: DeckSection) -> Axes | None:
    """Axes of an *ORIENTATION or *TRANSFORM; None where they aren't understood."""
    lines = list(section.lines())
    kind = (section.get("SYSTEM") or section.get("TYPE") or "R").upper()[0]
    numbers = numbers_of(words_of(lines[0][1])) if lines else None
    if numbers is None or len(numbers) < 6:
        line, text = lines[0] if lines else (section.line, section.first_line)
        report.unread(section, line, text, "six coordinates")
        return None
    more = numbers_of(words_of(lines[1][1])) if len(lines) > 1 else None
    turned_on = len(lines) > 1 and (more is None or any(more[1:]))  # by an angle
    if (
        kind not in "RC"
        or turned_on
        or section.get("DEFINITION").upper() not in ("", "COORDINATES")
    ):
        report.leave(section, f"*{section.keyword} isn't taken: just axes by six coordinates are")
        return None
    a, b = tuple(numbers[:3]), tuple(numbers[3:6])
    return Axes(a, b, kind == "C")  # type: ignore[arg-type]


def turned(
    report: Report, section: DeckSection, material: DeckMaterial, axes: Axes
) -> DeckMaterial:
    """A material in x, y, z whose own axes lie along them in another order."""
    if len(material.moduli) < 2 and len(material.expansion) < 2:
        return material
    frame = None if axes.round else axes.at(np.zeros(3))
    order = None if frame is None else along(frame)
    if order is None:
        report.leave(
            section,
            f"the orientation of material {material.name!r} isn't taken: the solver's materials "
            "have their axes along x, y and z",
        )
        return material
    own = list(np.argsort(order[0]))  # which of its axes lies along x, y, z
    made = DeckMaterial(material.name, material.section, density=material.density)
    if len(material.expansion) == 3:
        made.expansion = tuple(material.expansion[i] for i in own)
    else:
        made.expansion = material.expansion
    if len(material.moduli) < 3:
        made.moduli, made.poisson = material.moduli, material.poisson
        return made
    e, pairs = material.moduli, {(0, 1): 0, (0, 2): 1, (1, 2): 2}

    def ratio(i: int, j: int) -> float:
        if i < j:
            return material.poisson[pairs[i, j]]
        return material.poisson[pairs[j, i]] * e[i] / e[j]

    made.moduli = tuple(e[i] for i in own)
    made.poisson = tuple(ratio(own[i], own[j]) for i, j in pairs)
    made.shear = tuple(
        material.shear[pairs[min(own[i], own[j]), max(own[i], own[j])]] for i, j in pairs
    )
    return made


def assigned(
    report: Report,
    targets: Targets,
    sections: list[DeckSection],
    known: dict[str, DeckMaterial],
    systems: dict[str, Axes],
) -> list[Assigned]:
    """Materials with their elements, each in the axes of its section."""
    found: dict[tuple[str, str], Assigned] = {}
    for section in sections:
        name = section.get("MATERIAL").strip('"')
        title = targets.element_set(section.get("ELSET"))
        material = known.get(name.upper())
        if material is None or title is None:
            what = (
                f"there is no *MATERIAL {name!r}" if material is None else "its ELSET has no solids"
            )
            report.leave(section, f"*SOLIDSECTION isn't taken: {what}")
            continue
        turn = section.get("ORIENTATION").upper()
        axes = systems.get(turn)
        if turn and axes is None:
            report.leave(section, f"*SOLIDSECTION names {turn!r}, no *ORIENTATION taken")
        if axes:
            material = turned(report, section, material, axes)
        key = name.upper(), turn if axes else ""
        held = found.setdefault(key, Assigned(material))
        if title not in held.sets:
            held.sets.append(title)
    return list(found.values())
