"""A page that follows a directory: its runs, its optimisation, and the part as it changes."""

from __future__ import annotations

import os
import time
from collections.abc import Callable
from pathlib import Path

from vkctl.basics.extras import need
from vkctl.basics.failures import sentence
from vkctl.basics.types import PathLike
from vkctl.directory import formats, lock
from vkctl.directory.case_names import read_case_names
from vkctl.directory.model import read
from vkctl.directory.results import solved
from vkctl.optimise.history import folder_of
from vkctl.running.progress import Progress, Tracker

from .about_run import about_log
from .charts import course
from .gather import chosen_cases, facts_of_cases, history_of
from .markup import items, paragraph
from .page import Page, asset, filled, put_together
from .scene import Scene, make_scene
from .server import Board

FIELDS = ("magnitude", "von_mises")
TRIANGLES = 200_000  # drawn anew with each result, beside a run that wants the processors
_POLL = 0.5  # seconds

Words = Callable[[Progress], str]


def live_page(directory: PathLike) -> str:
    """The page's text, still without a part; MissingPartError without what draws."""
    need("pyvista")
    name = Path(directory).resolve().name
    view = filled(asset("controls.html"), notices="", pictures="")
    page = Page(
        title=name,
        head=paragraph("Follows what goes on in this directory.", "quiet"),
        body=filled(asset("live.html"), view=view),
        foot="",
        connects=True,
        scripts=("live.js",),
    )
    return put_together(page)


def follow(
    directory: PathLike,
    board: Board,
    describe: Words,
    on_progress: Callable[[Progress], None] | None = None,
    goes_on: Callable[[], bool] = lambda: True,
    poll: float = _POLL,
) -> None:
    """Tell the board of every run in `directory` until `goes_on` says no.

    `describe` makes a line of a run's progress. The part is drawn anew when results have changed
    and have then stayed as they are from one look to the next.
    """
    target = Path(directory)
    tracker = Tracker(target)
    before: tuple[int, int] | None = None
    drawn: tuple[int, int] | None = None
    while goes_on():
        progress = tracker.update()
        if on_progress is not None:
            on_progress(progress)
        board.tell(now=_now(target, progress, describe), course=_course(target))
        stamp = _stamp(target)
        if stamp != drawn and stamp == before:
            _draw(target, board)
            drawn = stamp
        before = stamp
        time.sleep(poll)


def _stamp(directory: Path) -> tuple[int, int]:
    """Changes when results are written: how many files, and the time of the latest."""
    times = []
    with os.scandir(directory) as entries:
        for entry in entries:
            if entry.name.startswith("ws."):
                try:
                    times.append(entry.stat().st_mtime_ns)
                except FileNotFoundError:
                    continue  # it has just been replaced or taken away
    return len(times), max(times, default=0)


def _draw(directory: Path, board: Board) -> None:
    """Put the part as it is on the board, or why that can't be."""
    missing: list[str] = []
    try:
        scene = _scene(directory, missing)
        board.show(scene.values)
    except (formats.FormatError, OSError, ValueError) as error:
        words = sentence(error) if isinstance(error, OSError) else str(error)
        missing.append(f"The part can't be drawn now: {words}")
    board.tell(missing=items(missing))


def _scene(directory: Path, missing: list[str]) -> Scene:
    model = read(directory)
    numbers = chosen_cases(directory, solved(directory), None, missing)
    cases = facts_of_cases(model, directory, numbers, FIELDS, missing)
    units = model.notes.unit_system if model.notes else None
    return make_scene(model, cases, units, TRIANGLES)


def _now(directory: Path, progress: Progress, describe: Words) -> str:
    """What a run does, in a line and a table."""
    at_work = lock.holder_of(directory) is not None
    if not progress.log.load_cases and not at_work:
        return paragraph("No run is at work here.")
    words = describe(progress) if at_work else "No run is at work; the last one:"
    return paragraph(words) + about_log(progress.log, read_case_names(directory), not at_work)


def _course(directory: Path) -> str:
    """The steps of an optimisation so far, as two charts."""
    rows = history_of(directory, [])
    if not rows:
        return ""
    at_work = lock.holder_of(folder_of(directory)) is not None
    last, steps = rows[-1], [row.step for row in rows]
    words = f"Step {last.step} is done: objective {last.objective:.5g}, volume {last.volume:.3f}."
    words += " The loop goes on." if at_work else " No loop is at work."
    charts = course(steps, [row.objective for row in rows], "Objective")
    charts += course(steps, [row.volume for row in rows], "Volume, of the design volume")
    return paragraph(words) + charts
