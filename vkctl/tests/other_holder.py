"""Another process that holds the lock of a directory."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

_PROGRAM = """
import fcntl, os, sys
fcntl.flock(os.open(sys.argv[1], os.O_RDONLY), fcntl.LOCK_EX)
print("held", flush=True)
sys.stdin.read()
"""


@contextmanager
def other_holder(directory: Path) -> Iterator[int]:
    """A process that holds the lock inside of the block; its number."""
    command = [sys.executable, "-c", _PROGRAM, str(directory)]
    pipe = subprocess.PIPE
    with subprocess.Popen(command, stdin=pipe, stdout=pipe) as process:
        assert process.stdin and process.stdout
        try:
            assert process.stdout.readline() == b"held\n"
            yield process.pid
        finally:
            process.stdin.close()
