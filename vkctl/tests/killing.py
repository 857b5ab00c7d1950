"""Ending a process in the middle of what it does."""

from __future__ import annotations

import multiprocessing
import os
import signal
from collections.abc import Callable
from typing import Any


def in_child(action: Callable[..., object], *arguments: object) -> int:
    """Exit code of a forked process that does `action`; minus the signal that killed it."""
    child = multiprocessing.get_context("fork").Process(target=action, args=arguments)
    child.start()
    child.join()
    assert child.exitcode is not None
    return child.exitcode


class _Deadly:
    """Stands for a function; instead of its n-th call, counted over all of them, the end comes."""

    calls = 0

    def __init__(self, function: Callable[..., Any], deadly: int) -> None:
        self.function, self.deadly = function, deadly

    def __call__(self, *args, **kwargs):
        _Deadly.calls += 1
        if _Deadly.calls == self.deadly:
            os.kill(os.getpid(), signal.SIGKILL)
        return self.function(*args, **kwargs)


def killed_before(action: Callable[[], object], number: int) -> None:
    """Do `action`, killed before its file operation `number`; for a child of its own."""
    _Deadly.calls = 0
    os.replace = _Deadly(os.replace, number)
    os.unlink = _Deadly(os.unlink, number)
    action()
