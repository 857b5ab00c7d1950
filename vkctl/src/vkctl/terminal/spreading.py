"""What `vkctl run --on` shows: a live table of what runs where, plain lines off a terminal."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Literal

from rich.console import Console, Group
from rich.live import Live
from rich.table import Table
from rich.text import Text

from vkctl.basics.words import clock, counted, printable
from vkctl.spread.gathering import SpreadProgress

from .display import line_printer, state_line

_ROWS = 20  # workers shown at a time
_COLUMNS: tuple[tuple[str, int, Literal["left", "right"]], ...] = (
    ("worker", 16, "left"),
    ("pattern", 7, "right"),
    ("case", 4, "right"),
    ("stage", 21, "left"),
    ("memory", 8, "right"),
    ("time", 9, "right"),
)

Show = Callable[[SpreadProgress], None]
Say = Callable[[str], None]


def spread_table(progress: SpreadProgress) -> Group:
    """What each worker is at, with a line on the whole run below."""
    grid = Table(box=None, pad_edge=False)
    for heading, width, justify in _COLUMNS:
        grid.add_column(heading, min_width=width, justify=justify)
    now = time.monotonic()
    for doing in progress.doing[:_ROWS]:
        grid.add_row(
            Text(printable(doing.worker)),
            str(doing.pattern),
            str(doing.load_case or ""),
            doing.stage,
            f"{doing.memory_gb:.2f} GB" if doing.memory_gb else "",
            clock(now - doing.since),
        )
    more = len(progress.doing) - _ROWS
    last = f", {counted(more, 'worker')} more busy" if more > 0 else ""
    there = f"{state_line(progress.run)} on {counted(progress.workers, 'worker')}{last}"
    return Group(grid, Text(there))


@contextmanager
def spread_shown(console: Console, plain_lines: bool = True) -> Iterator[tuple[Show, Say]]:
    """Functions that show each progress, and each sentence about a pattern.

    Off a terminal the first prints a line for each finished load case, or nothing without
    `plain_lines`.
    """

    def say(line: str) -> None:
        console.print(printable(line), markup=False, soft_wrap=True)

    if not console.is_terminal:
        workers: dict[int, str] = {}

        def where(number: int) -> str:
            return f", on {printable(workers[number])}" if number in workers else ""

        printer = line_printer(console, where)

        def show(progress: SpreadProgress) -> None:
            workers.update(progress.solved_by)
            printer(progress.run)

        yield show if plain_lines else lambda progress: None, say
        return
    with Live(console=console, refresh_per_second=8, transient=False) as live:
        yield lambda progress: live.update(spread_table(progress)), say
