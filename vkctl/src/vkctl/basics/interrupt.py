"""What Ctrl-C does while the program `vkctl` has nothing to be undone."""

from __future__ import annotations

import os
import signal
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from types import FrameType


def quit_at_once(number: int, frame: FrameType | None) -> None:
    """Handler of SIGINT: no more than a line."""
    os.write(2, b"Interrupted.\n")
    os._exit(130)


@contextmanager
def undoing() -> Iterator[None]:
    """Inside of the block an interrupt is an exception, so that what was begun can be undone."""
    here = threading.current_thread() is threading.main_thread()
    if not here or signal.getsignal(signal.SIGINT) is not quit_at_once:
        yield
        return
    signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, quit_at_once)
