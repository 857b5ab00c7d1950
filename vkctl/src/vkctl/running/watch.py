"""Follow a run that something else started, from its log alone."""

from __future__ import annotations

import time
from collections.abc import Callable
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import lock
from vkctl.directory.case_names import titled
from vkctl.directory.formats import LOG_FILE

from . import processes
from .advice import RESTART, STOPPED_STATUS, Advice
from .progress import Progress, Tracker
from .run import RunResult, summarise

_POLL = 0.2  # seconds between two looks
_GRACE = 1.0  # seconds without a writer and without a new line until a run counts as killed

KILLED_STATUS = 1


class _Liveness:
    """Tells whether an unfinished log still has a run behind it.

    Killed means: for a while no line was added and no process held the directory's lock, or, where
    the system doesn't tell of locks, had the log open for writing. There, without a process table,
    or while a solver of another user runs whose files can't be seen, nothing is concluded unless
    `patience` is given: then so many seconds without a line count as the end, whatever this
    machine says (a run on another one it doesn't know). The lock is looked at, never taken.
    """

    def __init__(self, directory: Path, patience: float | None) -> None:
        self.directory = directory
        self.patience = patience
        self.pid: int | None = None
        self.last_sign = time.monotonic()

    def memory(self) -> tuple[float, float] | None:
        return processes.memory_gb(self.pid) if self.pid is not None else None

    def look(self, grown: bool) -> bool:
        """Whether the run may still be alive; `grown` says that the log has new lines."""
        now = time.monotonic()
        if grown:
            self.last_sign = now
        told = lock.is_told(Path(self.directory, LOG_FILE))
        self.pid = self._worker(told)
        if self.patience is not None:
            return now - self.last_sign < self.patience
        if self.pid is not None or not (told or processes.is_known()):
            self.last_sign = now
        if now - self.last_sign < _GRACE:
            return True
        return not told and bool(processes.hidden_solvers())

    def _worker(self, told: bool) -> int | None:
        """Process that works on the directory; `told` says whether locks tell who doesn't."""
        if (holder := lock.holder_of(self.directory)) is not None:
            return holder
        if told:
            return None
        if self.pid is not None and processes.memory_gb(self.pid) is not None:
            return self.pid  # to look through all processes again would take long
        return processes.writer_of(self.directory)


def watch(
    directory: PathLike,
    *,
    on_progress: Callable[[Progress], None] | None = None,
    poll: float = _POLL,
    patience: float | None = None,
    wait: float = 0.0,
) -> RunResult:
    """Follow the run in `directory` until it ends, also when another run takes its log over.

    A log that ends with the end line or an error line is a run's end. One that just stays as it
    is belongs to a killed run once no process writes it any more; see `patience` for runs on
    another machine. `on_progress` is called every `poll` seconds. `wait` is how many seconds a
    log may take to appear; FileNotFoundError if there is none by then.
    """
    target = Path(directory)
    _await_log(target, wait, poll)
    tracker, liveness = Tracker(target), _Liveness(target, patience)
    seen = 0
    while True:
        progress = tracker.update(liveness.memory())
        if on_progress is not None:
            on_progress(progress)
        if progress.log.ended:
            return summarise(progress, "finished", 0)
        if progress.log.error is not None:
            return summarise(progress, "stopped", STOPPED_STATUS)
        lines, seen = seen, len(tracker.reader.records)
        if not liveness.look(grown=lines != seen):
            return _killed(tracker.update())
        time.sleep(poll)


def _await_log(directory: Path, wait: float, poll: float) -> None:
    deadline = time.monotonic() + wait
    while not Path(directory, LOG_FILE).exists():
        if time.monotonic() >= deadline:
            raise FileNotFoundError(f"There is no log in {directory}: no run has been started.")
        time.sleep(poll)


def _killed(progress: Progress) -> RunResult:
    """Result of a run without an end line; it may have ended in the last moment."""
    if progress.log.ended:
        return summarise(progress, "finished", 0)
    if progress.log.error is not None:
        return summarise(progress, "stopped", STOPPED_STATUS)
    result = summarise(progress, "killed")
    begun = progress.log.load_cases
    where = f" in {titled(begun[-1].number, progress.names)}" if begun else ""
    result.advice = Advice(
        f"The run broke off{where}: its log has no end, and no process writes it any more.",
        "It was killed or crashed. " + RESTART,
    )
    return result
