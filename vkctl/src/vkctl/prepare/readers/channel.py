"""What a reading process and the one that started it tell each other through a pipe.

A message is the length of its JSON text, the text, and the arrays it announces. The side that
receives trusts nothing: neither lengths nor types nor what the arrays hold.
"""

from __future__ import annotations

import json
import struct
from dataclasses import asdict, dataclass
from typing import IO, Any

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import printable
from vkctl.shapes.topology import NODES_PER_TYPE

from ..part import DeckSection, Part

_LENGTH = struct.Struct("<Q")
_LONGEST_TEXT = 256 << 20  # bytes of JSON: names of sets
_TYPES = ("<i8", "<f8")


class BrokenError(Exception):
    """The other side broke off, or said what it can't say."""


@dataclass
class Message:
    kind: str
    content: dict[str, Any]
    arrays: list[Array]


def send(
    stream: IO[bytes], kind: str, content: dict[str, Any], arrays: list[Array] | None = None
) -> None:
    shown = [[a.dtype.str, list(a.shape)] for a in arrays or []]
    text = json.dumps({"kind": kind, "content": content, "arrays": shown}).encode()
    stream.write(_LENGTH.pack(len(text)))
    stream.write(text)
    for array in arrays or []:
        stream.write(np.ascontiguousarray(array).reshape(-1).view(np.uint8).data)
    stream.flush()


def receive(stream: IO[bytes], most: int) -> Message | None:
    """The next message, None where the other side has ended; arrays of `most` bytes at most."""
    head = stream.read(_LENGTH.size)
    if len(head) < _LENGTH.size:
        return None
    (length,) = _LENGTH.unpack(head)
    if length > _LONGEST_TEXT:
        raise BrokenError(f"a message of {length} bytes")
    text = stream.read(length)
    if len(text) < length:
        return None
    try:
        said = json.loads(text)
        shapes = [(str(kind), tuple(int(n) for n in shape)) for kind, shape in said["arrays"]]
        message = Message(str(said["kind"]), dict(said["content"]), [])
    except (ValueError, KeyError, TypeError, RecursionError) as error:
        raise BrokenError(f"a message that can't be understood: {error}") from None
    for kind, shape in shapes:
        if kind not in _TYPES or len(shape) not in (1, 2) or min(shape) < 0:
            raise BrokenError(f"an array of {kind} {shape}")
        size = 8 * int(np.prod(shape, dtype=object))
        most -= size
        if most < 0:
            raise BrokenError("more data than the limit of memory allows")
        array = np.empty(shape, kind)
        view = memoryview(array.reshape(-1).view(np.uint8).data)
        if stream.readinto(view) < size:  # type: ignore[attr-defined]
            return None
        message.arrays.append(array)
    return message


class _Packer:
    """Arrays of a part in the order in which they are sent, referred to by their places."""

    def __init__(self) -> None:
        self.arrays: list[Array] = []

    def put(self, values: Array, kind: str = "<i8") -> int:
        self.arrays.append(np.ascontiguousarray(values, kind))
        return len(self.arrays) - 1


def part_message(part: Part) -> tuple[dict[str, Any], list[Array]]:
    """Content and arrays that tell a part."""
    pack = _Packer()
    content: dict[str, Any] = {
        "labels": pack.put(part.labels),
        "points": pack.put(part.points, "<f8"),
        "solids": [[code, pack.put(own), pack.put(rows)] for code, own, rows in part.solids],
        "node_sets": {name: pack.put(v) for name, v in part.node_sets.items()},
        "element_sets": {name: pack.put(v) for name, v in part.element_sets.items()},
        "surfaces": {name: [pack.put(t) for t in v] for name, v in part.surfaces.items()},
        "node_data": {name: pack.put(v, "<f8") for name, v in part.node_data.items()},
        "unsupported": part.unsupported,
        "notes": part.notes,
        "meshed": part.meshed,
        "cells": None if part.cells is None else pack.put(part.cells),
        "deck": [asdict(section) for section in part.deck],
    }
    return content, pack.arrays


def told_part(message: Message) -> Part:
    """The part that a message tells; BrokenError where its pieces don't fit together."""
    said, arrays = message.content, message.arrays

    def take(place: object, kind: str = "<i8", width: int | None = None) -> Array:
        if not isinstance(place, int) or not 0 <= place < len(arrays):
            raise BrokenError("an array that isn't there")
        array = arrays[place]
        if array.dtype.str != kind or (array.shape[1:] or (None,))[0] != width:
            raise BrokenError("an array of the wrong kind")
        return array

    def surface(place: object) -> Array:
        if not isinstance(place, int) or not 0 <= place < len(arrays):
            raise BrokenError("an array that isn't there")
        if arrays[place].dtype.kind != "i" or arrays[place].shape[1:] not in ((3,), (4,), (6,)):
            raise BrokenError("surface elements of the wrong kind")
        return arrays[place]

    try:
        part = Part(take(said["labels"]), take(said["points"], "<f8", 3), [])
        for code, own, rows in said["solids"]:
            part.solids.append((code, take(own), take(rows, "<i8", NODES_PER_TYPE[code])))
        part.node_sets = {printable(n): take(v) for n, v in said["node_sets"].items()}
        part.element_sets = {printable(n): take(v) for n, v in said["element_sets"].items()}
        part.surfaces = {printable(n): [surface(t) for t in v] for n, v in said["surfaces"].items()}
        part.node_data = {printable(n): take(v, "<f8") for n, v in said["node_data"].items()}
        part.unsupported = {printable(n): int(v) for n, v in said["unsupported"].items()}
        part.notes = [printable(str(note)) for note in said["notes"]]
        part.meshed = bool(said["meshed"])
        part.cells = None if said["cells"] is None else take(said["cells"])
        part.deck = [_section(told) for told in said["deck"]]
    except (KeyError, TypeError, ValueError, AttributeError) as error:
        raise BrokenError(f"a part that can't be understood: {error}") from None
    sizes = [len(part.points), *(len(v) for v in part.node_data.values())]
    pairs = [len(own) == len(rows) for _, own, rows in part.solids]
    if part.cells is not None:
        pairs.append(len(part.cells) == sum(len(own) for _, own, _ in part.solids))
    if any(size != len(part.labels) for size in sizes) or not all(pairs):
        raise BrokenError("arrays of different lengths")
    return part


def _section(told: dict[str, Any]) -> DeckSection:
    return DeckSection(
        str(told["keyword"]),
        {str(name): str(value) for name, value in told["parameters"].items()},
        [(int(line), str(text)) for line, text in told["pieces"]],
        str(told["first_line"]),
        str(told["file"]),
        int(told["line"]),
    )
