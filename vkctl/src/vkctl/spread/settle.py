"""Load cases repeated until nothing changes any more, each round solved by workers."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.running.enough import MOST_ROUNDS, TOLERANCE
from vkctl.running.settle import RoundShown, Settled, settle, to_settle

from .gathering import SpreadProgress
from .place import opened
from .run import run_at, where_for
from .sending import Sender
from .work import STARTS


def settle_on(
    directory: PathLike,
    where: str,
    tolerance: float = TOLERANCE,
    *,
    most_rounds: int = MOST_ROUNDS,
    threads: int | None = None,
    mode: formats.Mode | None = None,
    vk_rund: PathLike | None = None,
    most_starts: int = STARTS,
    on_round: Callable[[RoundShown], None] | None = None,
    on_progress: Callable[[SpreadProgress], None] | None = None,
    on_line: Callable[[str], None] | None = None,
) -> Settled:
    """Settle the requested load cases as `settle` does, their patterns side by side on workers.

    The place is opened once, and workers keep the model from round to round. A directory that was
    begun here or on one machine goes on in either way. `where`, `most_starts`, `on_progress`,
    `on_line` and the errors of a place are as of `run_on`.
    """
    target = Path(directory).absolute()
    to_settle(target, tolerance, most_rounds)
    with opened(where_for(target, where, vk_rund)) as place, Sender(target, place) as sender:
        solve = partial(
            run_at,
            target,
            place,
            sender,
            vk_rund=vk_rund,
            most_starts=most_starts,
            on_progress=on_progress,
            on_line=on_line,
        )
        return settle(
            target,
            tolerance,
            most_rounds=most_rounds,
            threads=threads,
            mode=mode,
            on_round=on_round,
            solve=solve,
        )
