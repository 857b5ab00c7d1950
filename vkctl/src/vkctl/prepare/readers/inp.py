"""Parts read from the input decks of Abaqus and CalculiX: nodes, elements and sets.

Materials, supports, loads and steps of the deck are passed over: the case file tells them.
"""

from __future__ import annotations

import re
import warnings
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import counted, did_you_mean
from vkctl.shapes.cells import (
    CELL_FACES,
    HEX20,
    HEX27,
    PYRAMID5,
    PYRAMID13,
    WEDGE6,
    WEDGE15,
)
from vkctl.shapes.topology import HEX8, TET4, TET10

from ..deck_pressures import PressedFaces, plain_name, pressed_faces
from ..part import SPLITTING, DeckSection, Lookup, Part, PartError, labelled
from .deck_sections import Sources, sections

# Both programs count the nodes of these types as the solver does.
_SOLIDS = {"C3D4": (TET4, 4), "C3D10": (TET10, 10), "C3D8": (HEX8, 8)}
# Taken where they are to be split.
_CELLS = {
    "C3D5": (PYRAMID5, 5),
    "C3D6": (WEDGE6, 6),
    "C3D13": (PYRAMID13, 13),
    "C3D15": (WEDGE15, 15),
    "C3D20": (HEX20, 20),
    "C3D27": (HEX27, 27),
}
_SURFACE = re.compile(r"(?:DS|SFM3D|SC|S|STRI|M3D|CPS|CPEG?|CAX|R3D|F3D)(3|4|6|65|8|9)[A-Z]*\Z")
_SOLID = re.compile(r"(C3D\d+)([A-Z]*)\Z")
_LINES = {"T3D2": 2, "T3D3": 3, "T2D2": 2, "B31": 2, "B32": 3, "B21": 2, "MASS": 1}
_LINES |= {"SPRINGA": 2, "SPRING1": 1, "SPRING2": 2}
_SILENT = {"HEADING", "PART", "ENDPART", "ASSEMBLY", "ENDASSEMBLY", "INSTANCE", "ENDINSTANCE"}
_MOST_MEMBERS = 50_000_000  # of sets, where lines of a deck stand for many
_LARGEST_LABEL = 2**62


@dataclass
class _Deck:
    """What the sections have told so far. Set names are kept in capitals."""

    node_labels: list[Array] = field(default_factory=list)
    points: list[Array] = field(default_factory=list)
    solids: list[tuple[int, Array, Array]] = field(default_factory=list)
    flat: list[tuple[str, Array, Array]] = field(default_factory=list)  # set, labels, rows
    node_sets: dict[str, list[Array]] = field(default_factory=dict)
    element_sets: dict[str, list[Array]] = field(default_factory=dict)
    surfaces: dict[str, list[tuple[str, str]]] = field(default_factory=dict)  # (set, side)
    pressed: list[PressedFaces] = field(default_factory=list)
    blocks: int = 0  # of *DLOAD
    conditions: list[DeckSection] = field(default_factory=list)
    titles: dict[str, str] = field(default_factory=dict)  # spelling of each name
    unsupported: dict[str, int] = field(default_factory=dict)
    passed_over: dict[str, None] = field(default_factory=dict)
    notes: dict[str, None] = field(default_factory=dict)
    scope: list[str] = field(default_factory=list)  # of PART, ASSEMBLY, INSTANCE
    instances: int = 0
    members: int = 0  # of sets, from ranges and other sets
    has_part: bool = False
    solid_types: dict[str, tuple[int, int]] = field(default_factory=lambda: _SOLIDS)
    flat_widths: tuple[int, ...] = (3, 4, 6)

    def name(self, text: str) -> str:
        """A set's name in capitals, without the instance in front; remembers its spelling."""
        plain = plain_name(text)
        self.titles.setdefault(plain.upper(), plain)
        return plain.upper()

    def extend(self, sets: dict[str, list[Array]], name: str, labels: Array) -> None:
        sets.setdefault(name, []).append(labels)

    def count(self, members: int, path: PathLike) -> None:
        """Keep account of what a few bytes can stand for."""
        self.members += members
        if self.members > _MOST_MEMBERS:
            raise PartError(f"{path}: sets of more than {_MOST_MEMBERS} members in all")


def _joined(sets: dict[str, list[Array]], name: str) -> Array:
    """All labels of a set, as one piece from then on."""
    pieces = sets.get(name, [])
    if len(pieces) > 1:
        pieces[:] = [np.concatenate(pieces)]
    return pieces[0] if pieces else np.empty(0, np.int64)


def read_inp(
    path: PathLike,
    title: str,
    anywhere: bool = False,
    conditions: bool = False,
    cells: bool = False,
) -> Part:
    """Part of an input deck: *NODE, *ELEMENT, *NSET, *ELSET, *SURFACE and *INCLUDE.

    Included files lie in the deck's folder or below it, unless `anywhere`. The faces that *DLOAD
    lines name are surfaces too. With `conditions` the part holds all other keywords as they are,
    with `cells` also wedges, pyramids and hexahedra of 20 and 27 nodes.
    """
    deck = _Deck()
    if cells:
        deck.solid_types, deck.flat_widths = {**_SOLIDS, **_CELLS}, (3, 4, 6, 8, 9)
    for section in sections(Path(path), Sources(Path(path), title, anywhere)):
        _take(deck, section, title)
        if conditions:
            _keep(deck, section)
    if not deck.node_labels:
        raise PartError(f"{title}: no *NODE block")
    return _part(deck)


def _keep(deck: _Deck, section: DeckSection) -> None:
    """Remember what isn't mesh; of elements just the springs."""
    if section.keyword == "ELEMENT":
        if section.get("TYPE").upper().startswith("SPRING"):
            deck.conditions.append(section)
    elif section.keyword not in ("NODE", "NSET", "ELSET", "SURFACE"):
        deck.conditions.append(section)


def _take(deck: _Deck, section: DeckSection, path: PathLike) -> None:
    keyword = section.keyword
    in_assembly = "ASSEMBLY" in deck.scope and "INSTANCE" not in deck.scope
    if keyword in ("PART", "ASSEMBLY", "INSTANCE"):
        _open_scope(deck, section, path)
    elif keyword.startswith("END") and keyword[3:] in deck.scope:
        deck.scope.remove(keyword[3:])
    elif keyword in ("SYSTEM", "NMAP"):
        raise PartError(f"{path}: *{keyword} moves nodes, which isn't understood")
    elif keyword == "NODE" and in_assembly and deck.has_part:
        deck.notes["reference points of the assembly left out"] = None
    elif keyword == "NODE":
        _take_nodes(deck, section, path)
    elif keyword == "ELEMENT":
        _take_elements(deck, section, path)
    elif keyword in ("NSET", "ELSET"):
        if not (in_assembly and deck.has_part and not section.get("INSTANCE")):
            _take_set(deck, section, path)
    elif keyword == "SURFACE":
        _take_surface(deck, section)
    elif keyword not in _SILENT:
        if keyword == "DLOAD":
            deck.blocks += 1
            deck.pressed += pressed_faces(section, deck.blocks)
        deck.passed_over[f"*{keyword}"] = None


def _open_scope(deck: _Deck, section: DeckSection, path: PathLike) -> None:
    deck.scope.append(section.keyword)
    deck.has_part |= section.keyword == "PART"
    if section.keyword == "INSTANCE":
        deck.instances += 1
        if deck.instances > 1:
            raise PartError(f"{path}: more than one *INSTANCE; write the deck as one flat mesh")
        if section.data.strip():
            raise PartError(f"{path}: the *INSTANCE is moved or turned, which isn't understood")


def _numbers(text: str, dtype: type = np.float64) -> Array:
    """All numbers of data lines, separated by commas, blanks or line ends.

    ValueError or DeprecationWarning where there is anything else.
    """
    flat = text.replace(",", " ")
    if dtype is np.float64 and ("d" in flat or "D" in flat):
        flat = flat.replace("d", "e").replace("D", "e")
    if not flat or flat.isspace():
        return np.empty(0, dtype)
    return np.fromstring(flat, dtype, sep=" ")


def _records(section: DeckSection, width: int, path: PathLike, dtype: type = np.int64) -> Array:
    """Data lines as records of `width` numbers, whatever lines they are spread over."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("error", DeprecationWarning)
            values = _numbers(section.data, dtype)
    except (ValueError, DeprecationWarning):
        values = np.empty(1, dtype)
    if len(values) % width:
        raise PartError(
            f"{path}: the data below {section.first_line!r} aren't records of {width} numbers"
        )
    return values.reshape(-1, width)


def _take_nodes(deck: _Deck, section: DeckSection, path: PathLike) -> None:
    try:
        records = _records(section, 4, path, np.float64)
    except PartError:
        records = _short_nodes(section, path)
    if not np.all(np.abs(records[:, 0]) < _LARGEST_LABEL):
        raise PartError(f"{path}: below {section.first_line!r} stand node labels beyond reason")
    labels = records[:, 0].astype(np.int64)
    deck.node_labels.append(labels)
    deck.points.append(records[:, 1:])
    if name := section.get("NSET"):
        deck.extend(deck.node_sets, deck.name(name), labels)


def _short_nodes(section: DeckSection, path: PathLike) -> Array:
    """Node lines read one by one: coordinates at the end of a line may be missing, which is 0."""
    lines = [line.strip().rstrip(",") for line in section.data.split("\n") if line.strip()]
    rows = np.zeros((len(lines), 4))
    for row, line in zip(rows, lines, strict=True):
        words = line.split(",")[:4]
        try:
            row[: len(words)] = [float(w.replace("D", "e").replace("d", "e") or 0) for w in words]
        except ValueError:
            raise PartError(f"{path}: no node: {line!r}") from None
    return rows


def _take_elements(deck: _Deck, section: DeckSection, path: PathLike) -> None:
    kind = section.get("TYPE").upper()
    name = deck.name(section.get("ELSET")) if section.get("ELSET") else ""
    solid = _SOLID.match(kind)
    surface = _SURFACE.match(kind)
    if solid and solid[1] in deck.solid_types:
        code, width = deck.solid_types[solid[1]]
        rows = _records(section, width + 1, path)
        deck.solids.append((code, rows[:, 0], rows[:, 1:]))
        if solid[2]:
            deck.notes[f"{kind} read as {solid[1]}"] = None
    elif surface and (width := {"65": 6}.get(surface[1], int(surface[1]))) in deck.flat_widths:
        rows = _records(section, width + 1, path)
        deck.flat.append((name, rows[:, 0], rows[:, 1:]))
    elif kind in _LINES:
        rows = _records(section, _LINES[kind] + 1, path)
        deck.extend(deck.node_sets, name or kind, distinct(rows[:, 1:]))
        deck.notes[f"{kind} elements left out, their nodes are a node set"] = None
        return
    else:
        _, width = _CELLS.get(solid[1] if solid else "", (0, 0))
        lines = len([line for line in section.data.split("\n") if line.strip()])
        count = len(_records(section, width + 1, path)) if width else lines
        deck.unsupported[kind] = deck.unsupported.get(kind, 0) + count
        return
    if name:
        deck.extend(deck.element_sets, name, rows[:, 0])


def _take_set(deck: _Deck, section: DeckSection, path: PathLike) -> None:
    sets = deck.node_sets if section.keyword == "NSET" else deck.element_sets
    name = deck.name(section.get(section.keyword))
    if "GENERATE" in section.parameters:
        runs = [line.strip().rstrip(",") for line in section.data.split("\n") if line.strip()]
        for run in runs:
            deck.extend(sets, name, _generated(deck, run, path))
        return
    if not re.search(r"[^\d\s,.+-]", section.data):
        deck.extend(sets, name, _records(section, 1, path).ravel())
        return
    single: list[int] = []
    others: dict[str, None] = {}
    for word in re.split(r"[\s,]+", section.data.strip(" \t\n,")):
        if (label := _label(word)) is not None:
            single.append(label)
        elif (other := deck.name(word)) in sets:
            others[other] = None
        else:
            raise PartError(f"{path}: {section.first_line!r} names {word!r}, which isn't a set")
    pieces = [np.array(single, np.int64), *(_joined(sets, other) for other in others)]
    deck.count(sum(map(len, pieces)), path)
    deck.extend(sets, name, np.concatenate(pieces))


def _label(word: str) -> int | None:
    """The number of a node or element; None for what can't be one."""
    if re.fullmatch(r"[0-9]{1,18}", word):
        return int(word)
    return None


def _generated(deck: _Deck, run: str, path: PathLike) -> Array:
    """Labels of one line "first, last, step"."""
    try:
        first, last, step = (*(int(float(w)) for w in run.split(",")), 1)[:3]
    except (ValueError, OverflowError):
        raise PartError(f"{path}: {run[:60]!r} isn't a range of labels") from None
    if step < 1 or max(abs(first), abs(last), step) > _LARGEST_LABEL:
        raise PartError(f"{path}: {run[:60]!r} isn't a range of labels")
    deck.count(max((last - first) // step + 1, 0), path)
    return np.arange(first, last + 1, step)


def _take_surface(deck: _Deck, section: DeckSection) -> None:
    name = deck.name(section.get("NAME"))
    entries = []
    for line in section.data.split("\n"):
        words = [w.strip() for w in line.split(",")]
        if words[0]:
            entries.append((words[0], words[1].upper() if len(words) > 1 else ""))
    if section.get("TYPE").upper() == "NODE":
        numbers = [_label(word) for word, _ in entries]
        single = np.array([label for label in numbers if label is not None], np.int64)
        named = dict.fromkeys(
            word for (word, _), n in zip(entries, numbers, strict=True) if n is None
        )
        pieces = [single, *(_joined(deck.node_sets, deck.name(word)) for word in named)]
        deck.count(sum(map(len, pieces)), name)
        deck.extend(deck.node_sets, name, np.concatenate(pieces))
    else:
        deck.surfaces.setdefault(name, []).extend(entries)


# --- putting it together ---------------------------------------------------------------------


def _part(deck: _Deck) -> Part:
    part = Part(
        np.concatenate(deck.node_labels),
        np.concatenate(deck.points),
        deck.solids,
        unsupported=deck.unsupported,
        notes=list(deck.notes),
    )
    if deck.passed_over:
        part.notes.append(f"passed over in the deck: {', '.join(sorted(deck.passed_over))}")
    part.deck = deck.conditions
    nodes = Lookup(part.labels, "node")
    solids = Lookup(_all_labels(deck.solids), "element")
    flat = Lookup(_all_labels(deck.flat), "surface element")
    for name in deck.node_sets:
        labels = _joined(deck.node_sets, name)
        known = nodes.known(labels)
        if len(known) < len(labels):
            left = counted(len(labels) - len(known), "node")
            part.notes.append(f"node set {deck.titles.get(name, name)!r}: {left} unknown")
        part.node_sets[deck.titles.get(name, name)] = known
    for name in deck.element_sets:
        labels = _joined(deck.element_sets, name)
        _split_set(part, deck, deck.titles.get(name, name), labels, solids, flat)
    for name, entries in deck.surfaces.items():
        if rows := _rows_of_surface(deck, part, name, entries, solids, flat):
            part.surfaces.setdefault(deck.titles[name], []).extend(rows)
    for pressed in deck.pressed:
        if pressed.name not in part.surfaces and (rows := _pressed_rows(deck, pressed)):
            part.surfaces[pressed.name] = rows
    return part


def _pressed_rows(deck: _Deck, pressed: PressedFaces) -> list[Array]:
    """Node rows of the sides that *DLOAD lines name; of elements and sides that there are."""
    labels: dict[int, list[Array]] = {}
    for word, side in pressed.entries:
        label = _label(word)
        name = plain_name(word).upper()
        own = _joined(deck.element_sets, name) if label is None else np.array([label])
        labels.setdefault(side, []).append(own)
    found = []
    for side, pieces in labels.items():
        wanted = np.concatenate(pieces)
        for code, own, rows in deck.solids:
            if side <= len(CELL_FACES[code]):
                found.append(rows[np.isin(own, wanted)][:, CELL_FACES[code][side - 1]])
    return [rows for rows in found if len(rows)]


def _all_labels(blocks: list) -> Array:  # type: ignore[type-arg]
    return np.concatenate([b[1] for b in blocks] or [np.empty(0, np.int64)])


def _split_set(
    part: Part, deck: _Deck, title: str, labels: Array, solids: Lookup, flat: Lookup
) -> None:
    """An element set may hold solids and surface elements: the latter become a surface."""
    inside = solids.known(labels)
    if len(inside):
        part.element_sets[title] = inside
    rest = labels[~np.isin(labels, inside)]
    on_surface = flat.known(rest)
    if len(on_surface):
        part.surfaces[title] = _flat_rows(deck, on_surface)
    unknown = rest[~np.isin(rest, on_surface)]
    if len(unknown):
        part.notes.append(f"element set {title!r}: elements {labelled(unknown)} unknown")


def _flat_rows(deck: _Deck, labels: Array) -> list[Array]:
    return [
        rows[np.isin(own, labels)] for _, own, rows in deck.flat if np.any(np.isin(own, labels))
    ]


def _rows_of_surface(
    deck: _Deck,
    part: Part,
    name: str,
    entries: Iterable[tuple[str, str]],
    solids: Lookup,
    flat: Lookup,
) -> list[Array]:
    """Node rows of a *SURFACE; lines of single elements are taken together by their sides."""
    single: dict[str, list[int]] = {}
    found: list[Array] = []
    for word, side in dict.fromkeys(entries):
        if (label := _label(word)) is not None:
            single.setdefault(side, []).append(label)
        else:
            labels = _named_elements(deck, name, word)
            found += _surface_rows(deck, part, name, word, side, labels, solids, flat)
    for side, numbers in single.items():
        labels = np.array(numbers, np.int64)
        unknown = labels[~np.isin(labels, np.concatenate((solids.sorted, flat.sorted)))]
        word = str(int(unknown[0])) if len(unknown) else labelled(labels)
        if len(unknown):
            raise _no_elements(deck, name, f"element {word}", "which the deck doesn't have")
        found += _surface_rows(deck, part, name, word, side, labels, solids, flat)
    return found


def _named_elements(deck: _Deck, name: str, word: str) -> Array:
    """Labels of the element set that a *SURFACE names."""
    key = deck.name(word)
    if key in deck.element_sets:
        return _joined(deck.element_sets, key)
    if key in deck.node_sets:
        why = "which is a set of nodes: a surface of nodes is *SURFACE, TYPE=NODE"
    else:
        known = [deck.titles.get(other, other) for other in deck.element_sets]
        why = f"which is no element set; {did_you_mean(word, known)}".rstrip("; ")
    raise _no_elements(deck, name, repr(word), why)


def _no_elements(deck: _Deck, name: str, what: str, why: str) -> PartError:
    """Elements that can't be read are likely to be the ones that are missed."""
    if deck.unsupported:
        kinds = ", ".join(sorted(deck.unsupported))
        why += f" (left out of the deck, since they can't be read: elements of type {kinds})"
        if any((solid := _SOLID.match(kind)) and solid[1] in _CELLS for kind in deck.unsupported):
            why += f"; wedges, pyramids and hexahedra can be split: {SPLITTING}"
    return PartError(f"*SURFACE {deck.titles[name]} names {what}, {why}")


def _surface_rows(
    deck: _Deck,
    part: Part,
    name: str,
    word: str,
    side: str,
    labels: Array,
    solids: Lookup,
    flat: Lookup,
) -> list[Array]:
    """Node rows of elements of a *SURFACE: side S1 to S6 of solids, or surface elements whole."""
    found = _flat_rows(deck, flat.known(labels))
    inside = solids.known(labels)
    if not len(inside) and not found:
        raise _no_elements(deck, name, repr(word), "which holds no elements that are there")
    if len(inside) and not re.fullmatch(r"S[1-6]", side):
        part.notes.append(
            f"surface {deck.titles[name]!r}: {word!r} without a side S1 to S6 left out; "
            "a face set of the case file can take outer faces"
        )
        return found
    for code, own, rows in deck.solids:
        chosen = rows[np.isin(own, inside)]
        number = int(side[1:] or 0) - 1 if len(chosen) else 0
        if len(chosen) and number >= len(CELL_FACES[code]):
            label = int(own[np.isin(own, inside)][0])
            raise PartError(
                f"*SURFACE {deck.titles[name]}: element {label} of {word!r} has no side {side}, "
                f"its sides are S1 to S{len(CELL_FACES[code])}"
            )
        if len(chosen):
            found.append(chosen[:, CELL_FACES[code][number]])
    return found
