"""A run whose constraint patterns are solved by the workers of a place."""

from __future__ import annotations

import os
from collections.abc import Callable
from contextlib import closing
from dataclasses import replace
from pathlib import Path
from typing import Any

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.plan import plan
from vkctl.running import processes
from vkctl.running.progress import Tracker
from vkctl.running.run import RunResult, find_vk_rund, reopen, set_run_options
from vkctl.running.signals import noted

from . import copies, placing
from .gathering import Running, SpreadProgress, note, result_of, take
from .over import GoneError, gone_from, over
from .patterns import Need, Pattern, has_state, need_of, patterns_of, split
from .place import Place, opened
from .sending import Sender
from .solving import Solve, solve
from .where import Where, parse_where
from .work import STARTS, Unit


class _InterruptedError(Exception):
    """A signal has come; its number."""


def run_on(
    directory: PathLike,
    where: str,
    *,
    again: bool = False,
    threads: int | None = None,
    mode: formats.Mode | None = None,
    vk_rund: PathLike | None = None,
    most_starts: int = STARTS,
    on_progress: Callable[[SpreadProgress], None] | None = None,
    on_line: Callable[[str], None] | None = None,
) -> RunResult:
    """Run `directory` as `run` does, its constraint patterns side by side on workers.

    `where` is what `--on` says. A pattern whose worker dies, has no memory or no disk left, or no
    solver that works, is begun again elsewhere, `most_starts` times at most; one that fails of
    itself isn't, and the others go on. Started again after whatever end, it goes on with what isn't
    done. `threads` and `vk_rund` are of the workers. `on_progress` is called some ten times a
    second, `on_line` with sentences on what happened to patterns, both in this thread.

    WhereError where the place can't be had, MissingPartError without the engine, BusyError,
    NotFoundError and NotADirectoryError as `run`; OSError and FormatError where what is to be run
    can't be read.
    """
    target = Path(directory).absolute()
    if not target.is_dir():
        raise NotADirectoryError(f"There is no directory {target}.")
    said = where_for(target, where, vk_rund)
    with processes.alone_on(target):
        plan(target)
        with opened(said) as place, Sender(target, place) as sender:
            set_run_options(target, threads, mode)
            if again:
                reopen(target)
            return run_at(
                target,
                place,
                sender,
                vk_rund=vk_rund,
                most_starts=most_starts,
                on_progress=on_progress,
                on_line=on_line,
            )


def where_for(directory: Path, text: str, vk_rund: PathLike | None) -> Where:
    """What `--on` says, the clusters that the directory remembers included.

    NotFoundError where the workers would be of this machine, which has no solver for them.
    """
    notes = formats.read_case_notes(directory)
    where = parse_where(text, notes.clusters if notes else {})
    if where.kind == "local":
        find_vk_rund(vk_rund)
    return where


def run_at(
    directory: Path,
    place: Place,
    sender: Sender,
    *,
    vk_rund: PathLike | None = None,
    most_starts: int = STARTS,
    on_progress: Callable[[SpreadProgress], None] | None = None,
    on_line: Callable[[str], None] | None = None,
) -> RunResult:
    """The same at a place that is open, as often as wanted: workers keep what doesn't change."""
    program = None if vk_rund is None else os.fspath(Path(vk_rund).absolute())
    with processes.alone_on(directory):
        tracker = Tracker(directory, plan(directory))
        with placing.Log(directory) as log:
            running = Running(directory, {}, tracker, log, on_line or (lambda line: None))
            return _spread(running, place, sender, program, most_starts, on_progress)


def _spread(
    running: Running,
    place: Place,
    sender: Sender,
    program: str | None,
    most_starts: int,
    on_progress: Callable[[SpreadProgress], None] | None,
) -> RunResult:
    token = copies.begin_sharing(running.directory)
    gone: GoneError | None = None
    stopped = 0

    def tick() -> None:
        if signals:
            raise _InterruptedError
        progress = running.tracker.update()
        if on_progress is not None:
            doing = sorted(running.doing.values(), key=lambda d: d.worker)
            on_progress(SpreadProgress(progress, doing, place.seen(), running.done))

    try:
        with noted() as signals:
            try:
                units = _ready(running, place, sender, token, program)
                ended = over(
                    place,
                    solve,
                    units,
                    most_starts=most_starts,
                    on_event=lambda event: note(running, event),
                    on_tick=tick,
                    supply=sender.supply,
                )
                with closing(ended):
                    for done in ended:
                        take(running, done)
            except _InterruptedError:
                stopped = signals[0]
            except GoneError as error:
                gone = error
    finally:
        copies.end_sharing(running.directory)
    result = result_of(running, gone, stopped)
    if on_progress is not None:
        on_progress(SpreadProgress(running.tracker.progress, [], place.seen(), running.done))
    return result


def _ready(
    running: Running, place: Place, sender: Sender, token: str, program: str | None
) -> list[Unit]:
    """The units with what workers need; the scheduler may have gone since it was used last."""
    try:
        return [sender.ready(unit) for unit in _units(running, place, token, program)]
    except OSError:
        if place.client.status == "running":
            raise
        raise gone_from(place) from None


def _units(running: Running, place: Place, token: str, program: str | None) -> list[Unit]:
    """A unit for each pattern, the memory it asks for no more than some worker has."""
    directory = running.directory
    patterns = patterns_of(running.tracker.progress.planned)
    if not patterns:
        return []
    workers = place.workers()
    count = max(len(workers), place.most_workers)
    sizes = [w.memory_gb for w in workers if w.memory_gb] or [0.0]
    need = need_of(directory, patterns, min(sizes), count)
    patterns = split(patterns, need, count, has_state(directory))
    running.patterns = {pattern.key: pattern for pattern in patterns}
    if workers and need.memory_gb > max(sizes) > 0:
        running.say(
            f"A pattern may need {need.memory_gb:.2g} GB, the largest worker has {max(sizes):.2g}."
        )
        need = replace(need, memory_gb=max(sizes))
    words, values = formats.read_loadcase_flags(directory)
    return [
        Unit(p.key, _task(directory, p, token, need, words, values, program), need.memory_gb)
        for p in patterns
    ]


def _task(
    directory: Path,
    pattern: Pattern,
    token: str,
    need: Need,
    words: Any,
    values: Any,
    program: str | None,
) -> Solve:
    alone = words & ~formats.LOADCASE_REQUESTED
    for number in pattern.load_cases:
        alone[number - 1] = words[number - 1]
    return Solve(
        directory=str(directory),
        key=pattern.key,
        token=token,
        load_cases=pattern.load_cases,
        words=tuple(alone.tolist()),
        values=tuple(values.tolist()),
        rest_gb=need.rest_gb,
        vk_rund=program,
    )
