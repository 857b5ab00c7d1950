"""What `vkctl study` shows: how far it is, what failed, and how it ended."""

from __future__ import annotations

import time
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

from rich.console import Console
from rich.live import Live
from rich.text import Text

from vkctl.basics.words import clock, counted, printable
from vkctl.study import Outcome, Planned, Progress, Studied

_PLAIN_EVERY = 10.0  # seconds between two lines where there is no terminal
_FAILURES = 5  # told at the end


def failure_line(outcome: Outcome) -> str:
    return f"variant {outcome.number} {outcome.status}: {printable(outcome.message)}"


def progress_line(progress: Progress) -> str:
    """Such as "120 of 1000 variants, 3 failed, 2 at a time, 1:12 min, about 8:20 min left"."""
    parts = [f"{progress.finished} of {progress.count} variants"]
    parts += _counts(progress.statuses)
    parts += [f"{progress.jobs} at a time"] if progress.jobs else []
    parts.append(clock(progress.elapsed))
    if progress.remaining is not None and progress.finished < progress.count:
        parts.append(f"about {clock(progress.remaining)} left")
    return ", ".join(parts)


def _counts(statuses: Counter[str]) -> list[str]:
    return [f"{statuses[s]} {s}" for s in ("unsettled", "failed") if statuses[s]]


@contextmanager
def shown(console: Console) -> Iterator[Callable[[Progress], None]]:
    """A function that shows the progress: on a terminal a line that is drawn anew."""
    if not console.is_terminal:
        yield _line_printer(console)
        return
    with Live(console=console, refresh_per_second=4) as live:

        def show(progress: Progress) -> None:
            if progress.latest is not None and progress.latest.status != "done":
                live.console.print(failure_line(progress.latest), markup=False, soft_wrap=True)
            live.update(Text(progress_line(progress)))

        yield show


def _line_printer(console: Console) -> Callable[[Progress], None]:
    """Prints each failure, and now and then how far it is."""
    printed = time.monotonic()

    def show(progress: Progress) -> None:
        nonlocal printed
        if progress.latest is not None and progress.latest.status != "done":
            console.print(failure_line(progress.latest), markup=False, soft_wrap=True)
        now = time.monotonic()
        ended = progress.latest is not None and progress.finished == progress.count
        if now - printed >= _PLAIN_EVERY or ended:
            console.print(progress_line(progress), soft_wrap=True)
            printed = now

    return show


def closing_lines(studied: Studied) -> list[str]:
    """How a study ended: what is done, what isn't and why."""
    statuses = Counter(str(row["status"]) for row in studied.rows)
    lines = [
        ", ".join([f"{statuses['done']} of {len(studied.rows)} variants done", *_counts(statuses)])
    ]
    bad = [row for row in studied.rows if row["status"] != "done"]
    for row in bad[:_FAILURES]:
        lines.append(
            f"  variant {row['variant']} {row['status']}: {printable(str(row['message']))}"
        )
    if len(bad) > _FAILURES:
        lines.append(f"  and {len(bad) - _FAILURES} more, in results.csv")
    return lines


def studied_as_dict(studied: Studied) -> dict[str, Any]:
    """For programs."""
    return {
        "directory": str(studied.out),
        "status": studied.status,
        "parameters": list(studied.plan.variants[0]),
        "results": studied.plan.columns,
        "variants": studied.rows,
    }


def planned_lines(planned: Planned) -> list[str]:
    """What a study would do."""
    count, begun = planned.count, planned.begun
    lines = []
    for parameter in planned.study.parameters:
        keys = ", ".join(parameter.keys)
        lines.append(f"{parameter.name}: {keys}, {parameter.base!r} in the case file")
    left = count - planned.finished
    lines.append(
        f"{counted(count, 'variant')}"
        + (f", {planned.finished} of them done" if planned.finished else "")
    )
    lines.append(
        f"each {begun.nodes} nodes, {begun.elements} elements, "
        f"{counted(len(planned.study.load_cases), 'load case')}, {size(begun.size_gb)} on the disk"
    )
    keep = planned.study.keep
    most = {"all": count, "none": 0, "failed": 0, "best": min(keep.count, count)}[keep.which]
    shares = planned.shares
    at_once = f"{shares.jobs} at a time, {counted(shares.threads, 'thread')} each"
    if shares.limited:
        at_once += ", as many as memory allows"
    lines.append(at_once)
    on_the_way = size(begun.size_gb * shares.jobs)
    lines.append(
        f"disk at the end: about {size(begun.size_gb * most)}, and {on_the_way} on the way"
    )
    if begun.memory_gb is not None:
        lines.append(f"memory: about {begun.memory_gb * shares.jobs:.2f} GB")
    if planned.seconds is not None and left:
        lines.append(f"time: about {clock(planned.seconds)}, which may be off by a factor of two")
    return lines


def size(gigabytes: float) -> str:
    megabytes = gigabytes * 1024
    return f"{gigabytes:.2f} GB" if gigabytes >= 1 else f"{megabytes:.1f} MB"
