"""The run of one constraint pattern on a worker, on a copy of the directory."""

from __future__ import annotations

import shutil
import time
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.basics.failures import sentence
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.lock import BusyError
from vkctl.running.progress import Progress
from vkctl.running.run import NotFoundError, RunResult, run

from . import copies
from .work import ElsewhereError, Here, LackingError

_TELL = 0.5  # seconds between two words about how a unit gets on
_POLL = 0.02  # between two looks at the solver
_MORE = 1.5  # times the memory that was too little
_KEY_THREADS, _KEY_MEMORY = "Sys.MaxNumCompThreads", "Sys.AvailableMemGB"

# What the solver says when the machine is at fault and not the model.
_OF_DISK = (
    "Error opening file: ws.",
    "Error opening file: mxs.lcflags",
    "Error flushing file",
    "Error closing file",
)
_OF_MEMORY = ("Error allocating", "Unexpected end of the run.", "No progress in a library.")


@dataclass(frozen=True)
class Solve:
    """What a unit is told: the task of `solve`."""

    directory: str
    key: str
    token: str  # of the folder for copies
    load_cases: tuple[int, ...]
    words: tuple[int, ...]  # flags of all load cases, as they are for this unit alone
    values: tuple[float, ...]
    rest_gb: float  # memory of the run that isn't the factor's
    vk_rund: str | None
    shared: dict[str, str] = field(default_factory=dict)  # of sent files: name, digest
    own: dict[str, bytes] = field(default_factory=dict)  # sent with the unit: name, content


@dataclass(frozen=True)
class Solved:
    """How the run of a unit ended, with what isn't in its place yet."""

    run: RunResult
    folder: str  # with the results, seen by both; empty where they are below
    log: dict[int, list[str]]  # lines by load case, those that broke off too
    head: list[str]
    results: dict[int, dict[str, bytes]]  # by load case, then by name


class _UnwantedError(Exception):
    """Nobody waits for the run any more."""


class _TooLargeError(Exception):
    """The run takes more memory than its worker was declared to have."""


def solve(task: Solve, here: Here) -> Solved:
    """Run the solver on a copy of the directory. ElsewhereError where the worker is to blame."""
    try:
        folder, shares = _copy(task, here)
    except OSError as error:
        raise ElsewhereError(sentence(error)) from None
    keep = False
    try:
        solved = _solve(task, here, folder, shares)
        keep = shares
        return solved
    except NotFoundError as error:
        raise ElsewhereError(str(error)) from None
    except BusyError:
        raise
    except OSError as error:
        raise ElsewhereError(sentence(error)) from None
    finally:
        if not keep:
            shutil.rmtree(folder, ignore_errors=True)


def _copy(task: Solve, here: Here) -> tuple[Path, bool]:
    """The unit's own folder, and whether the user's vkctl sees it too."""
    directory = Path(task.directory)
    if copies.is_shared(directory, task.token):
        folder = copies.new_folder(directory / copies.FOLDER, task.key)
        copies.link_all(directory, folder, copies.SHARED_FILES)
        copies.link_all(directory, folder, copies.inputs_of(directory, task.load_cases))
        copies.link_all(directory, folder, [file_names.OPTIONS_FILE])
        shares = True
    else:
        store = copies.store_of(here.scratch)
        missing = [name for name, digest in task.shared.items() if not (store / digest).exists()]
        if missing or not task.shared:
            raise LackingError(tuple(missing))
        folder = copies.new_folder(here.scratch, task.key)
        for name, digest in task.shared.items():
            copies.link(store / digest, folder / name)
        for name, content in task.own.items():
            (folder / name).write_bytes(content)
        shares = False
    with formats.passing():
        _adapt(task, here, folder)
    return folder, shares


def _adapt(task: Solve, here: Here, folder: Path) -> None:
    """Flags of the unit's load cases alone; threads and memory as the worker was declared.

    What the options file says of threads and memory is still the most.
    """
    words = np.array(task.words, np.int32)
    formats.write_loadcase_flags(folder, words, np.array(task.values, np.float32))
    if not formats.is_regular(folder / file_names.OPTIONS_FILE):
        return  # the solver will tell
    try:
        given = formats.read_options(folder)
    except formats.FormatError:
        return
    explicit = {line.key for line in formats.read_option_lines(folder) if line.key}
    threads, memory = float(here.cores), max(here.memory_gb - task.rest_gb, 0.01)
    if _KEY_THREADS in explicit and given[_KEY_THREADS] > 0:
        threads = min(threads, given[_KEY_THREADS])
    if _KEY_MEMORY in explicit and given[_KEY_MEMORY] > 0:
        memory = min(memory, given[_KEY_MEMORY])
    changes = {_KEY_THREADS: int(threads), _KEY_MEMORY: round(memory, 3)}
    formats.update_options(folder, changes)


def _solve(task: Solve, here: Here, folder: Path, shares: bool) -> Solved:
    reporter = _Reporter(task, here, folder, shares)
    try:
        result = run(
            folder,
            vk_rund=task.vk_rund,
            on_progress=reporter.look,
            poll=_POLL,
            together=True,
        )
    except _UnwantedError:
        raise ElsewhereError("it was called off") from None
    except _TooLargeError:
        raise ElsewhereError(
            f"the run took more than its {here.memory_gb:.2g} GB", _MORE * here.memory_gb
        ) from None
    _blame(result, here)
    head, log = split_log(folder)
    results: dict[int, dict[str, bytes]] = {}
    if not shares:
        finished = [case.number for case in result.log.load_cases if case.seconds is not None]
        results = {number: _read(folder, number) for number in finished}
    return Solved(result, str(folder) if shares else "", log, head, results)


def _read(folder: Path, load_case: int) -> dict[str, bytes]:
    names = copies.results_of(folder, load_case)
    return {name: formats.read_regular(folder / name) for name in names}


def _blame(result: RunResult, here: Here) -> None:
    """ElsewhereError where the end of a run isn't the model's own fault."""
    error = result.log.error
    if result.ok:
        return
    if error is None:  # crashed, killed, no solver, no log: the model has no words for these
        raise ElsewhereError(result.advice.sentence, detail=result)
    if error.startswith(_OF_DISK):
        raise ElsewhereError(f"{result.advice.sentence} {result.advice.hint}", detail=result)
    if error.startswith(_OF_MEMORY) or "Not enough memory" in error:
        raise ElsewhereError(result.advice.sentence, _MORE * here.memory_gb, detail=result)


class _Reporter:
    """Tells how a run gets on, and ends it where it has become too large or unwanted."""

    def __init__(self, task: Solve, here: Here, folder: Path, shares: bool) -> None:
        self.task, self.here, self.folder, self.shares = task, here, folder, shares
        self.told = 0  # load cases that are finished and told
        self.last = 0.0

    def look(self, progress: Progress) -> None:
        if not self.here.is_wanted():
            raise _UnwantedError
        if (progress.memory_gb or 0.0) > self.here.memory_gb > 0:
            raise _TooLargeError
        finished = progress.finished
        now = time.monotonic()
        if len(finished) == self.told and now - self.last < _TELL:
            return
        self.last, self.told = now, len(finished)
        cases = progress.log.load_cases
        self.here.tell(
            folder=str(self.folder) if self.shares else "",
            finished=finished,
            load_case=cases[-1].number if cases else self.task.load_cases[0],
            stage=progress.stage,
            memory_gb=progress.memory_gb or 0.0,
        )


def split_log(folder: Path) -> tuple[list[str], dict[int, list[str]]]:
    """Lines of a run's log: those before the first load case, then by load case.

    The lines that end a run are left out, error lines too.
    """
    head: list[str] = []
    cases: dict[int, list[str]] = {}
    lines = head
    try:
        text = formats.read_regular(folder / formats.LOG_FILE).decode("latin-1")
    except OSError:
        return head, cases
    for line in text.splitlines():
        if line.startswith(("Info<Msg:Total time", "Error<", "Info<Msg:Tool.vk_rund.End")):
            break
        if line.startswith("Data<Key:LCaseId><Value:"):
            number = line.removeprefix("Data<Key:LCaseId><Value:").rstrip(">")
            lines = cases.setdefault(int(number), [])
        lines.append(line)
    return head, cases
