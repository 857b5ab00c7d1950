"""What the loop leaves behind: its state for a restart, the history, pictures of it."""

from __future__ import annotations

import csv
import json
from dataclasses import asdict, dataclass, fields
from pathlib import Path
from typing import Any

import numpy as np

from .. import formats
from ..formats import Array, PathLike

FOLDER = "optimise"  # in the working directory
STATE = "state.json"
HISTORY = "history.csv"
CHART = "history.png"
SERIES = "part.pvd"
ANIMATION = "part.gif"


@dataclass(frozen=True)
class HistoryRow:
    """One finished step."""

    step: int  # from 1
    objective: float  # weighted mean of the strain energies, or the largest
    volume: float  # part of the design volume that is material
    target: float  # of this step
    change: float  # mean change of the level field that followed
    seconds: float


@dataclass
class State:
    """Where the loop stands; written before and after every run of the solver.

    `running` is the step whose solver run has begun, or 0. The levels of step k are in
    `levels.KKKK.npy`; the smoothed criterion of the step before in `criterion.KKKK.npy`.
    """

    step: int  # the step to do next, from 1
    running: int
    converged: bool
    keep: list[int]  # node numbers
    weights: list[float]  # per load case
    cases: list[int]  # numbers of the load cases that take part


def folder_of(directory: PathLike) -> Path:
    return Path(directory, FOLDER)


def levels_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"levels.{step:04d}.npy"


def criterion_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"criterion.{step:04d}.npy"


def save_array(path: Path, values: Array) -> None:
    """Replace a .npy file as a whole."""
    with formats.replacing(path) as stream:
        np.save(stream, values)


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
    names = [f.name for f in fields(HistoryRow)]
    lines = [",".join(names)]
    lines += [",".join(f"{getattr(row, name):.9g}" for name in names) for row in rows]
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
    values: dict[str, Any] = {name: float(text) for name, text in entry.items()}
    return HistoryRow(**{**values, "step": int(values["step"])})


def draw_history(rows: list[HistoryRow], picture: PathLike) -> None:
    """Chart of objective and volume over the steps."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, left = pyplot.subplots(figsize=(8, 4.5), layout="constrained")
    steps = [row.step for row in rows]
    left.plot(steps, [row.objective for row in rows], color="tab:blue")
    left.set_xlabel("step")
    left.set_ylabel("objective", color="tab:blue")
    left.set_ylim(bottom=0)
    right = left.twinx()
    right.plot(steps, [row.volume for row in rows], color="tab:orange")
    right.set_ylabel("volume", color="tab:orange")
    right.set_ylim(0, 1.05)
    figure.savefig(picture, dpi=110)
    pyplot.close(figure)
