"""What the loop leaves behind: its state for a restart, the history, a chart of it."""

from __future__ import annotations

import csv
import json
import math
import tokenize
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats, lock
from vkctl.directory.case_names import titled
from vkctl.view.files import write_figure

FOLDER = "optimise"  # in the working directory
STATE = "state.json"
HISTORY = "history.csv"
CHART = "history.png"
SERIES = "part.pvd"
ANIMATION = "part.gif"

_PREPARING = "preparing"  # there while the working directory is being written
_NUMBERS = ("objective", "volume", "target", "change", "quality", "seconds")
_TEXTS = ("model", "cases", "combine", "wishes", "case_file", "aims", "grown_why")
_NUMBERED = ("load_cases", "kept", "void", "following")
_GROWN = ("grown_from", "grown_at", "grown_most")
_COUNTED = ("step", "running", "since", "sized", "returned", *_GROWN)
_OF_THE_SOLVER = ("mode", "iterations", "solving")
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
    mode: str = ""  # of the solver: "iterative" or "direct"
    iterations: int = 0  # of all load cases
    solving: float = 0.0  # seconds of the solver's run


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
    mode: formats.Mode = "automatic"  # of the options file before the loop changed it
    void: list[int] = field(default_factory=list)  # node numbers that stay empty
    wishes: str = ""  # what the designer wished when the next step's levels were made
    case_file: str = ""  # its absolute path
    following: list[int] = field(default_factory=list)  # load cases whose weight follows the levels
    widened: float = 1.0  # times the radius, so that the members can have their sizes
    sized: int = 0  # first step whose design has the sizes that are wished; 0: none yet
    returned: int = 0  # the latest step that solved the levels of an earlier one again
    aims: str = ""  # what counts since `since`: goal and limits
    grown_from: int = 0  # first step that material is added in until the body holds the limits
    grown_at: int = 0  # number of steps that ended the loop before, 0 where it had converged
    grown_most: int = 0  # steps that were allowed for it when it ended, 0 before
    grown_why: str = ""  # what ended it, where a part was no body
    # Of the latest search for a threshold, from which the next one begins.
    ratio: float = 1.0
    steepness: float | None = None


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


def free_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"free.{step:04d}.npy"


def centres_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"centres.{step:04d}.npy"


def taken_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"taken.{step:04d}.npy"


def criterion_file(directory: PathLike, step: int) -> Path:
    return folder_of(directory) / f"criterion.{step:04d}.npy"


def forget(directory: PathLike, step: int) -> None:
    """Remove what only the next two steps were made from."""
    for name in (criterion_file, free_file, centres_file, taken_file):
        name(directory, step).unlink(missing_ok=True)


def displacements_file(directory: PathLike, step: int, load_case: int) -> Path:
    return folder_of(directory) / f"displacements.{step:04d}.{load_case:04d}.npy"


def save_array(path: Path, values: Array) -> None:
    """Replace a .npy file as a whole, float32 as in the solver's files."""
    with formats.replacing(path) as stream:
        np.save(stream, np.asarray(values, np.float32))


def load_array(path: Path, count: int | None = None) -> Array:
    """Values of a .npy file as float64, `count` of them where given; FormatError for others."""
    try:
        with formats.open_regular(path) as stream:
            values: Array = np.load(stream, allow_pickle=False)
            numbers = np.asarray(values, np.float64)
    except (ValueError, TypeError, EOFError, MemoryError, SyntaxError, tokenize.TokenError):
        raise formats.FormatError(path, "it holds no array of numbers") from None
    wanted = len(numbers.ravel()) if count is None else count
    if numbers.shape != (wanted,) or not np.isfinite(numbers).all():
        raise formats.FormatError(path, f"it doesn't hold {wanted} finite numbers in a row")
    return numbers


def write_state(directory: PathLike, state: State) -> None:
    formats.write_parts(folder_of(directory) / STATE, [json.dumps(asdict(state)).encode()])


def read_state(directory: PathLike) -> State | None:
    """State of a loop that was begun in the directory, or None; FormatError where it is damaged."""
    path = folder_of(directory) / STATE
    try:
        said = json.loads(formats.read_regular(path).decode())
    except FileNotFoundError:
        return None
    except (ValueError, RecursionError):
        raise formats.FormatError(path, "it holds no state of an optimisation") from None
    if isinstance(said, dict):
        # Earlier versions didn't note these.
        since_then: dict[str, Any] = {"mode": "automatic", "void": [], "wishes": ""}
        since_then |= {"case_file": "", "following": [], "sized": 0, "returned": 0}
        since_then |= {"widened": 1.0, "ratio": 1.0, "steepness": None, "aims": ""}
        since_then |= {"grown_from": 0, "grown_at": 0, "grown_most": 0, "grown_why": ""}
        said = {**since_then, **said}
    if not isinstance(said, dict) or not _is_state(said):
        raise formats.FormatError(path, "it holds no state of an optimisation")
    return State(**said)


def _is_state(said: dict[str, Any]) -> bool:
    """Whether all fields of a State are there, of their types, and fit each other."""
    if set(said) != set(State.__dataclass_fields__):
        return False
    numbers = [value for name in _NUMBERED for value in _listed(said[name])]
    return (
        all(type(said[name]) is int and said[name] >= 0 for name in _COUNTED)
        and 1 <= said["since"] <= said["step"]
        and (said["grown_from"] == 0 or 2 <= said["grown_from"] <= said["step"])
        and all(isinstance(said[name], str) for name in _TEXTS)
        and isinstance(said["mode"], str)
        and said["mode"] in formats.MODES
        and all(type(number) is int and 1 <= number < 2**31 for number in numbers)
        and all(isinstance(name, str) for name in _listed(said["keep"]))
        and all(_is_number(weight) for weight in _listed(said["weights"]))
        and len(said["weights"]) == len(said["load_cases"]) > 0
        and _is_number(said["widened"])
        and _is_number(said["ratio"])
        and all(said[name] is None or _is_number(said[name]) for name in ("target", "steepness"))
    )


def _listed(values: Any) -> list[Any]:
    """The values, or one that is of no wanted kind where they are no list."""
    return values if isinstance(values, list) else [None]


def _is_number(value: Any) -> bool:
    return isinstance(value, int | float) and not isinstance(value, bool) and math.isfinite(value)


def write_history(directory: PathLike, rows: list[HistoryRow]) -> None:
    """Replace the table; numbers keep all their digits, so that a restart reads the same."""
    cases = sorted({number for row in rows for number in row.energies})
    names = ("step", *_NUMBERS, *_OF_THE_SOLVER, *(f"{_ENERGY}{number}" for number in cases))
    lines = [",".join(names)]
    for row in rows:
        values = [getattr(row, name) for name in _NUMBERS]
        words = [row.mode, str(row.iterations), repr(row.solving)]
        energies = [row.energies.get(number, float("nan")) for number in cases]
        lines.append(",".join((str(row.step), *map(repr, values), *words, *map(repr, energies))))
    with formats.replacing(folder_of(directory) / HISTORY) as stream:
        stream.write(("\n".join(lines) + "\n").encode())


def read_history(directory: PathLike) -> list[HistoryRow]:
    """Finished steps of a loop, empty if none; FormatError where the table is damaged."""
    path = folder_of(directory) / HISTORY
    try:
        lines = formats.read_regular(path).decode().splitlines()
        rows = [_row(entry) for entry in csv.DictReader(lines)]
    except FileNotFoundError:
        return []
    except (ValueError, KeyError, TypeError, AttributeError, csv.Error):
        raise formats.FormatError(path, "it is no table of finished steps") from None
    if [row.step for row in rows] != list(range(1, len(rows) + 1)):
        raise formats.FormatError(path, "its steps don't follow each other")
    return rows


def _row(entry: dict[str, str]) -> HistoryRow:
    energies = {
        int(name.removeprefix(_ENERGY)): float(text)
        for name, text in entry.items()
        if name.startswith(_ENERGY)
    }
    numbers: dict[str, Any] = {name: float(entry[name]) for name in _NUMBERS}
    of_the_solver: dict[str, Any] = {}  # what earlier versions didn't note stays at its default
    if "mode" in entry:
        of_the_solver["mode"] = entry["mode"]
        of_the_solver["iterations"] = int(entry["iterations"])
        of_the_solver["solving"] = float(entry["solving"])
    return HistoryRow(step=int(entry["step"]), energies=energies, **numbers, **of_the_solver)


def draw_history(
    rows: list[HistoryRow], picture: PathLike, names: Sequence[str] = (), unit: str = ""
) -> None:
    """Chart of objective, strain energies and volume over the steps.

    An objective that is the volume is drawn as that alone. `names` are those of the load cases,
    `unit` that of the energies.
    """
    need("matplotlib").use("Agg")
    pyplot = need("matplotlib.pyplot")

    figure, left = pyplot.subplots(figsize=(8, 4.5), layout="constrained")
    steps = [row.step for row in rows]
    of_energy = any(row.objective != row.volume for row in rows)
    if of_energy:
        left.plot(steps, [row.objective for row in rows], color="tab:blue", label="objective")
    if len(rows[-1].energies) > 1 or not of_energy:
        for k, number in enumerate(rows[-1].energies, 1):
            values = [row.energies[number] for row in rows]
            left.plot(steps, values, color=f"C{k}", linewidth=0.8, label=titled(number, names))
    left.set_xlabel("step")
    left.set_ylabel(f"strain energy in {unit}" if unit else "strain energy")
    left.set_ylim(bottom=0)
    right = left.twinx()
    right.plot(steps, [row.volume for row in rows], color="black", linestyle="--", label="volume")
    right.set_ylabel("part of the design volume (dashed)")
    right.set_ylim(0, 1.05)
    left.legend(loc="upper center")
    write_figure(figure, picture, 110)
    pyplot.close(figure)
