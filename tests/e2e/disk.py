"""A simulated disk that keeps what was synced and may lose anything else.

It replays the file operations of a run. Bytes count as kept once their file was synced, names once
their folder was; until then the disk may have kept or lost each write (or half of it) and each
change of names, whatever came before or behind it.
"""

from __future__ import annotations

import os
from collections.abc import Iterator
from dataclasses import dataclass, field
from itertools import product
from pathlib import Path

import numpy as np
from interference import Operation


@dataclass(eq=False)
class File:
    kept: bytes = b""
    unsynced: list[bytes] = field(default_factory=list)

    @property
    def content(self) -> bytes:
        """What the running system sees."""
        return self.kept + b"".join(self.unsynced)


@dataclass
class Change:
    """Of names in a folder, all at once."""

    folder: str
    names: dict[str, File | None]


@dataclass
class Disk:
    seen: dict[str, File]  # by name, as the running system sees it
    kept: dict[str, File]
    links: dict[str, str]  # to the name of what they lead to
    unsynced: list[Change] = field(default_factory=list)
    opened: dict[int, File] = field(default_factory=dict)


def holding(directory: Path) -> Disk:
    """A disk that has kept the files of a directory."""
    paths = {str(path.relative_to(directory)): path for path in directory.rglob("*")}
    links = {
        name: str(path.resolve().relative_to(directory.resolve()))
        for name, path in paths.items()
        if path.is_symlink()
    }
    files = {
        name: File(path.read_bytes())
        for name, path in paths.items()
        if path.is_file() and name not in links
    }
    return Disk(dict(files), files, links)


def replay(disk: Disk, operations: list[Operation]) -> Iterator[Operation]:
    """Does the operations one by one; each is yielded when it is done."""
    for operation in operations:
        if operation.done:
            _do(disk, operation)
        yield operation


def _do(disk: Disk, operation: Operation) -> None:
    name = os.path.normpath(operation.name)
    name = disk.links.get(name, name) if operation.call == "open" else name
    file = disk.opened.get(operation.descriptor)
    if operation.call == "open" and operation.other:  # new, or emptied
        disk.opened[operation.descriptor] = File()
        _change(disk, {name: disk.opened[operation.descriptor]})
    elif operation.call == "open":
        disk.opened.pop(operation.descriptor, None)
    elif operation.call == "write" and file:
        file.unsynced.append(operation.content)
    elif operation.call in ("fsync", "fdatasync") and file:
        file.kept, file.unsynced = file.content, []
    elif operation.call == "fsync":
        _keep_names(disk, name)
    elif operation.call == "syncfs":
        raise NotImplementedError
    elif operation.call == "rename":
        _change(disk, {name: None, os.path.normpath(operation.other): disk.seen[name]})
    elif operation.call == "unlink":
        _change(disk, {name: None})


def _change(disk: Disk, names: dict[str, File | None]) -> None:
    folder = os.path.dirname(next(iter(names))) or "."
    disk.unsynced.append(Change(folder, names))
    _apply(disk.seen, names)


def _apply(place: dict[str, File], names: dict[str, File | None]) -> None:
    for name, file in names.items():
        if file is None:
            place.pop(name, None)
        else:
            place[name] = file


def _keep_names(disk: Disk, folder: str) -> None:
    for change in disk.unsynced:
        if change.folder == folder:
            _apply(disk.kept, change.names)
    disk.unsynced = [change for change in disk.unsynced if change.folder != folder]


# --- what a loss of power leaves ------------------------------------------------------------------


def possible(disk: Disk, name: str) -> set[bytes | None]:
    """Every content that the name may have after a loss of power now; None where it is gone.

    No operation changes two names that matter, so those of each go with any of another's.
    """
    files = [disk.kept.get(name)]
    files += [change.names[name] for change in disk.unsynced if name in change.names]
    return {content for file in files for content in (contents(file) if file else [None])}


def contents(file: File) -> list[bytes]:
    """Every content that may be kept of a file: each unsynced write whole, by half or not."""
    parts = [(len(part), len(part) // 2, 0) for part in file.unsynced]
    return [_torn(file, lengths) for lengths in product(*parts)]


def _torn(file: File, lengths: tuple[int, ...]) -> bytes:
    """What wasn't kept is zeros where something is kept behind it."""
    content, place = bytearray(file.kept), len(file.kept)
    for part, length in zip(file.unsynced, lengths, strict=True):
        if length:
            content += bytes(place - len(content)) + part[:length]
        place += len(part)
    return bytes(content)


def after_power_cut(disk: Disk, random: np.random.Generator) -> dict[str, bytes]:
    """One of all the states of the disk that a loss of power may leave."""
    kept = dict(disk.kept)
    for change in disk.unsynced:
        if random.random() < 0.5:
            _apply(kept, change.names)
    state = {}
    for name, file in kept.items():
        lengths = [int(random.choice((len(p), len(p) // 2, 0))) for p in file.unsynced]
        state[name] = _torn(file, tuple(lengths))
    return state
