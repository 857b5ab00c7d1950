"""Ways in which a file is damaged, or something else stands in its place."""

from __future__ import annotations

import os
import struct
from collections.abc import Callable
from pathlib import Path

import numpy as np

_HUGE = (2**31 - 1).to_bytes(4, "little")


def _replaced(path: Path, content: bytes) -> None:
    path.write_bytes(content)


def _random(path: Path) -> None:
    random = np.random.default_rng(len(path.name))
    _replaced(path, random.bytes(max(path.stat().st_size, 8)))


def _turned(path: Path) -> None:
    """Every seventh byte another one: texts stay texts in part."""
    content = bytearray(path.read_bytes())
    content[3::7] = bytes(255 - byte for byte in content[3::7])
    _replaced(path, bytes(content))


def _directory(path: Path) -> None:
    path.unlink()
    path.mkdir()


def _pipe(path: Path) -> None:
    path.unlink()
    os.mkfifo(path)


def _loop(path: Path) -> None:
    path.unlink()
    path.symlink_to(path.name)


def _another(path: Path) -> None:
    """A sound file of two nodes."""
    _replaced(path, struct.pack("<2i6f", 0, 2, 0, 0, 0, 1, 0, 0))


def _cut(path: Path, length: int) -> None:
    _replaced(path, path.read_bytes()[:length])


def _count(path: Path, place: int) -> None:
    content = path.read_bytes()
    _replaced(path, content[:place] + _HUGE + content[place + 4 :])


DAMAGES: dict[str, Callable[[Path], None]] = {
    "missing": Path.unlink,
    "empty": lambda path: _replaced(path, b""),
    "cut behind a byte": lambda path: _cut(path, 1),
    "cut in its head": lambda path: _cut(path, 6),
    "cut in the middle": lambda path: _cut(path, path.stat().st_size // 2),
    "cut at its end": lambda path: _cut(path, -1),
    "random": _random,
    "turned": _turned,
    "ones": lambda path: _replaced(path, b"\xff" * path.stat().st_size),
    "zeros": lambda path: _replaced(path, bytes(path.stat().st_size)),
    "huge count": lambda path: _count(path, 0),
    "huge second count": lambda path: _count(path, 4),
    "another's": _another,
    "a directory": _directory,
    "a pipe": _pipe,
    "a link to itself": _loop,
}
