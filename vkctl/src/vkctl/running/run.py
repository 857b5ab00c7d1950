"""Start vk_rund on a working directory, follow it, and say in plain words how it ended."""

from __future__ import annotations

import os
import re
import select
import shutil
import signal
import subprocess
import tempfile
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from functools import partial
from pathlib import Path
from typing import IO, Literal

from vkctl.basics.confine import end_with
from vkctl.basics.failures import reason
from vkctl.basics.types import PathLike
from vkctl.directory import formats, lock
from vkctl.directory.lock import BusyError as BusyError
from vkctl.directory.log import RunLog
from vkctl.directory.plan import plan_or_nothing, wanted
from vkctl.directory.results import POOR_QUALITY

from . import processes
from .advice import Advice, explain_message, explain_status
from .pivot import explain_pivot
from .progress import Progress, Tracker
from .signals import noted

# How a run ended: at its normal end, by an error of its own, by a fault, by a signal from
# elsewhere, or by a signal that was passed on to it.
Outcome = Literal["finished", "stopped", "crashed", "killed", "interrupted"]

NOT_FOUND = 127
NOT_EXECUTABLE = 126
_CRASHES = (signal.SIGSEGV, signal.SIGBUS, signal.SIGABRT, signal.SIGILL, signal.SIGFPE)
_POLL = 0.05  # seconds between two looks at the log
_LONGEST_ARGUMENT = 512  # characters
_LAST_WORDS = 4000  # characters kept of what the solver printed
_NO_LOG = 237  # status of a run that couldn't have its log
_HELD = re.compile(r"another run holds the directory .*?(?: \(process (\d+)\))?$", re.MULTILINE)


@dataclass
class RunResult:
    """How a run ended and what it did."""

    directory: Path
    outcome: Outcome
    status: int | None  # of vk_rund as a shell shows it (128 + signal); None if nobody could see it
    advice: Advice  # on the outcome
    log: RunLog = field(default_factory=RunLog)
    warnings: list[Advice] = field(default_factory=list)  # one per different warning of the log
    planned: list[int] = field(default_factory=list)  # load cases that were to be run
    open: list[int] = field(default_factory=list)  # of these, what isn't done
    poor: list[int] = field(default_factory=list)  # finished with a quality below POOR_QUALITY
    seconds: float = 0.0
    peak_memory_gb: float | None = None
    printed: str = ""  # what vk_rund wrote to its standard streams

    @property
    def ok(self) -> bool:
        """Whether the run came to its normal end; its warnings may still matter."""
        return self.outcome == "finished"


class NotFoundError(Exception):
    """No vk_rund could be found or executed; `status` is what a shell would give."""

    def __init__(self, text: str, status: int = NOT_FOUND) -> None:
        super().__init__(text)
        self.status = status


def find_vk_rund(given: PathLike | None = None) -> Path:
    """The program: `given`, else VK_RUND, else vkctl's own, else the search path's, else a build.

    Its own is the one of the wheel that vkctl was installed from; the build is the one of the
    checkout that it lies in.

    Raises NotFoundError; a given or environment path that doesn't work is not passed over.
    """
    for source, value in (("--vk-rund", given), ("VK_RUND", os.environ.get("VK_RUND"))):
        if value:
            return _executable(Path(value).expanduser(), source)
    if own := _installed_with_vkctl():
        return own
    if found := shutil.which("vk_rund"):
        return Path(found)
    for parent in Path(__file__).resolve().parents:
        candidate = parent / "build" / "release" / "vk_rund"
        if candidate.is_file():
            return _executable(candidate, "build")
    raise NotFoundError(
        "vk_rund was not found: give its path with --vk-rund or in the environment variable "
        "VK_RUND, put it on the search path, or build it in this checkout (./quickstart)."
    )


def _installed_with_vkctl() -> Path | None:
    """The program of the wheel that vkctl came in, wherever the wheel was installed."""
    import importlib.metadata

    try:
        files = importlib.metadata.files("vkctl") or []
    except importlib.metadata.PackageNotFoundError:
        return None
    programs = (Path(str(file.locate())) for file in files if file.name == "vk_rund")
    return next((path.resolve() for path in programs if path.is_file()), None)


def _executable(path: Path, source: str) -> Path:
    path = path.absolute()
    if not path.is_file():
        raise NotFoundError(f"There is no program {path} ({source}).")
    if not os.access(path, os.X_OK):
        raise NotFoundError(f"{path} ({source}) can't be executed.", NOT_EXECUTABLE)
    return path


def set_run_options(
    directory: PathLike, threads: int | None = None, mode: formats.Mode | None = None
) -> dict[str, float]:
    """Set threads and mode in `vk_rund_cmd.txt`, where given; other lines stay as they are.

    The change lasts, so that a run that is started again goes on with the same settings. Returns
    what was set, by key. BusyError if another process works on the directory, ValueError for more
    threads than 32 bits can tell.
    """
    changes: dict[str, float] = {}
    if threads is not None:
        changes["Sys.MaxNumCompThreads"] = threads
    if mode is not None:
        changes["Sys.ComputationMode"] = formats.MODES[mode]
    if changes:
        with lock.holding(directory):
            formats.update_options(directory, changes)
    return changes


def reopen(directory: PathLike, numbers: Sequence[int] | None = None) -> None:
    """Have load cases run anew, all that take part in runs if none are given.

    BusyError as `set_run_options`.
    """
    with lock.holding(directory):
        words, values = formats.read_loadcase_flags(directory)
        for number in wanted(directory) if numbers is None else numbers:
            words[number - 1] &= ~formats.LOADCASE_DONE
        formats.write_loadcase_flags(directory, words, values)


def run(
    directory: PathLike,
    *,
    again: bool = False,
    threads: int | None = None,
    mode: formats.Mode | None = None,
    vk_rund: PathLike | None = None,
    on_progress: Callable[[Progress], None] | None = None,
    poll: float = _POLL,
    together: bool = False,
) -> RunResult:
    """Run vk_rund on `directory` to its end.

    `threads` and `mode` are written to the options file (`set_run_options`). `again` repeats
    load cases that are done; a repeated run that is cut off goes on without it. `on_progress` is
    called every `poll` seconds, in this thread. `together` ends the solver with this thread, where
    the system can, however it ends. SIGINT, SIGTERM and SIGHUP are passed on to the
    solver when this is called in the main thread.

    NotFoundError if there is no program, BusyError if another run works on the directory,
    NotADirectoryError if there is no directory. Every other end comes back as a result.
    """
    target = Path(directory)
    program = find_vk_rund(vk_rund)
    if not target.is_dir():
        raise NotADirectoryError(f"There is no directory {target}.")
    with processes.alone_on(target):
        set_run_options(target, threads, mode)
        if again:
            reopen(target)
        planned = plan_or_nothing(target)
        tracker = Tracker(target, planned)
    with tempfile.TemporaryFile() as printed:
        try:
            solver = subprocess.Popen(
                [program, _argument(target)],
                cwd=target,
                stdin=subprocess.DEVNULL,
                stdout=printed,
                stderr=subprocess.STDOUT,
                preexec_fn=partial(end_with, os.getpid()) if together else None,
            )
        except OSError as error:
            text = f"{program} can't be started: {reason(error)}."
            raise NotFoundError(text, NOT_EXECUTABLE) from None
        with noted(solver.send_signal) as passed:
            _follow(solver, tracker, on_progress, poll)
        words = _tail(printed)
        if solver.returncode == _NO_LOG and (match := _HELD.search(words)):
            raise BusyError(target, int(match[1]) if match[1] else None)
        result = _result(tracker.progress, solver.returncode, passed, words)
    if on_progress is not None:
        on_progress(tracker.progress)
    return result


def _argument(directory: Path) -> str:
    """The solver cuts its argument; from inside the directory any path is short enough."""
    path = str(directory.absolute())
    return path if len(path.encode()) <= _LONGEST_ARGUMENT else "."


def _follow(
    solver: subprocess.Popen[bytes],
    tracker: Tracker,
    on_progress: Callable[[Progress], None] | None,
    poll: float,
) -> None:
    """Look at log and memory until the solver has ended."""
    try:
        with _watched(solver) as wait:
            while solver.poll() is None:
                progress = tracker.update(processes.memory_gb(solver.pid))
                if on_progress is not None:
                    on_progress(progress)
                wait(poll)
    finally:
        if solver.poll() is None:  # a failing callback must not leave the solver behind
            solver.terminate()
            solver.wait()
    tracker.update()


@contextmanager
def _watched(solver: subprocess.Popen[bytes]) -> Iterator[Callable[[float], object]]:
    """Waits for the solver's end, for so many seconds at most, and wakes with it.

    Python's own way looks again every now and then, some 10 ms too late in the mean, which small
    models feel in each step of a loop.
    """
    try:
        descriptor = os.pidfd_open(solver.pid)
    except OSError:  # kernels before 5.3, and sandboxes that forbid it
        yield partial(_wait, solver)
        return
    try:
        ended = select.poll()
        ended.register(descriptor, select.POLLIN)
        yield lambda longest: ended.poll(1000 * longest)
    finally:
        os.close(descriptor)


def _wait(solver: subprocess.Popen[bytes], longest: float) -> None:
    try:
        solver.wait(longest)
    except subprocess.TimeoutExpired:
        return


def _tail(stream: IO[bytes]) -> str:
    size = stream.seek(0, os.SEEK_END)
    stream.seek(max(0, size - _LAST_WORDS))
    return stream.read().decode("utf-8", "replace").strip()


def _outcome(returncode: int, passed: list[int], ended: bool) -> Outcome:
    if returncode == 0 and ended:
        return "finished"
    if returncode >= 0:
        return "stopped"
    if -returncode in passed:
        return "interrupted"
    return "crashed" if -returncode in _CRASHES else "killed"


def _result(progress: Progress, returncode: int, passed: list[int], printed: str) -> RunResult:
    status = returncode if returncode >= 0 else 128 - returncode
    outcome = _outcome(returncode, passed, progress.log.ended)
    result = summarise(progress, outcome, status)
    result.printed = printed
    result.advice = _advice(result, returncode)
    return result


def _advice(result: RunResult, returncode: int) -> Advice:
    if returncode == 0 and not result.log.ended:
        return Advice(
            "The program ended with status 0 but wrote no complete log.",
            "Is it really vk_rund that was started?",
        )
    if result.log.error is None:
        return explain_status(returncode)
    advice = explain_message(result.log.error)
    place = explain_pivot(result.directory, result.log, result.printed)
    return Advice(advice.sentence, f"{place} {advice.hint}".strip(), advice.original)


def summarise(progress: Progress, outcome: Outcome, status: int | None = None) -> RunResult:
    """Result of a run that has come to its end, from its last progress."""
    log = progress.log
    advice = explain_message(log.error) if log.error else explain_status(0)
    return RunResult(
        directory=progress.directory,
        outcome=outcome,
        status=status,
        advice=advice,
        log=log,
        warnings=[explain_message(text) for text in dict.fromkeys(log.warnings)],
        planned=[item.number for item in progress.planned],
        open=progress.open,
        poor=[
            case.number
            for case in log.load_cases
            if case.seconds is not None and case.data.get("ARQua", 1.0) < POOR_QUALITY
        ],
        seconds=log.seconds if log.seconds is not None else progress.elapsed,
        peak_memory_gb=progress.peak_memory_gb,
    )
