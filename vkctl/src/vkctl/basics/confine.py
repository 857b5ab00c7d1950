"""What a process gives up before it reads what strangers have sent.

Limits of memory and processor time hold on every system; on Linux from 5.13 on the kernel also
keeps the process from writing any file, starting any program and calling any other machine or
process (Landlock), and ends it with its parent. A process can't take any of this back.
"""

from __future__ import annotations

import ctypes
import os
import resource
import signal
import sys
import threading

_LOADED = 2 << 30  # bytes of address space for programs, libraries and stacks of threads

# Numbers of Linux, the same on all machines: linux/prctl.h, linux/landlock.h.
_SET_DEATH_SIGNAL, _SET_NO_NEW_PRIVILEGES = 1, 38
_CREATE_RULESET, _RESTRICT_SELF = 444, 446
_VERSION_WANTED = 1
# By version of the interface, rights over files: executing, writing, removing, making of every
# kind; linking and renaming from 2 on, truncating from 3 on. Reading stays free.
_EXECUTE, _WRITE = 1 << 0, 1 << 1
_REMOVE_AND_MAKE = sum(1 << bit for bit in range(4, 13))
_RIGHTS = {1: _EXECUTE | _WRITE | _REMOVE_AND_MAKE, 2: 1 << 13, 3: 1 << 14}
_NETWORK_SINCE, _NETWORK = 4, 0b11  # listening and connecting by TCP
_SCOPE_SINCE, _SCOPE = 6, 0b11  # abstract sockets and signals of other processes


def end_with(parent: int) -> None:
    """End at once when the process `parent`, which started this one, has ended."""
    if sys.platform == "linux":
        ctypes.CDLL(None).prctl(_SET_DEATH_SIGNAL, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(1)


def end_at_hang_up(descriptor: int) -> None:
    """End at once when the other side closes a pipe: for systems without `end_with`."""

    def wait() -> None:
        while os.read(descriptor, 4096):
            pass
        os._exit(1)

    threading.Thread(target=wait, daemon=True).start()


def limit_memory(size: int) -> None:
    """Refuse memory beyond `size` bytes."""
    for kind, most in ((resource.RLIMIT_DATA, size), (resource.RLIMIT_AS, size + _LOADED)):
        _lower(kind, most)
    _lower(resource.RLIMIT_CORE, 0)


def _lower(kind: int, most: int) -> None:
    soft, hard = resource.getrlimit(kind)
    limits = [most, *(limit for limit in (soft, hard) if limit != resource.RLIM_INFINITY)]
    resource.setrlimit(kind, (min(limits), min(limits)))


def forbid_writing() -> bool:
    """Write no file and start no program from here on; whether the kernel sees to it.

    Where it can't, files can still be made, but stay empty.
    """
    _lower(resource.RLIMIT_FSIZE, 0)
    if sys.platform != "linux":
        return False
    libc = ctypes.CDLL(None, use_errno=True)
    version = libc.syscall(_CREATE_RULESET, None, ctypes.c_size_t(0), _VERSION_WANTED)
    if version < 1:
        return False
    rights = sum(bits for since, bits in _RIGHTS.items() if since <= version)
    fields = [rights]
    if version >= _NETWORK_SINCE:
        fields.append(_NETWORK)
    if version >= _SCOPE_SINCE:
        fields.append(_SCOPE)
    handled = (ctypes.c_uint64 * len(fields))(*fields)
    rules = libc.syscall(
        _CREATE_RULESET, ctypes.byref(handled), ctypes.c_size_t(ctypes.sizeof(handled)), 0
    )
    if rules < 0:
        return False
    try:
        libc.prctl(_SET_NO_NEW_PRIVILEGES, 1, 0, 0, 0)
        return int(libc.syscall(_RESTRICT_SELF, rules, 0)) == 0
    finally:
        os.close(rules)
