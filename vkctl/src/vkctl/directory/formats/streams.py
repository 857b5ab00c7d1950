"""Reading and writing of one file: counts ahead of arrays, replaced as a whole."""

from __future__ import annotations

import errno
import os
import stat
import struct
from collections.abc import Iterable, Iterator
from contextlib import AbstractContextManager, contextmanager
from contextvars import ContextVar
from pathlib import Path
from typing import IO

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike

from .regular import open_regular


class FormatError(Exception):
    """A file of the working directory can't be understood."""

    def __init__(self, path: PathLike, reason: str) -> None:
        super().__init__(f"{os.fspath(path)}: {reason}")
        self.path = Path(path)
        self.reason = reason


class ShortFileError(FormatError):
    """A file ends before the bytes that its counts announce."""


_synced = ContextVar("_synced", default=True)


@contextmanager
def passing() -> Iterator[None]:
    """Inside of the block files aren't brought to the disk: nobody needs them after a power cut."""
    before = _synced.set(False)
    try:
        yield
    finally:
        _synced.reset(before)


_SHOWN_NAME = 80  # characters of a file's name in that of its temporary neighbour


@contextmanager
def replacing(path: PathLike) -> Iterator[IO[bytes]]:
    """Binary file that takes the name `path` on leaving the block, and vanishes on an error.

    Whatever ends the process or the system, the name stands for the old bytes or the new ones.
    A link of that name is replaced, not followed; a device is written to as it is.
    """
    target = Path(path)
    try:
        with _written(target) as stream:
            yield stream
    except OSError as error:
        if error.errno and error.filename is None:  # a full disk tells no name
            error.filename = os.fspath(target)
        raise


def _written(target: Path) -> AbstractContextManager[IO[bytes]]:
    return open(target, "wb") if _is_device(target) else _replacement(target)


@contextmanager
def _replacement(target: Path) -> Iterator[IO[bytes]]:
    beside, descriptor = _new_beside(target)
    try:
        with open(descriptor, "wb") as stream:
            yield stream
            stream.flush()
            if _synced.get():
                os.fsync(descriptor)
        os.replace(beside, target)
    except BaseException:
        beside.unlink(missing_ok=True)
        raise
    if _synced.get():
        sync_folder(target.parent)


def _is_device(target: Path) -> bool:
    """Whether the name is a device's. A pipe would wait for a reader, so it is refused."""
    try:
        kind = os.stat(target).st_mode
    except OSError:
        return False
    if stat.S_ISFIFO(kind) or stat.S_ISSOCK(kind) or stat.S_ISBLK(kind):
        raise OSError(errno.EINVAL, "not a file that can be replaced", os.fspath(target))
    return stat.S_ISCHR(kind)


def _new_beside(target: Path) -> tuple[Path, int]:
    """A file that nobody had, under a name that nobody can foresee: no planted link is opened."""
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
    while True:
        name = f".{target.name[:_SHOWN_NAME]}.{os.urandom(8).hex()}.tmp"
        try:
            return target.with_name(name), os.open(target.with_name(name), flags, 0o666)
        except FileExistsError:
            continue


def sync_folder(folder: Path) -> None:
    """Make the names in a folder durable, on file systems that can."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(descriptor)
    except OSError as error:
        if error.errno not in (errno.EINVAL, errno.EBADF, errno.ENOTSUP):
            raise
    finally:
        os.close(descriptor)


class Reader:
    """Reads items in file order and refuses to ask for more bytes than the file has left."""

    def __init__(self, path: PathLike) -> None:
        self.path = Path(path)
        self.stream = open_regular(self.path)
        self.left = os.fstat(self.stream.fileno()).st_size

    def __enter__(self) -> Reader:
        return self

    def __exit__(self, *_: object) -> None:
        self.stream.close()

    def _take(self, size: int, what: str) -> None:
        if size > self.left:
            raise ShortFileError(self.path, f"{what} needs {size} bytes, {self.left} are left")
        self.left -= size

    def _bytes(self, size: int, what: str) -> bytes:
        self._take(size, what)
        content = self.stream.read(size)
        if len(content) < size:  # the file has become shorter since it was opened
            raise ShortFileError(self.path, f"{what} needs {size} bytes, {len(content)} came")
        return content

    def int32(self, what: str) -> int:
        return int(struct.unpack("<i", self._bytes(4, what))[0])

    def int64(self, what: str) -> int:
        return int(struct.unpack("<q", self._bytes(8, what))[0])

    def array(self, dtype: npt.DTypeLike, count: int, what: str) -> Array:
        kind = np.dtype(dtype)
        count = max(count, 0)
        self._take(count * kind.itemsize, what)
        try:
            values = np.fromfile(self.stream, kind, count)
        except MemoryError:
            size = count * kind.itemsize
            raise FormatError(self.path, f"{what} needs {size} bytes of memory") from None
        if len(values) < count:
            raise ShortFileError(self.path, f"{count} {what} are announced, {len(values)} came")
        return values


def int32_bytes(*values: int) -> bytes:
    return struct.pack(f"<{len(values)}i", *values)


def write_parts(path: PathLike, parts: Iterable[bytes | Array]) -> None:
    with replacing(path) as stream:
        for part in parts:
            if isinstance(part, bytes):
                stream.write(part)
            else:
                stream.write(np.ascontiguousarray(part).reshape(-1).view(np.uint8).data)


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
