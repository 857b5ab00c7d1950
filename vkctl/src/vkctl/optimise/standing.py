"""A loop as it stands: what every step needs, and the designs that it has on disk."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING

from vkctl.basics.types import Array, PathLike
from vkctl.prepare.part import Reading
from vkctl.running.progress import Progress
from vkctl.running.run import RunResult
from vkctl.spread.place import Place
from vkctl.spread.sending import Sender

from . import history
from .design import Design
from .history import HistoryRow, State
from .settings import Settings

if TYPE_CHECKING:
    from vkctl.stress.weight import Weight

    from .limits.terms import Steering


class OptimiseError(Exception):
    """The loop can't go on; the message says why. What was finished stays for a restart.

    `run` is the solver's run that failed, if that was the reason.
    """

    def __init__(self, text: str, run: RunResult | None = None) -> None:
        super().__init__(text)
        self.run = run


@dataclass
class Loop:
    """Everything that a step needs."""

    directory: Path
    settings: Settings
    state: State
    design: Design
    reach: float  # the radius of smoothing that settings and mesh have
    rows: list[HistoryRow]
    factor_takes_less: Callable[[float], bool]  # estimated: a step with one, than so many seconds
    vk_rund: PathLike | None = None
    on_progress: Callable[[int, Progress], None] | None = None
    reading: Reading | None = None  # how bodies of the part are meshed
    steering: Steering | None = None  # where several values count
    workers: Workers | None = None  # that solve the load cases; else this process's own run
    weights: dict[int, Weight] = field(default_factory=dict)  # that follow the design, by load case
    heated: list[int] = field(default_factory=list)  # load cases with strains of their own


@dataclass
class Workers:
    """Where the load cases of all steps are solved, open as long as the loop goes on."""

    place: Place
    ending: ExitStack  # of the senders
    on_line: Callable[[str], None] | None
    senders: dict[Path, Sender] = field(default_factory=dict)  # by the directory


def levels_of(loop: Loop, step: int) -> Array:
    """Levels of a step, one for each design point."""
    return history.load_array(history.levels_file(loop.directory, step), len(loop.design.points))


def free_of(loop: Loop, step: int) -> Array:
    """The field that a step's levels were made from by their sizes, where that differs."""
    path = history.free_file(loop.directory, step)
    if not loop.design.shape.has_sizes or not path.exists():
        return levels_of(loop, step)
    return history.load_array(path, len(loop.design.points))


def write_design(loop: Loop, step: int, following: Array) -> None:
    """Levels of a step, from the field that was moved, which is kept where it differs."""
    directory, levels = loop.directory, loop.design.solved_levels(following)
    if loop.design.shape.has_sizes:
        history.save_array(history.free_file(directory, step), following)
    history.save_array(history.levels_file(directory, step), levels)
