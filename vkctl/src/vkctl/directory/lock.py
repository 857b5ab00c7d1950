"""The lock of a working directory, which whoever changes its files holds.

It is an advisory lock of the system on the directory itself. A run holds it from its start to its
end, vkctl while it rewrites files. It ends with the process and leaves nothing behind. File
systems without locks have none, and whoever asks goes on without.
"""

from __future__ import annotations

import errno
import fcntl
import os
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from vkctl.basics.types import PathLike

_TABLE = Path("/proc/locks")
# What file systems answer that have no locks, or none for a directory.
_NO_LOCKS = {
    errno.ENOLCK,
    errno.ENOTSUP,
    errno.EINVAL,
    errno.EBADF,
    errno.ENOSYS,
    errno.EACCES,
    errno.EPERM,
}
_File = tuple[int, int]  # device and number

# Files whose locks this process holds, with the thread and how often it has asked.
_held: dict[_File, tuple[int, int]] = {}
_guard = threading.Lock()


class BusyError(OSError):
    """Another process works on the directory; `pid` is its number, if that is known."""

    def __init__(self, directory: PathLike, pid: int | None = None) -> None:
        who = "Another process" if pid is None else f"Process {pid}"
        super().__init__(f"{who} is running on {os.fspath(directory)} already.")
        self.pid = pid


@contextmanager
def holding(directory: PathLike, again: bool = True) -> Iterator[bool]:
    """Hold a directory's lock; BusyError where another process or thread does.

    The thread that holds it may do so `again` inside of the block.

    Yields whether it is held: False on file systems without locks. A program that is started
    doesn't inherit it, so a run must be started when the block has been left.
    """
    try:
        descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    except PermissionError:  # it may be entered and written, but not read
        yield False
        return
    try:
        file = _file_of(descriptor)
        with _entered(file, directory, again) as first:
            locked = not first or _lock(descriptor, file, directory)
            try:
                yield locked
            finally:
                if first and locked:  # a forked process may have the descriptor too
                    fcntl.flock(descriptor, fcntl.LOCK_UN)
    finally:
        os.close(descriptor)


@contextmanager
def _entered(file: _File, directory: PathLike, again: bool) -> Iterator[bool]:
    """Count who in this process holds a lock; yields whether it is to be asked for."""
    me = threading.get_ident()
    with _guard:
        owner, times = _held.get(file, (me, 0))
        if owner != me or (times and not again):
            raise BusyError(directory, os.getpid())
        _held[file] = me, times + 1
    try:
        yield times == 0
    finally:
        with _guard:
            if times == 0:
                del _held[file]
            else:
                _held[file] = me, times


def _lock(descriptor: int, file: _File, directory: PathLike) -> bool:
    """Take the lock; False where there are none."""
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise BusyError(directory, _holder(file)) from None
    except OSError as error:
        if error.errno not in _NO_LOCKS:
            raise
        return False
    return True


def holder_of(directory: PathLike) -> int | None:
    """Process that holds the directory's lock, as the system's table of locks tells it.

    Looks only: asking for the lock itself, even for a moment, would turn a run away that starts
    just then. None where nobody holds it, and where the table doesn't tell.
    """
    try:
        found = os.stat(directory)
    except OSError:
        return None
    return _holder((found.st_dev, found.st_ino))


def is_told(path: PathLike) -> bool:
    """Whether locks on the file system of a file show in the system's table of locks.

    Tried with a shared lock on the file, which must not be a directory that is worked on.
    """
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOFOLLOW)
    except OSError:
        return False
    try:
        fcntl.flock(descriptor, fcntl.LOCK_SH | fcntl.LOCK_NB)
        return _holder(_file_of(descriptor)) is not None
    except OSError:
        return False
    finally:
        os.close(descriptor)


def _file_of(descriptor: int) -> _File:
    found = os.fstat(descriptor)
    return found.st_dev, found.st_ino


def _holder(file: _File) -> int | None:
    """From lines such as "1: FLOCK  ADVISORY  WRITE 4711 00:2e:1234 0 EOF"."""
    device, number = file
    wanted = f"{os.major(device):02x}:{os.minor(device):02x}:{number}"
    try:
        lines = _TABLE.read_text().splitlines()
    except OSError:
        return None
    for line in lines:
        words = line.split()
        if len(words) > 5 and words[1] == "FLOCK" and words[5] == wanted and words[4].isdecimal():
            return int(words[4])
    return None
