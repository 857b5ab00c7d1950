"""What the loop leaves behind: its state for a restart, the history, a chart of it."""

from __future__ import annotations

import csv
import json
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import asdict, dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats, lock
from vkctl.view.files import write_figure

FOLDER = "optimise"  # in the working directory
STATE = "state.json"
HISTORY = "history.csv"
CHART = "history.png"
SERIES = "part.pvd"
ANIMATION = "part.gif"

_PREPARING = "preparing"  # there while the working directory is being written
_NUMBERS = ("objective", "volume", "target", "change", "quality", "seconds")
_ENERGY = "energy_"  # columns of the load cases' strain energies, by number


class LockedError(Exception):
    """Another loop works on the directory."""


@dataclass(frozen=True)
class HistoryRow:
    """One finished step."""

    step: int  # from 1
    objective: float  # weighted mean of the strain energies, or the largest
    volume: float  # part of the design volume that is material
    target: float  # of this step
    change: float  # mean change of the level field that followed
    quality: float  # the poorest of the solutions, 1 is converged
    seconds: float
    energies: dict[int, float]  # strain energy by load-case number


@dataclass
class State:
    """Where the loop stands; replaced as a whole, last, when a step is complete.

    `running` is the step whose solver run has begun, or 0. The levels of step k are in
    `levels.KKKK.npy`, its smoothed criterion in `criterion.KKKK.npy`.
    """

    step: int  # the step to do next, from 1
    running: int
    model: str  # digests: of the files that the loop doesn't change,
    cases: str  # and of the case file apart from the loop's own settings
    load_cases: list[int]  # numbers of those that take part
    keep: list[str]  # names of the sets that stay material
    kept: list[int]  # their node numbers
    combine: str
    weights: list[float]  # per load case that takes part
    since: int  # first step whose objective has this meaning
    target: float | None  # volume that this step's levels were to have; None of the first step's


def folder_of(directory: PathLike) -> Path:
    return Path(directory, FOLDER)


@contextmanager
def locked(directory: PathLike) -> Iterator[None]:
    """Keep other loops off the directory, by the lock of the folder that loops keep in it."""
    folder = folder_of(directory)
    folder.mkdir(parents=True, exist_ok=True)
    with ExitStack() as stack:
        try:
            stack.enter_context(lock.holding(folder, again=False))
        except lock.BusyError as error:
            who = "" if error.pid is None else f" (process {error.pid})"
            raise LockedError(f"another optimisation works on {directory}{who}") from None
        for unfinished in folder.glob(".*.tmp"):  # a killed loop was writing them
            unfinished.unlink(missing_ok=True)
        yield


def is_half_prepared(directory: PathLike) -> bool:
    return (folder_of(directory) / _PREPARING).exists()


def begin_preparing(directory: PathLike) -> None:
    formats.write_parts(folder_of(directory) / _PREPARING, [])


def end_preparing(directory: PathLike) -> None:
    (folder_of(directory) / _PREPARING).unlink(missing_ok=True)


def levels_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"levels.{step:04d}.npy"


def criterion_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"criterion.{step:04d}.npy"


def save_array(path: Path, values: Array) -> None:
    """Replace a .npy file as a whole, float32 as in the solver's files."""
    with formats.replacing(path) as stream:
        np.save(stream, np.asarray(values, np.float32))


def load_array(path: Path) -> Array:
    """Values of a .npy file as float64."""
    values: Array = np.load(path).astype(np.float64)
    return values


def write_state(directory: PathLike, state: State) -> None:
    with formats.replacing(folder_of(directory) / STATE) as stream:
        stream.write(json.dumps(asdict(state)).encode())


def read_state(directory: PathLike) -> State | None:
    """State of a loop that was begun in the directory, or None."""
    try:
        text = (folder_of(directory) / STATE).read_text()
    except FileNotFoundError:
        return None
    return State(**json.loads(text))


def write_history(directory: PathLike, rows: list[HistoryRow]) -> None:
    """Replace the table; numbers keep all their digits, so that a restart reads the same."""
    cases = sorted({number for row in rows for number in row.energies})
    lines = [",".join(("step", *_NUMBERS, *(f"{_ENERGY}{number}" for number in cases)))]
    for row in rows:
        values = [getattr(row, name) for name in _NUMBERS]
        values += [row.energies.get(number, float("nan")) for number in cases]
        lines.append(",".join((str(row.step), *map(repr, values))))
    with formats.replacing(folder_of(directory) / HISTORY) as stream:
        stream.write(("\n".join(lines) + "\n").encode())


def read_history(directory: PathLike) -> list[HistoryRow]:
    """Finished steps of a loop; empty if none."""
    try:
        with open(folder_of(directory) / HISTORY, newline="") as stream:
            return [_row(entry) for entry in csv.DictReader(stream)]
    except FileNotFoundError:
        return []


def _row(entry: dict[str, str]) -> HistoryRow:
    energies = {
        int(name.removeprefix(_ENERGY)): float(text)
        for name, text in entry.items()
        if name.startswith(_ENERGY)
    }
    numbers = {name: float(entry[name]) for name in _NUMBERS}
    return HistoryRow(step=int(entry["step"]), energies=energies, **numbers)


def draw_history(rows: list[HistoryRow], picture: PathLike) -> None:
    """Chart of objective, strain energies and volume over the steps."""
    need("matplotlib").use("Agg")
    pyplot = need("matplotlib.pyplot")

    figure, left = pyplot.subplots(figsize=(8, 4.5), layout="constrained")
    steps = [row.step for row in rows]
    left.plot(steps, [row.objective for row in rows], color="tab:blue", label="objective")
    if len(rows[-1].energies) > 1:
        for k, number in enumerate(rows[-1].energies, 1):
            values = [row.energies[number] for row in rows]
            left.plot(steps, values, color=f"C{k}", linewidth=0.8, label=f"load case {number}")
    left.set_xlabel("step")
    left.set_ylabel("strain energy")
    left.set_ylim(bottom=0)
    right = left.twinx()
    right.plot(steps, [row.volume for row in rows], color="black", linestyle="--", label="volume")
    right.set_ylabel("part of the design volume (dashed)")
    right.set_ylim(0, 1.05)
    left.legend(loc="upper center")
    write_figure(figure, picture, 110)
    pyplot.close(figure)
