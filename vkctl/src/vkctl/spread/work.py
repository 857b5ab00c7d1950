"""What is handed to workers, what comes back, and what a function is told where it runs."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Literal

STARTS = 10  # of a unit at most: workers may die under it, or turn it away


@dataclass(frozen=True)
class Unit:
    """A piece of work that one worker does at a time."""

    key: str  # tells it apart from the others, and to the user
    task: Any  # argument of the function, to be pickled: small, large files go another way
    memory_gb: float = 0.0  # that a worker must have for it


@dataclass
class Here:
    """The worker that a function runs on."""

    worker: str  # its name
    cores: int
    memory_gb: float
    scratch: Path  # folder of this worker alone, removed at its end
    tell: Callable[..., None]  # tell(**values): a few words or numbers for the one who waits
    is_wanted: Callable[[], bool]  # False once nobody waits any more: the function should end


class ElsewhereError(Exception):
    """Raised by a function where this worker is to blame: another one is to try.

    `memory_gb` is what a worker should have for it, where memory was the reason; `detail` comes
    back as the value where no worker is left to try.
    """

    def __init__(self, reason: str, memory_gb: float = 0.0, detail: Any = None) -> None:
        super().__init__(reason, memory_gb, detail)
        self.reason, self.memory_gb, self.detail = reason, memory_gb, detail


class LackingError(Exception):
    """Raised by a function where the worker needs something first; `names` says what.

    The unit is sent again, to whichever worker, once `supply` of `over` has seen to it.
    """

    def __init__(self, names: tuple[str, ...] = ()) -> None:
        super().__init__(names)
        self.names = names


Function = Callable[[Any, Here], Any]


@dataclass(frozen=True)
class Event:
    """Something that happened to a unit on the way."""

    kind: Literal["begun", "told", "repeated", "waiting"]
    unit: str
    worker: str = ""
    values: dict[str, Any] = field(default_factory=dict)  # of "told"
    text: str = ""  # why it is repeated, what is waited for


@dataclass(frozen=True)
class Done:
    """A unit at its end: with what the function returned, or why there is nothing."""

    unit: Unit
    value: Any = None  # what the function returned, or the detail of its last ElsewhereError
    failure: str = ""  # a sentence; empty where all is well
    worker: str = ""  # the last one that had it
    starts: int = 0

    @property
    def ok(self) -> bool:
        return not self.failure


@dataclass(frozen=True)
class Call:
    """What travels to a worker."""

    version: str  # of vkctl where it comes from
    topic: str  # where events go
    unit: str
    function: Function
    task: Any


@dataclass(frozen=True)
class Reply:
    """What comes back from one."""

    kind: Literal["done", "elsewhere", "lacking"]
    worker: str  # name
    address: str
    value: Any = None
