"""Lines of *BOUNDARY, *CLOAD, *DLOAD, *DSLOAD, *TEMPERATURE: what each of them says."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from ..deck_pressures import MOST_GROUPS, pressed_faces
from ..part import DeckSection
from .history import Entry, constant
from .report import Report, as_number, words_of
from .targets import Targets

_NAMED = {
    "ENCASTRE": "123",
    "PINNED": "123",
    "XSYMM": "1",
    "YSYMM": "2",
    "ZSYMM": "3",
}
_Said = tuple[int, str, Array, dict[int, float]]  # line, title, labels, value of each direction


def supports(report: Report, targets: Targets, section: DeckSection, step: int) -> list[Entry]:
    """Entries of a *BOUNDARY: displacements by direction."""
    for name in ("FIXED", "SUBMODEL", "USER"):
        if name in section.parameters:
            report.leave(section, f"*BOUNDARY, {name} isn't taken")
            return []
    if section.get("TYPE").upper() not in ("", "DISPLACEMENT"):
        report.leave(section, f"*BOUNDARY, TYPE={section.get('TYPE')} isn't taken")
        return []
    said = []
    for line, text in section.lines():
        words = words_of(text)
        values = _directions(report, section, line, words)
        found = _nodes(report, targets, section, line, words[0])
        if found and values:
            said.append((line, *found, values))
    return _entries(said, section, step, add=False)


def _directions(
    report: Report, section: DeckSection, line: int, words: list[str]
) -> dict[int, float]:
    """Displacement of each direction 0 to 2 that a line of *BOUNDARY holds."""
    text = ", ".join(words)
    if len(words) == 2 and words[1].upper() in _NAMED:
        return {int(d) - 1: 0.0 for d in _NAMED[words[1].upper()]}
    numbers = [as_number(word) if word else None for word in (*words[1:4], "", "")][:3]
    first = numbers[0]
    if first is None or any(w and n is None for w, n in zip(words[1:4], numbers, strict=False)):
        report.unread(section, line, text, "NODE, FIRST DIRECTION, LAST, VALUE")
        return {}
    last = numbers[1] or first
    if not (first == int(first) and last == int(last) and 1 <= first <= last <= 99):
        report.unread(section, line, text, "NODE, FIRST DIRECTION, LAST, VALUE")
        return {}
    held = {k - 1: numbers[2] or 0.0 for k in range(int(first), int(last) + 1) if k <= 3}
    if not held or (last > 6 and numbers[2]):
        report.leave(section, f"direction {words[1]} of {words[0]} isn't taken: just 1 to 3", line)
    return held


def forces(report: Report, targets: Targets, section: DeckSection, step: int) -> list[Entry]:
    """Entries of a *CLOAD: forces by direction, the same at each node."""
    said = []
    for line, text in section.lines():
        words = words_of(text)
        numbers = [as_number(word) for word in words[1:3]]
        if len(numbers) < 2 or numbers[1] is None or numbers[0] not in range(1, 100):
            report.unread(section, line, text, "NODE, DIRECTION, FORCE")
            continue
        direction = int(numbers[0] or 0)
        if direction > 3:
            text = f"load in direction {direction} of {words[0]} isn't taken: just 1 to 3 are"
            report.leave(section, text, line)
        elif found := _nodes(report, targets, section, line, words[0]):
            said.append((line, *found, {direction - 1: numbers[1]}))
    return _entries(said, section, step, add=True)


def temperatures(report: Report, targets: Targets, section: DeckSection, step: int) -> list[Entry]:
    """Entries of a *TEMPERATURE or of initial temperatures."""
    if "FILE" in section.parameters:
        report.leave(section, f"*{section.keyword}, FILE isn't taken: it reads another result")
        return []
    said = []
    for line, text in section.lines():
        words = words_of(text)
        value = as_number(words[1]) if len(words) > 1 else None
        if value is None:
            report.unread(section, line, text, "NODE, TEMPERATURE")
        elif found := _nodes(report, targets, section, line, words[0]):
            said.append((line, *found, {0: value}))
    return _entries(said, section, step, add=False, width=1)


def _nodes(
    report: Report, targets: Targets, section: DeckSection, line: int, word: str
) -> tuple[str, Array] | None:
    found = targets.nodes(word)
    if found is None:
        text = f"{word!r} is neither a node nor a node set of the deck"
        if targets.has_assembly:  # whose own sets and points aren't read
            report.leave(section, f"{text}'s part", line)
        else:
            report.mistake(section, line, text)
        return None
    if not len(found[1]):
        report.leave(section, f"{word!r} of *{section.keyword} has no node of a solid", line)
        return None
    return found


def _entries(
    said: list[_Said], section: DeckSection, step: int, add: bool, width: int = 3
) -> list[Entry]:
    """Entries of lines: those of one set behind each other in one, those of single nodes too."""
    entries: list[Entry] = []
    place = 0
    while place < len(said):
        line, title, labels, values = said[place]
        name, at = f"{section.keyword.lower()}-{line}", f"{section.file}:{line}"
        stop = place + 1
        while (
            stop < len(said)
            and said[stop][1] == title
            and (not title or set(values).isdisjoint(said[stop][3]))
        ):
            if title:
                values = {**values, **said[stop][3]}
            stop += 1
        if title:
            row = [values.get(k) for k in range(width)]
            entries.append(constant(title, labels, row, name, step, at))
        else:
            entries.append(_single(said[place:stop], step, name, at, add, width))
        place = stop
    return entries


def _single(said: list[_Said], step: int, name: str, at: str, add: bool, width: int) -> Entry:
    """One entry of lines that each name a node; of the same twice, forces add up."""
    labels = np.unique(np.concatenate([labels for _, _, labels, _ in said]))
    row = {int(label): k for k, label in enumerate(labels)}
    values, touched = np.zeros((len(labels), width)), np.zeros((len(labels), width), np.bool_)
    for _, _, (label,), given in said:
        for direction, value in given.items():
            k = row[int(label)]
            values[k, direction] = value + (values[k, direction] if add else 0.0)
            touched[k, direction] = True
    return Entry("", labels, values, touched, name, step, at)


def pressures(
    report: Report, targets: Targets, section: DeckSection, step: int, block: int
) -> list[Entry]:
    """Entries of the lines "ELEMENTS, P2, value" of the deck's *DLOAD number `block`."""
    entries = []
    found_faces = pressed_faces(section, block)
    if sum(pressed.name.startswith("dload-") for pressed in found_faces) >= MOST_GROUPS:
        text = (
            f"*DLOAD gives single elements more than {MOST_GROUPS} pressures; others aren't taken"
        )
        report.leave(section, text)
    for pressed in found_faces:
        value = as_number(pressed.value)
        if value is None:
            report.unread(section, pressed.line, pressed.value, "a pressure")
            continue
        found = targets.faces(pressed.name)
        if found is None:
            text = f"{pressed.name!r} of *DLOAD has no side of a solid of the deck"
            report.mistake(section, pressed.line, text)
            continue
        at = f"{section.file}:{pressed.line}"
        entries.append(constant(*found, (value,), f"dload-{pressed.line}", step, at))
    return entries


def surface_pressures(
    report: Report, targets: Targets, section: DeckSection, step: int
) -> list[Entry]:
    """Entries of a *DSLOAD: pressures on surfaces."""
    entries = []
    for line, text in section.lines():
        words = words_of(text)
        if len(words) > 1 and words[1].upper() != "P":
            report.leave(section, f"*DSLOAD of type {words[1]} isn't taken: just P is", line)
            continue
        value = as_number(words[2]) if len(words) > 2 else None
        if value is None:
            report.unread(section, line, text, "SURFACE, P, PRESSURE")
            continue
        found = targets.faces(words[0])
        if found is None:
            text = f"{words[0]!r} is no surface of solids of the deck"
            report.mistake(section, line, text)
            continue
        at = f"{section.file}:{line}"
        entries.append(constant(*found, (value,), f"dsload-{line}", step, at))
    return entries


def gravity(
    report: Report, targets: Targets, section: DeckSection, step: int
) -> list[tuple[tuple[float, ...], Entry]]:
    """Entries of the lines "ELEMENTS, GRAV, g, x, y, z", each with its direction."""
    found = []
    for line, text in section.lines():
        words = words_of(text)
        kind = words[1].upper() if len(words) > 1 else ""
        if kind in {f"P{side}" for side in range(1, 7)} and len(words) > 2:
            continue
        if kind != "GRAV":
            if kind:
                report.leave(section, f"*DLOAD of type {kind} isn't taken", line)
            else:
                report.unread(section, line, text, "ELEMENTS, TYPE, VALUE")
            continue
        numbers = [as_number(word) for word in words[2:6]]
        if len(numbers) < 4 or None in numbers or not any(numbers[1:]):
            report.unread(section, line, text, "ELEMENTS, GRAV, g, x, y, z")
            continue
        size, *rest = [float(n or 0.0) for n in numbers]
        along = np.array(rest) / np.abs(rest).max()  # squares of tiny numbers would be 0
        unit = along / np.linalg.norm(along)
        members = targets.solids(words[0])
        if members is None:
            text = f"{words[0]!r} is neither a solid element nor a set of them"
            report.mistake(section, line, text)
            continue
        at = f"{section.file}:{line}"
        entry = constant(*members, (size,), f"gravity-{line}", step, at)
        found.append((tuple(float(v) for v in np.round(unit, 12)), entry))
    return found
