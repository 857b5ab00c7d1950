"""Signals that ask a process to end, while something goes on that must end first."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import FrameType

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


@contextmanager
def noted(act: Callable[[int], object] = lambda number: None) -> Iterator[list[int]]:
    """Note what comes inside of the block, and do something at each; only in the main thread.

    What the starter had this process ignore stays ignored, for processes that it starts too.
    """
    came: list[int] = []

    def come(number: int, _: FrameType | None) -> None:
        came.append(number)
        act(number)

    if threading.current_thread() is not threading.main_thread():
        yield came
        return
    mine = [number for number in ENDING if signal.getsignal(number) is not signal.SIG_IGN]
    old = {number: signal.signal(number, come) for number in mine}
    try:
        yield came
    finally:
        for number, handler in old.items():
            signal.signal(number, handler)
