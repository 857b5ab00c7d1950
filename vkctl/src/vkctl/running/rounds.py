"""What `settle` keeps in a working directory: where it stands, and the results of the round before.

The folder holds the state, replaced as a whole, and copies of the result files under their names.
"""

from __future__ import annotations

import hashlib
import json
import shutil
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any

from vkctl.basics.types import PathLike
from vkctl.directory import formats, lock
from vkctl.directory.formats import file_names

from .changes import Change

FOLDER = "settle"  # in the working directory
STATE = "state.json"

_RUN_KEYS = ("Sys.MaxNumCompThreads", "Sys.ComputationMode")  # may change on the way


@dataclass
class State:
    """Where the rounds stand."""

    inputs: str  # digest of what the results follow from
    load_cases: list[int]
    running: list[int] = field(default_factory=list)  # load cases of a round that has begun
    rounds: list[dict[int, Change]] = field(default_factory=list)
    ended: bool = False

    def changes(self, number: int) -> list[Change]:
        """Of the rounds in which a load case took part."""
        return [changes[number] for changes in self.rounds if number in changes]


def folder_of(directory: PathLike) -> Path:
    return Path(directory, FOLDER)


@contextmanager
def locked(directory: PathLike) -> Iterator[None]:
    """Keep others that settle off the directory; BusyError where one is at it."""
    folder = folder_of(directory)
    folder.mkdir(exist_ok=True)
    with ExitStack() as stack:
        try:
            stack.enter_context(lock.holding(folder, again=False))
        except lock.BusyError as error:
            raise lock.BusyError(directory, error.pid) from None
        for unfinished in folder.glob(".*.tmp"):  # a killed process was writing them
            unfinished.unlink(missing_ok=True)
        yield


def inputs_digest(directory: PathLike, load_cases: list[int]) -> str:
    """Of what decides the results: names, sizes and times of the input files, and the options."""
    options = formats.read_options(directory)
    said = {key: value for key, value in options.items() if key not in _RUN_KEYS}
    total = hashlib.sha256(repr((sorted(said.items()), load_cases)).encode())
    for path in sorted(Path(directory).glob("mx*.*")):
        if path.name != file_names.LOAD_CASE_FLAGS:
            found = path.stat()
            total.update(repr((path.name, found.st_size, found.st_mtime_ns)).encode())
    return total.hexdigest()


def keep_results(directory: PathLike, number: int) -> None:
    """Copy what there is of a load case's results, for the comparison after the next round."""
    _copy_results(Path(directory), folder_of(directory), number)


def put_back(directory: PathLike, number: int) -> None:
    """Put the kept results of a load case back in their place."""
    _copy_results(folder_of(directory), Path(directory), number)


def _copy_results(source: Path, target: Path, number: int) -> None:
    for stem in file_names.RESULT_STEMS:
        name = formats.numbered(stem, number)
        try:
            with formats.open_regular(source / name) as old:
                with formats.replacing(target / name) as new:
                    shutil.copyfileobj(old, new, 1 << 20)
        except FileNotFoundError:
            (target / name).unlink(missing_ok=True)


def forget_results(directory: PathLike) -> None:
    """Remove the copies."""
    for path in folder_of(directory).glob(f"{file_names.RESULT_PREFIX}*"):
        path.unlink(missing_ok=True)


def write_state(directory: PathLike, state: State) -> None:
    formats.write_parts(folder_of(directory) / STATE, [json.dumps(asdict(state)).encode()])


def read_state(directory: PathLike) -> State | None:
    """State of rounds that were begun, or None; FormatError where it is damaged."""
    path = folder_of(directory) / STATE
    try:
        said = json.loads(formats.read_regular(path).decode())
        return _state(said)
    except FileNotFoundError:
        return None
    except (ValueError, TypeError, KeyError, AttributeError, RecursionError, OverflowError):
        raise formats.FormatError(path, "it holds no state of a settling run") from None


def _state(said: dict[str, Any]) -> State:
    """From what was written; ValueError, TypeError or KeyError for anything else."""
    rounds = [
        {int(number): _change(entry) for number, entry in changes.items()}
        for changes in said["rounds"]
    ]
    numbers = [_number(value) for value in said["load_cases"]]
    running = [_number(value) for value in said["running"]]
    if not set(running) <= set(numbers) or type(said["ended"]) is not bool:
        raise ValueError
    return State(str(said["inputs"]), numbers, running, rounds, said["ended"])


def _change(entry: dict[str, Any]) -> Change:
    names = ("displacements", "state", "energy", "stiffness")
    parts = {name: float(entry[name]) for name in names}
    if not all(part >= 0 for part in parts.values()):
        raise ValueError
    return Change(**parts, elements=int(entry["elements"]), poor=bool(entry["poor"]))


def _number(value: Any) -> int:
    if type(value) is not int or not 1 <= value <= formats.LARGEST_NUMBER:
        raise ValueError
    return value
