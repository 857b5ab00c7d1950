"""Variants on the workers of a cluster, all of which see the study's folder."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import replace
from pathlib import Path

from vkctl.directory.lock import BusyError
from vkctl.spread.over import over
from vkctl.spread.place import opened
from vkctl.spread.where import Where
from vkctl.spread.work import ElsewhereError, Event, Here, Unit

from .journal import PLAN
from .loop import Dispatch
from .work import Outcome, Task, attempt


def dispatch_on(where: Where, on_line: Callable[[str], None]) -> Dispatch:
    """What hands the variants of a study to the workers of a place."""

    def tell(event: Event) -> None:
        if event.kind in ("repeated", "waiting"):
            what = f"variant {event.unit} is begun again: " if event.unit else ""
            on_line(f"{what}{event.text}")

    @contextmanager
    def solved_there(tasks: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
        if not tasks:
            yield iter(())
            return
        units = [Unit(str(task.number), task, task.memory_gb) for task in tasks]
        with opened(where) as place:
            coming = over(place, solve_there, units, on_event=tell)
            yield (
                done.value
                if done.ok
                else Outcome(int(done.unit.key), "failed", message=done.failure)
                for done in coming
            )

    return solved_there


def solve_there(task: Task, here: Here) -> Outcome:
    """A variant on a worker, on its threads, by its own solver where it doesn't see ours."""
    out = Path(task.directory).parents[1]
    if not (out / PLAN).exists():
        raise ElsewhereError(f"it doesn't see the study's folder {out}")
    vk_rund = task.vk_rund if Path(task.vk_rund).exists() else ""
    try:
        return attempt(replace(task, threads=here.cores, vk_rund=vk_rund))
    except BusyError as error:
        raise ElsewhereError(str(error)) from None
