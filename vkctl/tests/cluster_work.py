"""What tests have workers do, and schedulers and workers of their own, as a user starts them."""

from __future__ import annotations

import os
import re
import secrets
import signal
import subprocess
import sys
import time
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from vkctl.spread.work import ElsewhereError, Here, LackingError

DASK = [str(Path(sys.executable).parent / "dask")]
_FEW_DEATHS = {"DASK_DISTRIBUTED__SCHEDULER__ALLOWED_FAILURES": "1"}
_LONGEST = 300.0  # seconds for whatever comes in a moment, on a busy machine too


def square(task: Any, here: Here) -> Any:
    """The square of a number; what else a task may say makes trouble.

    Whoever is to die does so once somebody has left a file: that what it told has been heard.
    """
    number, trouble, mark = task
    here.tell(number=number)
    if trouble == "wrong":
        raise ValueError("no square for this")
    if trouble == "slow":
        wait_unwanted(here, Path(mark))
    first = not Path(mark).exists() if mark else False
    if mark:
        Path(mark).touch()
    if trouble == "die" or (trouble == "die once" and first):
        heard = Path(mark).with_suffix(".heard")
        awaited(heard.exists)
        heard.unlink()
        os.kill(os.getpid(), signal.SIGKILL)
    if trouble == "elsewhere" or (trouble == "elsewhere once" and first):
        raise ElsewhereError(f"{here.worker} is no good")
    if trouble == "lacking" and first:
        raise LackingError(("a file",))
    return number * number, here.worker, here.cores, here.memory_gb


def wait_unwanted(here: Here, mark: Path) -> None:
    """Go on until nobody waits any more, and leave a mark then."""
    mark.with_suffix(".begun").touch()
    while here.is_wanted():
        time.sleep(0.05)
    mark.touch()


@dataclass
class Processes:
    """A scheduler and workers that were started by hand."""

    address: str
    folder: Path
    options: list[str]  # of each worker
    scheduler: subprocess.Popen[bytes]
    workers: list[subprocess.Popen[bytes]] = field(default_factory=list)

    def add_worker(self, *options: str, **environment: str) -> subprocess.Popen[bytes]:
        name = f"w{len(self.workers)}-{secrets.token_hex(2)}"
        local = self.folder / name
        local.mkdir()
        known = ["--name", name] if "--name" not in options else []
        started = _started(
            [*DASK, "worker", self.address, *self.options, *known, *options]
            + ["--local-directory", str(local), "--host", "127.0.0.1"]
            + ["--dashboard-address", "127.0.0.1:0"],
            local / "log",
            environment,
        )
        self.workers.append(started)
        return started


def _started(
    words: Sequence[str], log: Path, environment: dict[str, str]
) -> subprocess.Popen[bytes]:
    known = {**os.environ, "PYTHONPATH": str(Path(__file__).parent), **environment}
    with open(log, "wb") as stream:
        return subprocess.Popen(words, stdout=stream, stderr=stream, env=known)


@contextmanager
def scheduler(
    folder: Path, *options: str, worker_options: Sequence[str] = (), protocol: str = "tcp"
) -> Iterator[Processes]:
    """A scheduler on the loopback, without workers; what is left of either is killed at the end.

    It gives a task up after two deaths, so that deadly units don't take long.
    """
    folder.mkdir(parents=True, exist_ok=True)
    log = folder / "scheduler.log"
    words = ["scheduler", "--host", "127.0.0.1", "--port", "0", "--dashboard-address"]
    started = _started(
        [*DASK, *words, "127.0.0.1:0", "--protocol", protocol, *options], log, _FEW_DEATHS
    )
    processes = Processes("", folder, list(worker_options), started)
    try:
        found = awaited(lambda: re.search(rf"{protocol}://127.0.0.1:\d+", log.read_text()))
        processes.address = found.group()
        yield processes
    finally:
        for process in [*processes.workers, started]:
            process.kill()
            process.wait()


def awaited(look: Any, longest: float = _LONGEST) -> Any:
    """What `look` gives, once it gives anything."""
    deadline = time.monotonic() + longest
    while not (found := look()):
        assert time.monotonic() < deadline, "it never came"
        time.sleep(0.05)
    return found
