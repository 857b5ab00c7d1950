"""Reading and writing of one file: counts ahead of arrays, replaced as a whole."""

from __future__ import annotations

import os
import struct
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import IO

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike


class FormatError(Exception):
    """A file of the working directory can't be understood."""

    def __init__(self, path: PathLike, reason: str) -> None:
        super().__init__(f"{os.fspath(path)}: {reason}")
        self.path = Path(path)
        self.reason = reason


class ShortFileError(FormatError):
    """A file ends before the bytes that its counts announce."""


@contextmanager
def replacing(path: PathLike) -> Iterator[IO[bytes]]:
    """Binary file that takes the name `path` on leaving the block, and vanishes on an error."""
    target = Path(path)
    beside = target.with_name(f".{target.name}.{os.getpid()}.tmp")
    try:
        with open(beside, "wb") as stream:
            yield stream
        os.replace(beside, target)
    except BaseException:
        beside.unlink(missing_ok=True)
        raise


class Reader:
    """Reads items in file order and refuses to ask for more bytes than the file has left."""

    def __init__(self, path: PathLike) -> None:
        self.path = Path(path)
        self.stream = open(self.path, "rb")
        self.left = os.fstat(self.stream.fileno()).st_size

    def __enter__(self) -> Reader:
        return self

    def __exit__(self, *_: object) -> None:
        self.stream.close()

    def _take(self, size: int, what: str) -> None:
        if size > self.left:
            raise ShortFileError(self.path, f"{what} needs {size} bytes, {self.left} are left")
        self.left -= size

    def int32(self, what: str) -> int:
        self._take(4, what)
        return int(struct.unpack("<i", self.stream.read(4))[0])

    def int64(self, what: str) -> int:
        self._take(8, what)
        return int(struct.unpack("<q", self.stream.read(8))[0])

    def array(self, dtype: npt.DTypeLike, count: int, what: str) -> Array:
        kind = np.dtype(dtype)
        count = max(count, 0)
        self._take(count * kind.itemsize, what)
        return np.fromfile(self.stream, kind, count)


def int32_bytes(*values: int) -> bytes:
    return struct.pack(f"<{len(values)}i", *values)


def write_parts(path: PathLike, parts: Iterable[bytes | Array]) -> None:
    with replacing(path) as stream:
        for part in parts:
            if isinstance(part, bytes):
                stream.write(part)
            else:
                np.ascontiguousarray(part).tofile(stream)


def read_counted(path: PathLike, dtype: npt.DTypeLike, what: str) -> Array:
    with Reader(path) as r:
        return r.array(dtype, r.int32("count"), what)


def write_counted(path: PathLike, dtype: npt.DTypeLike, values: npt.ArrayLike) -> None:
    array = np.asarray(values, dtype)
    write_parts(path, [int32_bytes(len(array)), array])


LARGEST_NUMBER = 9999  # of a load case: its file names have four digits


def numbered(stem: str, number: int) -> str:
    """File name of a load case: the stem, a point, four digits (asterisks beyond)."""
    return f"{stem}." + (f"{number:04d}" if 0 <= number <= LARGEST_NUMBER else "****")
