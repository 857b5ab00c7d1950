"""Progress of a run, told from its growing log."""

from __future__ import annotations

import time
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.case_names import read_case_names
from vkctl.directory.formats import LOG_FILE
from vkctl.directory.log import LogRecord, RunLog, digest, parse_line
from vkctl.directory.plan import PlannedCase, plan_or_nothing


class LogReader:
    """Reads a log as it grows and notices when another run has replaced it.

    `records` are those of the present log, without lines that are still being written and
    without lines that no run writes. `replaced` counts the replacements seen. With
    `skip_present` a log that is there already is left alone until another one takes its place.
    """

    def __init__(self, directory: PathLike, skip_present: bool = False) -> None:
        self.path = Path(directory, LOG_FILE)
        self.records: list[LogRecord] = []
        self.replaced = 0
        self._taken = b""
        self._stamp = self._look() if skip_present else None

    def _look(self) -> tuple[int, int, int] | None:
        try:
            found = self.path.stat()
        except OSError:
            return None
        return found.st_ino, found.st_size, found.st_mtime_ns

    def poll(self) -> bool:
        """Read what is new; whether there was anything."""
        stamp = self._look()
        if stamp is None or stamp == self._stamp:
            return False
        self._stamp = stamp
        try:
            content = formats.read_regular(self.path)
        except OSError:
            return False  # it went, or something else took its place
        whole = content[: content.rfind(b"\n") + 1]
        # A run truncates the log and writes it anew: the old text is no longer its beginning.
        if not whole.startswith(self._taken):
            self.replaced += 1
            self.records, self._taken = [], b""
        for line in whole[len(self._taken) :].decode("latin-1").split("\n"):
            self._take(line)
        changed = len(whole) > len(self._taken)
        self._taken = whole
        return changed

    def _take(self, line: str) -> None:
        try:
            self.records.append(parse_line(line))
        except ValueError:
            return


# Stage of a run by what its last log line tells; the data lines behind the quality share one.
_STAGES = {
    "Tool.vk_rund.Start": "reading the model",
    "LCaseId": "reading the load case",
    "SysConfig": "assembling",
    "EstDecMemReq": "factorising",
    "IMode": "response",
    "ICount": "response",
    "LCaseTime": "next load case",
    "Total time": "ended",
    "Tool.vk_rund.End": "ended",
}


def stage(records: Sequence[LogRecord]) -> str:
    """What a run is doing after these lines, in one or two words."""
    if not records:
        return "starting"
    last = next((r for r in reversed(records) if r.frame != "warning"), records[-1])
    if last.frame == "error":
        return "stopped"
    if last.key == "LCasePatInx":
        patterns = [r.value for r in records if r.key == "LCasePatInx"]
        kept = len(patterns) > 1 and patterns[-1] == patterns[-2]
        return "solving" if kept else "reading the structure"
    if last.frame == "data" and last.key != "LCaseId":
        return "response"
    return _STAGES.get(last.key, "reading the model")


def remaining_seconds(
    planned: Sequence[PlannedCase], log: RunLog, case_elapsed: float
) -> float | None:
    """Estimate of the time left; None until a load case has been finished.

    Each open load case counts with the mean time of the finished ones of its kind, with a new
    constraint pattern or with the one before it, or of all where its kind hasn't occurred.
    `case_elapsed` is how long the present load case has been running.
    """
    times: dict[bool, list[float]] = {True: [], False: []}
    previous: int | None = None
    for case in log.load_cases:
        if case.seconds is not None:
            times[case.pattern != previous].append(case.seconds)
        previous = case.pattern
    every = times[True] + times[False]
    if not every:
        return None
    finished = {case.number for case in log.load_cases if case.seconds is not None}
    total, before = 0.0, None
    for item in planned:
        if item.number not in finished:
            known = times[item.pattern != before] or every
            total += sum(known) / len(known)
        before = item.pattern
    running = bool(log.load_cases) and log.load_cases[-1].seconds is None
    return max(total - case_elapsed, 0.0) if running else total


@dataclass
class Progress:
    """State of a run at one moment."""

    directory: Path
    planned: list[PlannedCase]
    names: list[str] = field(default_factory=list)  # of all load cases, by number
    log: RunLog = field(default_factory=RunLog)
    stage: str = "starting"
    elapsed: float = 0.0  # seconds since the run was started or first seen
    case_elapsed: float = 0.0  # of the load case that is running
    remaining: float | None = None  # seconds, an estimate
    memory_gb: float | None = None  # resident now
    peak_memory_gb: float | None = None  # highest seen
    replaced: int = 0  # how often another run has taken the log over while it was followed

    @property
    def finished(self) -> list[int]:
        """Numbers of the load cases that this run has finished."""
        return [case.number for case in self.log.load_cases if case.seconds is not None]

    @property
    def open(self) -> list[int]:
        """Numbers of the planned load cases that aren't finished."""
        done = set(self.finished)
        return [item.number for item in self.planned if item.number not in done]


class Tracker:
    """Keeps the `Progress` of the run in `directory`; call `update` now and then.

    With `planned`, the run is about to start and a log that is there is an older one's; without,
    the log and the flags tell what the run works on.
    """

    def __init__(self, directory: PathLike, planned: Sequence[PlannedCase] | None = None) -> None:
        self.directory = Path(directory)
        self.reader = LogReader(directory, skip_present=planned is not None)
        self.started = self.case_started = time.monotonic()
        self._given = list(planned) if planned is not None else None
        self.progress = Progress(self.directory, self._given or [], read_case_names(directory))

    def update(self, memory: tuple[float, float] | None = None) -> Progress:
        """Read the log and the clock. `memory` is (now, highest) in GB, if known."""
        now, p = time.monotonic(), self.progress
        if self.reader.poll():
            self._take_log(now)
        if memory is not None:
            p.memory_gb, highest = memory
            p.peak_memory_gb = max(p.peak_memory_gb or 0.0, highest)
        p.elapsed, p.case_elapsed = now - self.started, now - self.case_started
        p.remaining = remaining_seconds(p.planned, p.log, p.case_elapsed)
        return p

    def _take_log(self, now: float) -> None:
        p, records = self.progress, self.reader.records
        cases_before = len(p.log.load_cases)
        if self.reader.replaced > p.replaced:
            p.replaced, cases_before, self.started = self.reader.replaced, 0, now
            p.peak_memory_gb = None
            self._given = None
        p.log, p.stage = digest(records), stage(records)
        if len(p.log.load_cases) > cases_before:
            self.case_started = now
        if self._given is None:
            p.planned = self._from_log_and_flags()

    def _from_log_and_flags(self) -> list[PlannedCase]:
        """What the log has begun, then what the flags say is still to come."""
        cases = self.progress.log.load_cases
        begun = {case.number: PlannedCase(case.number, case.pattern or 0) for case in cases}
        to_come = plan_or_nothing(self.directory)
        return [*begun.values(), *(item for item in to_come if item.number not in begun)]
