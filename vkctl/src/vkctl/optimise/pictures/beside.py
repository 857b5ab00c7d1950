"""The process that draws a loop's pictures beside it, in time that the solver doesn't want.

It needs nothing but the files that the loop leaves, ends with the loop, and never ends it: a
picture that can't be drawn is told in a sentence.
"""

from __future__ import annotations

import os
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from functools import partial
from pathlib import Path
from typing import IO

from vkctl.basics.confine import end_with
from vkctl.basics.pipes import whoever_reads
from vkctl.basics.types import PathLike
from vkctl.basics.words import printable

from ..history import HistoryRow

_SHARE = 0.03  # of a loop's time that frames may take at its end
_LEAST = 1.0  # seconds that they may take in any case
_PATIENCE = 10.0  # seconds more that a process without priority has for chart and animation
_LONGEST = 600.0  # seconds for a process that has its share of the machine, however busy it is
# Threads would take processors from the solver: of VTK's drawing, its filters, and NumPy's library.
_ONE_THREAD = {
    "LP_NUM_THREADS": "0",
    "VTK_SMP_BACKEND_IN_USE": "Sequential",
    "OPENBLAS_NUM_THREADS": "1",
    "OMP_NUM_THREADS": "1",
}


@dataclass
class Painter:
    """Pictures of a directory's loop."""

    directory: Path
    said: IO[bytes]  # what the processes print
    process: subprocess.Popen[str] | None = None

    def finished(self, step: int, planned: int) -> None:
        """Have a finished step, of so many planned ones, drawn when there is time."""
        if self.process is None:
            self.process = _started(self, planned)
        _tell(self.process, f"{step}\n")

    def finish(self, rows: list[HistoryRow]) -> str | None:
        """Draw what there is time for, and join the pictures; why not, where that fails."""
        seconds = budget(sum(row.seconds for row in rows))
        steps = rows[-1].step
        if self.process is not None and _ends_well(
            self.process, steps, seconds, seconds + _PATIENCE
        ):
            return None
        self.close()
        self.process = _started(self, 0)
        if _ends_well(self.process, steps, seconds, _LONGEST):
            return None
        return f"the pictures can't be drawn: {_last_words(self.said)}"

    def close(self) -> None:
        if self.process is not None:
            self.process.kill()
            with whoever_reads():
                self.process.communicate()


@contextmanager
def painter(directory: PathLike) -> Iterator[Painter]:
    """Leaving the block ends the process, if there is one."""
    with tempfile.TemporaryFile() as said:
        made = Painter(Path(directory).absolute(), said)
        try:
            yield made
        finally:
            made.close()


def budget(seconds: float) -> float:
    """Seconds that frames may take at the end of a loop that took `seconds`."""
    return max(_LEAST, _SHARE * seconds)


def _started(of: Painter, planned: int) -> subprocess.Popen[str]:
    return subprocess.Popen(
        [sys.executable, "-m", f"{__package__}.painter", str(of.directory), str(planned)],
        stdin=subprocess.PIPE,
        stdout=of.said,
        stderr=subprocess.STDOUT,
        text=True,
        env={**os.environ, **_ONE_THREAD},
        preexec_fn=partial(end_with, os.getpid()),
    )


def _tell(process: subprocess.Popen[str], line: str) -> None:
    assert process.stdin is not None
    with whoever_reads():  # its end tells where there is none
        process.stdin.write(line)
        process.stdin.flush()


def _ends_well(process: subprocess.Popen[str], steps: int, seconds: float, longest: float) -> bool:
    _tell(process, f"end {steps} {seconds:g}\n")
    try:
        return process.wait(longest) == 0
    except subprocess.TimeoutExpired:
        return False


def _last_words(said: IO[bytes]) -> str:
    """The last line that the processes have printed."""
    said.seek(0)
    lines = said.read().decode("utf-8", "replace").strip().splitlines()
    return printable(lines[-1]) if lines else "the process that draws them was ended"
