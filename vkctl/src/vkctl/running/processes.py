"""Who works on a directory: by its lock, and where there are none by the system's process table.

The table is that of Linux; elsewhere nothing is known.
"""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import lock
from vkctl.directory.formats import LOG_FILE
from vkctl.directory.lock import BusyError

_TABLE = Path("/proc")
_WRITE_MODES = os.O_WRONLY | os.O_RDWR
PROGRAM = "vk_rund"


def memory_gb(pid: int) -> tuple[float, float] | None:
    """Resident memory of a process, GB: now and at its highest; None once it is gone."""
    try:
        lines = Path(_TABLE, str(pid), "status").read_text().splitlines()
    except OSError:
        return None
    sizes = dict(line.split(":", 1) for line in lines if line.startswith(("VmRSS", "VmHWM")))
    if len(sizes) != 2:  # a zombie holds no memory
        return None
    now, highest = (int(sizes[key].split()[0]) / 1024**2 for key in ("VmRSS", "VmHWM"))
    return now, highest


def is_known() -> bool:
    """Whether there is a process table to ask."""
    return Path(_TABLE, "self", "fd").is_dir()


@contextmanager
def alone_on(directory: PathLike) -> Iterator[None]:
    """Nobody else works on the directory inside of the block; BusyError where somebody does."""
    with lock.holding(directory) as locked:
        if not locked and (other := writer_of(directory)) is not None:
            raise BusyError(directory, other)
        yield


def worker_on(directory: PathLike) -> int | None:
    """Process that works on the directory, if one can be seen; looks only, and takes no lock."""
    if (holder := lock.holder_of(directory)) is not None:
        return holder
    # Where locks are told there is no such process: who else has the log open isn't a run.
    return None if lock.is_told(Path(directory, LOG_FILE)) else writer_of(directory)


def writer_of(directory: PathLike) -> int | None:
    """Process that has the log of `directory` open for writing, if one can be seen."""
    try:
        wanted = os.stat(Path(directory, LOG_FILE))
    except OSError:
        return None
    for pid in _pids():
        if _writes(pid, (wanted.st_dev, wanted.st_ino)):
            return pid
    return None


def hidden_solvers() -> list[int]:
    """Solver processes whose open files can't be seen: those of other users."""
    return [pid for pid in _pids() if _name(pid) == PROGRAM and not _can_look(pid)]


def _pids() -> list[int]:
    try:
        return [int(entry) for entry in os.listdir(_TABLE) if entry.isdecimal()]
    except OSError:
        return []


def _name(pid: int) -> str:
    try:
        return Path(_TABLE, str(pid), "comm").read_text().strip()
    except OSError:
        return ""


def _can_look(pid: int) -> bool:
    try:
        os.listdir(Path(_TABLE, str(pid), "fd"))
    except FileNotFoundError:
        return True  # gone, so there is nothing that can't be seen
    except OSError:
        return False
    return True


def _writes(pid: int, inode: tuple[int, int]) -> bool:
    folder = Path(_TABLE, str(pid), "fd")
    try:
        for name in os.listdir(folder):
            found = os.stat(folder / name)
            if (found.st_dev, found.st_ino) == inode and _is_open_for_writing(pid, name):
                return True
    except OSError:
        return False
    return False


def _is_open_for_writing(pid: int, descriptor: str) -> bool:
    """Tells a run from an editor or a `tail` that only reads the log."""
    for line in Path(_TABLE, str(pid), "fdinfo", descriptor).read_text().splitlines():
        if line.startswith("flags:"):
            return bool(int(line.split()[1], 8) & _WRITE_MODES)
    return False
