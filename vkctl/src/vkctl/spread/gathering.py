"""What comes back from the units of a run: gathered, put in place, and told as one run's end."""

from __future__ import annotations

import signal
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field, replace
from pathlib import Path

from vkctl.running.advice import RESTART, Advice
from vkctl.running.progress import Progress, Tracker
from vkctl.running.run import Outcome, RunResult, summarise

from . import placing
from .over import GoneError
from .patterns import Pattern
from .solving import Solved, split_log
from .work import Done, Event

GONE = 1  # exit status where the scheduler has gone: nobody can see what became of the runs
_KILLED = 128 + signal.SIGKILL


@dataclass
class Doing:
    """What a worker is at."""

    worker: str
    pattern: int
    since: float  # by the monotonic clock
    load_case: int = 0
    stage: str = "starting"
    memory_gb: float = 0.0


@dataclass
class SpreadProgress:
    """State of a spread run at one moment."""

    run: Progress  # of all, from the common log
    doing: list[Doing]
    workers: int
    solved_by: dict[int, str]  # worker of each finished load case


@dataclass
class Failure:
    """A unit that has come to nothing."""

    pattern: Pattern
    worker: str
    sentence: str
    run: RunResult | None  # None where there was none


@dataclass
class Running:
    """Everything that a spread run needs while it goes on."""

    directory: Path
    patterns: dict[str, Pattern]
    tracker: Tracker
    log: placing.Log
    say: Callable[[str], None]
    done: dict[int, str] = field(default_factory=dict)  # finished load cases, with their worker
    doing: dict[str, Doing] = field(default_factory=dict)
    failures: list[Failure] = field(default_factory=list)
    peak_gb: float | None = None


def note(running: Running, event: Event) -> None:
    """What a unit tells on its way. Results that lie on the same disk are put in place at once."""
    if event.kind == "waiting":
        running.say(f"Waiting: {event.text}.")
        return
    pattern = running.patterns[event.unit]
    if event.kind == "repeated":
        running.doing.pop(event.unit, None)
        running.say(
            f"Pattern {pattern.number} on {event.worker}: {event.text.rstrip('.')}; "
            "it runs again elsewhere."
        )
    elif event.kind == "begun":
        running.doing[event.unit] = Doing(event.worker, pattern.number, time.monotonic())
    elif (doing := running.doing.get(event.unit)) is not None:
        said = event.values
        doing.load_case, doing.stage = said["load_case"], said["stage"]
        doing.memory_gb = said["memory_gb"]
        if said["folder"] and set(said["finished"]) - set(running.done):
            _take_from(running, Path(said["folder"]), said["finished"], event.worker)


def _take_from(running: Running, folder: Path, finished: Sequence[int], worker: str) -> None:
    """Finished load cases of a copy on the same disk."""
    if set(running.done).issuperset(finished) or not folder.is_dir():
        return
    new = [number for number in finished if number not in running.done]
    head, log = split_log(folder)
    running.log.head(head)
    placing.move_results(folder, running.directory, new)
    _mark(running, new, log, worker)


def _mark(running: Running, numbers: Sequence[int], log: dict[int, list[str]], worker: str) -> None:
    """What is in place is marked, and then told, in this order."""
    placing.mark_done(running.directory, numbers)
    for number in numbers:
        running.log.add(log.get(number, []))
    running.done.update(dict.fromkeys(numbers, worker))


def take(running: Running, done: Done) -> None:
    """A unit at its end: what isn't in place yet, and what went wrong."""
    running.doing.pop(done.unit.key, None)
    pattern = running.patterns[done.unit.key]
    solved = done.value if isinstance(done.value, Solved) else None
    result = done.value if isinstance(done.value, RunResult) else None
    if solved is not None:
        result = solved.run
        _take_solved(running, solved, done.worker)
    if result is not None and result.peak_memory_gb is not None:
        running.peak_gb = max(running.peak_gb or 0.0, result.peak_memory_gb)
    if done.ok and result is not None and result.ok:
        return
    sentence = done.failure or (str(result.advice) if result is not None else "")
    running.failures.append(Failure(pattern, done.worker, sentence, result))
    running.say(f"Pattern {pattern.number} on {done.worker}: {sentence}")


def _take_solved(running: Running, solved: Solved, worker: str) -> None:
    finished = [case.number for case in solved.run.log.load_cases if case.seconds is not None]
    running.log.head(solved.head)
    if solved.folder:
        _take_from(running, Path(solved.folder), finished, worker)
    sent = [number for number in solved.results if number not in running.done]
    for number in sent:
        placing.write_results(solved.results[number], running.directory)
    if sent:
        _mark(running, sent, solved.log, worker)
    for number, lines in solved.log.items():
        if number not in finished:
            running.log.add(lines)


def result_of(running: Running, gone: GoneError | None, stopped: int) -> RunResult:
    """The end of the whole, told as that of a single run."""
    outcome: Outcome = "finished"
    status, advice = 0, None
    first = _first(running)
    if gone is not None:
        outcome, status, advice = "killed", GONE, Advice(str(gone), RESTART)
    elif stopped:
        name = signal.Signals(stopped).name
        outcome, status = "interrupted", 128 + stopped
        advice = Advice(f"The run was ended ({name}).", RESTART)
    elif first is not None:
        outcome, status, advice = _of_failure(first)
        if first.run is not None and first.run.log.error is not None:
            running.log.error(first.run.log.error)
    else:
        running.log.end(running.tracker.update().elapsed)
    result = summarise(running.tracker.update(), outcome, status)
    result.peak_memory_gb = running.peak_gb
    if advice is not None:
        result.advice = advice
    return result


def _first(running: Running) -> Failure | None:
    """The failure that a single run would have come to first."""
    order = {key: at for at, key in enumerate(running.patterns)}
    return min(running.failures, key=lambda f: order[f.pattern.key], default=None)


def _of_failure(failure: Failure) -> tuple[Outcome, int, Advice]:
    where = f"Pattern {failure.pattern.number} on {failure.worker}: "
    if failure.run is None:
        return "killed", _KILLED, Advice(where + failure.sentence, RESTART)
    run = failure.run
    advice = replace(run.advice, sentence=where + run.advice.sentence)
    return run.outcome, run.status or 1, advice
