"""What runs in the process that draws: `python -m ... DIRECTORY STEPS`, told by lines what to do.

A number is a step that is finished, to be drawn when there is nothing better to do for the machine.
`end STEPS SECONDS` asks for chart, series and animation of a loop that has ended, with frames drawn
for as many seconds more. Without that line the process ends with its input.
"""

from __future__ import annotations

import os
import queue
import signal
import sys
import threading
from contextlib import suppress
from pathlib import Path

from vkctl.basics.extras import need

from . import frames


def main() -> None:
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # Ctrl-C is the loop's: its end is this one's too
    directory, planned = Path(sys.argv[1]), int(sys.argv[2])
    told: queue.SimpleQueue[str] = queue.SimpleQueue()
    if planned:
        threading.Thread(target=_listen, args=(told,), daemon=True).start()
    else:
        told.put(sys.stdin.readline())
    need("matplotlib").use("Agg")
    need("matplotlib.pyplot")  # for the chart, loaded while there is time
    with frames.studio(directory) as at:
        ended = _meanwhile(at, told, planned)
        if ended is None:
            return
        steps, seconds = ended
        frames.write_chart(directory)
        try:
            frames.draw_missing(at, steps, seconds)
        finally:
            frames.join(directory, steps)


def _listen(told: queue.SimpleQueue[str]) -> None:
    """Hand lines on. The thread that draws steps back until the loop's end; this one doesn't."""
    drawing = threading.main_thread().native_id or 0
    usual = os.sched_getscheduler(drawing), os.sched_getparam(drawing)
    step_back(drawing)
    for line in sys.stdin:
        told.put(line)
        if line.startswith("end"):
            with suppress(PermissionError):  # who isn't root stays behind
                os.sched_setscheduler(drawing, *usual)
            return
    os._exit(0)  # the loop has ended without a word


def _meanwhile(
    at: frames.Studio, told: queue.SimpleQueue[str], planned: int
) -> tuple[int, float] | None:
    """Draw what is finished until the loop ends; what its end says."""
    finished = 0
    while True:
        rest = wanted(at.directory, planned, finished)
        try:
            line = told.get(block=not rest)
        except queue.Empty:
            frames.draw_step(at, rest[0])
            continue
        words = line.split()
        if not words:
            return None
        if words[0] == "end":
            return int(words[1]), float(words[2])
        finished = int(words[0])


def wanted(directory: Path, planned: int, finished: int) -> list[int]:
    """Finished steps that a loop of so many planned ones shows, and that aren't drawn yet."""
    order = frames.coarse_to_fine(frames.shown_steps(planned)) if planned else []
    return [k for k in order if k <= finished and not frames.is_drawn(directory, k)]


def step_back(thread: int) -> None:
    """Take only what time of the processors nobody else wants, and be the first to run out of
    memory."""
    os.sched_setscheduler(thread, os.SCHED_IDLE, os.sched_param(0))
    with suppress(OSError):
        Path("/proc/self/oom_score_adj").write_text("1000")


if __name__ == "__main__":
    main()
