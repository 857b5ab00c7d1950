"""Variants in processes of this machine. A process that is killed is replaced, its variant begun
again from where it stood."""

from __future__ import annotations

import os
import queue
import signal
import subprocess
import sys
import tempfile
import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager, suppress
from dataclasses import dataclass, field
from typing import IO

from vkctl.basics.pipes import whoever_reads

from .work import Outcome, Task
from .worker import outcome_of, told

ATTEMPTS = 10  # at a variant whose process is killed
_COMMAND = (sys.executable, "-m", "vkctl.study.worker")
_LIBRARIES_THREADS = ("OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS")


class BrokenWorkerError(Exception):
    """A process that makes variants has ended of its own, which none ever should."""

    def __init__(self, status: int, words: str) -> None:
        super().__init__(f"a process that makes variants ended with status {status}: {words}")


@dataclass
class _Local:
    """What the threads share, each of which has a process at work."""

    tasks: queue.SimpleQueue[Task | None] = field(default_factory=queue.SimpleQueue)
    outcomes: queue.SimpleQueue[Outcome | Exception] = field(default_factory=queue.SimpleQueue)
    processes: dict[int, subprocess.Popen[bytes]] = field(default_factory=dict)  # by place
    guard: threading.Lock = field(default_factory=threading.Lock)
    closing: bool = False
    said: dict[int, IO[bytes]] = field(default_factory=dict)  # what processes print, by place

    def errors(self, place: int) -> IO[bytes]:
        if place not in self.said:
            self.said[place] = tempfile.TemporaryFile()
        return self.said[place]


@contextmanager
def solved_here(tasks: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
    """Outcomes as they come, None now and then while there are none; leaving the block ends all."""
    shared = _Local()
    for task in tasks:
        shared.tasks.put(task)
    count = max(1, min(jobs, len(tasks)))
    threads = []
    for place in range(count):
        shared.tasks.put(None)
        threads.append(threading.Thread(target=_work, args=(shared, place), daemon=True))
    try:
        for thread in threads:
            thread.start()
        yield _outcomes(shared, len(tasks))
    finally:
        with shared.guard:
            shared.closing = True
            for process in shared.processes.values():
                _end(process)
        for thread in threads:
            thread.join()
        for stream in shared.said.values():
            stream.close()


def _outcomes(shared: _Local, count: int) -> Iterator[Outcome | None]:
    while count:
        try:
            outcome = shared.outcomes.get(timeout=0.2)
        except queue.Empty:
            yield None
            continue
        if isinstance(outcome, Exception):
            raise outcome
        count -= 1
        yield outcome


def _work(shared: _Local, place: int) -> None:
    """Hand tasks to a process of this thread's own until there are none."""
    try:
        while (task := shared.tasks.get()) is not None and not shared.closing:
            outcome = _solved(shared, place, task)
            if outcome is None:  # all has come to an end
                return
            shared.outcomes.put(outcome)
    except Exception as error:
        shared.outcomes.put(error)
    finally:
        with shared.guard:
            process = shared.processes.pop(place, None)
            if process is not None:
                _end(process)


def _solved(shared: _Local, place: int, task: Task) -> Outcome | None:
    """The outcome of a task; None when all comes to an end."""
    name = ""
    for _ in range(ATTEMPTS):
        process = _process(shared, place, task.threads)
        if process is None:
            return None
        assert process.stdin is not None and process.stdout is not None
        with whoever_reads():
            process.stdin.write(told(task))
            process.stdin.flush()
        line = process.stdout.readline()
        if line.endswith(b"\n"):
            return outcome_of(line)
        with shared.guard:
            _end(process)
            shared.processes.pop(place, None)
        if process.returncode >= 0:  # of its own, as it would with every task
            raise BrokenWorkerError(process.returncode, _last_words(shared, place))
        name = signal.Signals(-process.returncode).name
    text = f"its process was ended {ATTEMPTS} times, the last time by {name}; was memory short?"
    return Outcome(task.number, "failed", message=text)


def _last_words(shared: _Local, place: int) -> str:
    """The last line that the processes of a place have printed."""
    stream = shared.errors(place)
    stream.seek(max(0, stream.seek(0, os.SEEK_END) - 1000))
    lines = stream.read().decode("utf-8", "replace").split("\n")
    return next((line for line in reversed(lines) if line.strip()), "it said nothing")


def _process(shared: _Local, place: int, threads: int) -> subprocess.Popen[bytes] | None:
    """The process of a place, a new one where there is none; None when all comes to an end."""
    with shared.guard:
        if shared.closing:
            return None
        if place not in shared.processes:
            shared.processes[place] = _started(threads, shared.errors(place))
        return shared.processes[place]


def _started(threads: int, errors: IO[bytes]) -> subprocess.Popen[bytes]:
    """In a group of its own: Ctrl-C is for the study, and the group ends as a whole."""
    surroundings = dict(os.environ)
    for name in _LIBRARIES_THREADS:
        surroundings.setdefault(name, str(threads))
    return subprocess.Popen(
        _COMMAND,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=errors,
        env=surroundings,
        start_new_session=True,
    )


def _end(process: subprocess.Popen[bytes]) -> None:
    """Kill a process and the solver that it has started, which may have outlived it."""
    if process.returncode is not None:
        return
    with suppress(ProcessLookupError, PermissionError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    for stream in (process.stdin, process.stdout):
        if stream is not None:
            with whoever_reads():
                stream.close()
