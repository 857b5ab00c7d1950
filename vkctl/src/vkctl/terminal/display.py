"""What `vkctl run` and `vkctl watch` show: a live table on a terminal, plain lines elsewhere."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from typing import Any, Literal

from rich.console import Console, Group
from rich.live import Live
from rich.table import Table
from rich.text import Text

from vkctl.basics.words import clock, counted
from vkctl.directory.case_names import name_of, read_case_names, titled
from vkctl.directory.formats import MODES
from vkctl.directory.log import LoadCaseLog
from vkctl.directory.results import POOR_QUALITY
from vkctl.directory.summary import case_values
from vkctl.running.progress import Progress
from vkctl.running.run import RunResult

_ROWS = 12  # load cases shown at a time, the latest
_WIDEST_NAME = 20
# Heading, least width (so that the table doesn't twitch), side.
_COLUMNS: tuple[tuple[str, int, Literal["left", "right"]], ...] = (
    ("case", 4, "right"),
    ("pattern", 7, "right"),
    ("stage", 21, "left"),
    ("mode", 9, "left"),
    ("iterations", 12, "right"),
    ("quality", 7, "right"),
    ("factor", 8, "right"),
    ("time", 9, "right"),
)
_MODE_NAMES: dict[int, str] = {number: name for name, number in MODES.items()}


def _iterations(case: LoadCaseLog) -> str:
    if case.iterations is None:
        return ""
    return str(case.iterations) if case.iterations >= 0 else f"{-case.iterations} (limit)"


def _quality(case: LoadCaseLog) -> Text:
    quality = case.data.get("ARQua")
    if quality is None:
        return Text("")
    return Text(f"{quality:.3f}", "red" if quality < POOR_QUALITY else "green")


def _cells(case: LoadCaseLog, progress: Progress) -> list[str | Text]:
    running = case.seconds is None and case is progress.log.load_cases[-1]
    seconds = progress.case_elapsed if running else case.seconds
    estimate = case.memory_estimate_gb
    return [
        str(case.number),
        *([name_of(case.number, progress.names)] if any(progress.names) else []),
        "" if case.pattern is None else str(case.pattern),
        progress.stage if running else "done" if case.seconds is not None else "broken off",
        _MODE_NAMES.get(case.mode or 0, ""),
        _iterations(case),
        _quality(case),
        "" if estimate is None else f"{estimate:.2f} GB",
        "" if seconds is None else clock(seconds),
    ]


def table(progress: Progress) -> Group:
    """The table of a run's load cases with a line on the whole run below it."""
    grid = Table(box=None, pad_edge=False)
    for heading, width, justify in _COLUMNS:
        grid.add_column(heading, min_width=width, justify=justify)
        if heading == "case" and any(progress.names):
            grid.add_column("name", max_width=_WIDEST_NAME, no_wrap=True, overflow="ellipsis")
    for case in progress.log.load_cases[-_ROWS:]:
        grid.add_row(*_cells(case, progress))
    return Group(grid, Text(state_line(progress)))


def state_line(progress: Progress) -> str:
    """One line on the whole run: how far, how long, how big, how much longer."""
    parts = [f"{len(progress.finished)} of {len(progress.planned)} load cases"]
    if not progress.log.load_cases:
        parts.append(progress.stage)
    parts.append(clock(progress.elapsed))
    if progress.memory_gb is not None:
        parts.append(f"{progress.memory_gb:.2f} GB")
    if progress.remaining is not None and progress.open:
        parts.append(f"about {clock(progress.remaining)} left")
    if progress.replaced:
        parts.append(f"restarted {counted(progress.replaced, 'time')}")
    return ", ".join(parts)


def case_line(case: LoadCaseLog, names: Sequence[str] = ()) -> str:
    """One finished load case in a line."""
    parts = [_MODE_NAMES.get(case.mode or 0, "")]
    if case.iterations is not None:
        parts.append(f"{_iterations(case)} iteration" + ("" if case.iterations == 1 else "s"))
    if "ARQua" in case.data:
        parts.append(f"quality {case.data['ARQua']:.3f}")
    if case.seconds is not None:
        parts.append(clock(case.seconds))
    return f"{titled(case.number, names)}: " + ", ".join(part for part in parts if part)


@contextmanager
def shown(console: Console, plain_lines: bool = True) -> Iterator[Callable[[Progress], None]]:
    """A function that shows each progress: on a terminal a table that is drawn anew.

    Elsewhere a line for each finished load case, or nothing without `plain_lines`.
    """
    if not console.is_terminal:
        yield line_printer(console) if plain_lines else lambda progress: None
        return
    with Live(console=console, refresh_per_second=8, transient=False) as live:
        yield lambda progress: live.update(table(progress))


def line_printer(
    console: Console, where: Callable[[int], str] = lambda number: ""
) -> Callable[[Progress], None]:
    """Prints every load case once, when it is finished, and where if that is known."""
    printed: dict[int, int] = {0: 0}  # log replacements seen: load cases printed of that log

    def show(progress: Progress) -> None:
        already = printed.setdefault(progress.replaced, 0)
        done = [case for case in progress.log.load_cases if case.seconds is not None]
        for case in done[already:]:
            line = case_line(case, progress.names) + where(case.number)
            console.print(line, markup=False, soft_wrap=True)
        printed[progress.replaced] = len(done)

    return show


def closing_lines(result: RunResult) -> list[str]:
    """What is to be said when a run has ended: its end, then its warnings with their hints."""
    lines = []
    names = read_case_names(result.directory)
    if result.outcome == "finished":
        lines.append(_finished_line(result))
    else:
        lines += [result.advice.sentence, *filter(None, [result.advice.hint])]
        if result.open:
            lines.append(f"Not done: {_cases(result.open, names)}.")
        if result.printed and result.advice.original not in result.printed:
            lines.append(f"It printed: {result.printed}")
    return lines + warning_lines(result, names)


def warning_lines(result: RunResult, names: Sequence[str]) -> list[str]:
    """Each warning of a run with its hint, and the load cases that ended poorly."""
    lines = [f"Warning: {warning}" for warning in result.warnings]
    if result.poor:
        lines.append(f"Poor quality: {_cases(result.poor, names)}.")
    return lines


def result_as_dict(result: RunResult) -> dict[str, Any]:
    """How a run ended and what it solved, for programs."""
    names = read_case_names(result.directory)
    return {
        "outcome": result.outcome,
        "status": result.status,
        "sentence": result.advice.sentence,
        "hint": result.advice.hint,
        "planned": result.planned,
        "open": result.open,
        "poor": result.poor,
        "seconds": result.seconds,
        "peak_memory_gb": result.peak_memory_gb,
        "warnings": [
            {"sentence": warning.sentence, "hint": warning.hint} for warning in result.warnings
        ],
        "load_cases": [case_values(case, names) for case in result.log.load_cases],
    }


def _finished_line(result: RunResult) -> str:
    if not result.planned:
        return "Nothing was to be run: no load case is requested and still open."
    done = counted(len(result.planned) - len(result.open), "load case")
    return f"{done} solved in {clock(result.seconds)}{_peak(result)}."


def _peak(result: RunResult) -> str:
    return f", {result.peak_memory_gb:.2f} GB" if result.peak_memory_gb is not None else ""


def _cases(numbers: list[int], names: Sequence[str], most: int = 10) -> str:
    """Such as "2 load cases (4 pull, 7 weight)", the list cut where it gets long."""
    text = ", ".join(f"{number} {name_of(number, names)}".rstrip() for number in numbers[:most])
    if len(numbers) > most:
        text += f" and {len(numbers) - most} more"
    return f"{counted(len(numbers), 'load case')} ({text})"
