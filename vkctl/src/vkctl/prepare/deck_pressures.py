"""Faces that the *DLOAD lines of a deck press on, under the names that they have as sets."""

from __future__ import annotations

import re
from dataclasses import dataclass, field

from .part import DeckSection

MOST_GROUPS = 1000  # different pressures that one *DLOAD gives to single elements


@dataclass
class PressedFaces:
    """Faces under one pressure: of each entry an element's label or a set's name, and the side."""

    name: str
    value: str
    line: int
    entries: list[tuple[str, int]] = field(default_factory=list)


def plain_name(word: str) -> str:
    """A set's name as its *NSET or *ELSET has it, without the instance in front."""
    return word.strip().strip('"').rpartition(".")[2]


def pressed_faces(section: DeckSection, block: int) -> list[PressedFaces]:
    """What the lines "SET, P2, value" of the deck's *DLOAD number `block` press on.

    A set's faces are called SET:P2. Single elements are taken together by their value; one that a
    block names twice counts twice.
    """
    found: list[PressedFaces] = []
    single: dict[tuple[str, int], PressedFaces] = {}
    times: dict[tuple[str, int], int] = {}
    for line, text in section.lines():
        words = [word.strip() for word in text.split(",")]
        side = re.fullmatch(r"P([1-6])", words[1].upper()) if len(words) > 2 else None
        if side is None or not words[0]:
            continue
        entry = words[0], int(side[1])
        if not re.fullmatch(r"[0-9]{1,18}", words[0]):
            name = f"{plain_name(words[0])}:P{side[1]}"
            found.append(PressedFaces(name, words[2], line, [entry]))
            continue
        times[entry] = times.get(entry, 0) + 1
        key = words[2], times[entry]
        if key not in single:
            if len(single) == MOST_GROUPS:
                continue
            place = f"-{len(single) + 1}" if single else ""
            single[key] = PressedFaces(f"dload-{block}{place}", words[2], line)
            found.append(single[key])
        single[key].entries.append(entry)
    return found
