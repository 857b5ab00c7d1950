"""Writing to other processes, which may have ended."""

from __future__ import annotations

import signal
from collections.abc import Iterator
from contextlib import contextmanager, suppress


@contextmanager
def whoever_reads() -> Iterator[None]:
    """Write to a pipe inside of the block: it ends quietly where nobody reads any more.

    Python has this process ignore the signal that comes then; Gmsh's library takes that back in a
    process that has called it, and the signal would end it.
    """
    before = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGPIPE})
    try:
        with suppress(BrokenPipeError):
            yield
    finally:
        if signal.SIGPIPE not in before:
            signal.sigtimedwait({signal.SIGPIPE}, 0)
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
