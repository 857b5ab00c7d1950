"""What earlier runs left of a file, looked at as the solver looks at it."""

from __future__ import annotations

import os
import stat
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.failures import reason
from vkctl.basics.types import Array
from vkctl.directory import formats

from .findings import Finding, error


@dataclass(frozen=True)
class Stored:
    """A file of header words and single-precision values."""

    name: str
    size: int  # bytes of the whole file
    head: list[int]  # header words, fewer where the file ends among them
    values: Array  # float32, at most as many as were asked for


def exists(path: Path) -> bool:
    """Whether the solver takes the file for one that is there.

    What it can't look at counts as there, and opening it is what fails.
    """
    try:
        return stat.S_ISREG(os.stat(path).st_mode)
    except (FileNotFoundError, NotADirectoryError):
        return False
    except OSError:
        return True


def load(directory: Path, name: str, words: int, count: int) -> Stored | Finding | None:
    """The header and the first `count` values; a finding where the file can't be read.

    None where there is no such file.
    """
    if not exists(directory / name):
        return None
    try:
        with formats.open_regular(directory / name) as stream:
            size = os.fstat(stream.fileno()).st_size
            head = np.fromfile(stream, "<i4", min(words, size // 4)).tolist()
            left = max(size // 4 - words, 0)
            return Stored(name, size, head, np.fromfile(stream, "<f4", min(count, left)))
    except OSError as trouble:
        text = f"{name} can't be read: {reason(trouble)}."
        return error("file-unreadable", text, name, "The run would stop at it.")
