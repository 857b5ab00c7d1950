"""Opening a file for reading, whatever was put in its place."""

from __future__ import annotations

import errno
import os
import stat
from pathlib import Path
from typing import IO

from vkctl.basics.types import PathLike


def open_regular(path: PathLike) -> IO[bytes]:
    """A regular file, as the solver reads no other: anything else is an OSError and no wait.

    A pipe without a writer would hold the reader up, a device might never end.
    """
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    try:
        kind = os.fstat(descriptor).st_mode
        if stat.S_ISDIR(kind):
            raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), os.fspath(path))
        if not stat.S_ISREG(kind):
            raise OSError(errno.EINVAL, "Not a regular file", os.fspath(path))
        return open(descriptor, "rb")
    except BaseException:
        os.close(descriptor)
        raise


def is_regular(path: PathLike) -> bool:
    """Whether there is a regular file of that name, behind links or not."""
    return Path(path).is_file()


def read_regular(path: PathLike) -> bytes:
    """All bytes of a regular file."""
    with open_regular(path) as stream:
        return stream.read()
