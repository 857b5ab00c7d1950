"""One variant, from its case file to the values that are reported: a function of plain data.

It knows nothing of the other variants, so that it can be called in any process and on any machine
that reaches the study's folder. A variant that was cut off goes on where its directory stands.
"""

from __future__ import annotations

import os
import shutil
import time
from collections.abc import Callable
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

import tomli_w

from vkctl.basics.failures import sentence
from vkctl.basics.words import listed
from vkctl.directory import formats, model
from vkctl.directory.lock import BusyError
from vkctl.directory.results import POOR_QUALITY
from vkctl.optimise import OptimiseError, optimise
from vkctl.prepare.build import Prepared, build_model
from vkctl.prepare.case_file.entries import Cases
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.part import PartError, Reading
from vkctl.prepare.remembered import remembered_sets
from vkctl.running import processes
from vkctl.running.run import NotFoundError, RunResult, find_vk_rund, run, set_run_options
from vkctl.running.settle import SettleError, settle

from .entries import Deed, Wanted
from .measured import Values, measure
from .store import made, taken_or_made

CASE_FILE = "case.toml"  # of the variant, in its directory
GONE = ".gone"  # end of the name of what is being removed
_PREPARING = "preparing"  # there while the directory is being written
_RUNS = 3  # of a solver that something else kills
_POLL = 0.1  # seconds between two looks at a solver that was left behind
_LONGEST = 500  # characters of a message
_FORESEEN = (
    CaseFileError,
    PartError,
    formats.FormatError,
    OptimiseError,
    SettleError,
    NotFoundError,
    ValueError,
)


@dataclass(frozen=True)
class Task:
    """A variant to be made, in plain data."""

    number: int  # from 1
    said: dict[str, object]  # its case file, the part's path absolute
    directory: str
    deed: Deed
    mode: formats.Mode | None
    tolerance: float
    threads: int
    wanted: tuple[Wanted, ...]
    columns: tuple[str, ...]
    mesh: str = ""  # the file of a mesh that other variants have too
    memory_gb: float = 0.0  # that it takes, an estimate; 0 where nobody knows
    vk_rund: str = ""
    trust_scripts: bool = False
    limits: bool = True


@dataclass(frozen=True)
class Outcome:
    """How a variant ended: "done", "unsettled", or "failed" with the reason as its message."""

    number: int
    status: str
    values: Values = field(default_factory=dict)
    seconds: float = 0.0
    message: str = ""


def solve(task: Task) -> Outcome:
    """Make a variant; whatever goes wrong with it is told in what comes back."""
    try:
        return attempt(task)
    except BusyError as error:
        return Outcome(task.number, "failed", message=str(error))


def attempt(task: Task) -> Outcome:
    """The same, but BusyError where another process, on another machine perhaps, is at it."""
    begun = time.monotonic()
    try:
        status, values, message = _solved(task)
    except MemoryError:
        status, values, message = "failed", {}, "memory ran out"
    except BusyError:
        raise
    except OSError as error:
        status, values, message = "failed", {}, sentence(error)
    except _FORESEEN as error:
        status, values, message = "failed", {}, str(error)
    except Exception as error:  # a defect, which mustn't take the other variants along
        words = f"{type(error).__name__}: {error}"
        status, values, message = "failed", {}, f"vkctl has failed, which is a defect: {words}"
    message = " ".join(message.split())[:_LONGEST]
    return Outcome(task.number, status, values, round(time.monotonic() - begun, 3), message)


def _solved(task: Task) -> tuple[str, Values, str]:
    directory = Path(task.directory)
    if not (directory / CASE_FILE).exists() or (directory / _PREPARING).exists():
        remove(directory)
        prepare(task)
    while processes.worker_on(directory) is not None:  # outlived the process that started it
        time.sleep(_POLL)
    status, told, message = _DEEDS[task.deed](task, directory)
    if status == "failed":
        return status, {}, message
    values, mistakes = measure(directory, told, task.wanted, task.columns)
    if mistakes:
        return "failed", values, "; ".join(mistakes)
    return status, values, message


def prepare(task: Task) -> None:
    """Write the variant's directory with its case file."""
    directory = Path(task.directory)
    directory.mkdir(parents=True)
    formats.write_parts(directory / _PREPARING, [])
    place = directory / CASE_FILE
    formats.write_parts(place, [tomli_w.dumps(task.said).encode()])
    cases = read_cases(place)
    prepared, structure = built(cases, task.mesh, Reading(task.trust_scripts, task.limits))
    for one in task.wanted:
        if one.set is not None:  # asked for, so that the directory remembers it
            prepared.sets.nodes(one.set, ())
    cases.report.finish()
    prepared.model.sets = remembered_sets(prepared.sets)
    model.write(prepared.model, directory, structure)
    (directory / _PREPARING).unlink()


def remove(directory: Path) -> None:
    """Remove a directory at once: a kill on the way leaves no part of it under its name."""
    gone = directory.with_name(f".{directory.name}{GONE}")
    shutil.rmtree(gone, ignore_errors=True)
    with suppress(FileNotFoundError):
        os.replace(directory, gone)
    shutil.rmtree(gone, ignore_errors=True)


def built(cases: Cases, mesh: str, reading: Reading) -> tuple[Prepared, formats.RawStructure]:
    """The model of a case file; its mesh from a file or, where that isn't there, into it."""
    part = taken_or_made(Path(mesh), cases, reading) if mesh else made(cases, reading)
    return build_model(part.mesh, cases), part.structure


# --- what is done with it ------------------------------------------------------------------------

_Told = tuple[str, Values, str]  # status, values of the whole run, message


def _run(task: Task, directory: Path) -> _Told:
    vk_rund = task.vk_rund or None
    set_run_options(directory, task.threads, task.mode)
    for _ in range(_RUNS):
        result = run(directory, vk_rund=vk_rund, together=True)
        if result.outcome != "killed":
            break
    return _told_of(result)


def _told_of(result: RunResult) -> _Told:
    if not result.ok:
        return "failed", {}, f"{result.advice.sentence} {result.advice.hint}"
    told: Values = {"solver_seconds": result.seconds, "memory_gb": result.peak_memory_gb}
    poor = f"quality below {POOR_QUALITY} in {listed(result.poor, 'load case')}"
    return "done", told, poor if result.poor else ""


def _settle(task: Task, directory: Path) -> _Told:
    settled = settle(
        directory,
        task.tolerance,
        threads=task.threads,
        mode=task.mode,
        vk_rund=task.vk_rund or None,
    )
    if settled.run is not None and settled.failed:
        return _told_of(settled.run)
    told: Values = {"memory_gb": None if settled.run is None else settled.run.peak_memory_gb}
    if settled.ok:
        return "done", told, ""
    left = [s.load_case for s in settled.standings if s.verdict != "settled"]
    return "unsettled", told, f"not settled: {listed(left, 'load case')}"


def _optimise(task: Task, directory: Path) -> _Told:
    set_run_options(directory, task.threads)
    reading = Reading(task.trust_scripts, task.limits)
    vk_rund = find_vk_rund(task.vk_rund or None)
    done = optimise(directory / CASE_FILE, directory, vk_rund=vk_rund, reading=reading)
    last = done.rows[-1]
    told: Values = {
        "objective": last.objective,
        "part_volume": last.volume,
        "steps": last.step,
        "converged": float(done.converged),
        "solver_seconds": sum(row.seconds for row in done.rows),
    }
    return "done", told, "" if done.converged else "ended at the step limit"


_DEEDS: dict[Deed, Callable[[Task, Path], _Told]] = {
    "run": _run,
    "settle": _settle,
    "optimise": _optimise,
}
