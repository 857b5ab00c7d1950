"""The log of a run, line by line and put together by load case."""

from __future__ import annotations

import re
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

from vkctl.basics.types import PathLike

from . import formats

Frame = Literal["info", "data", "warning", "error"]


@dataclass(frozen=True)
class LogRecord:
    """One line of the log.

    `text` is the message; of a data line, its value. `key` is that of a data line, or what an
    info line has before its first ": " ("IMode" of "IMode: 2"), with `value` what comes after.
    """

    frame: Frame
    text: str
    key: str = ""
    value: str = ""

    def number(self) -> float:
        """The value as a number; ValueError if it is none."""
        return float(self.value)


_DATA = re.compile(r"Data<Key:(.*?)><Value:(.*)>\Z")
_MESSAGE = re.compile(r"(Info|Warning|Error)<Msg:(.*)>\Z")
_FRAMES: dict[str, Frame] = {"Info": "info", "Warning": "warning", "Error": "error"}


def parse_line(line: str) -> LogRecord:
    """The record of a log line; ValueError for anything else."""
    text = line.rstrip("\r\n")
    if match := _DATA.match(text):
        return LogRecord("data", match[2], match[1], match[2])
    if match := _MESSAGE.match(text):
        message = match[2].rstrip(" ")
        if match[1] != "Info":
            return LogRecord(_FRAMES[match[1]], message)
        key, _, value = message.partition(": ")
        return LogRecord("info", message, key.rstrip(":"), value)
    raise ValueError(f"no line of the log: {text!r}")


def parse_log(lines: Iterable[str]) -> Iterator[LogRecord]:
    """Records of log lines; a last line without an end, still being written, is left out."""
    for line in lines:
        if line.endswith("\n"):
            yield parse_line(line)


def read_log(directory: PathLike) -> list[LogRecord]:
    """Records of `vk_rund_log.txt`; FormatError where a line is none that a run writes."""
    path = Path(directory, formats.LOG_FILE)
    lines = formats.read_regular(path).decode("latin-1").splitlines(keepends=True)
    records: list[LogRecord] = []
    for number, line in enumerate(lines, 1):
        try:
            records += parse_log([line])
        except ValueError:
            raise formats.FormatError(path, f"line {number} is none that a run writes") from None
    if damaged := digest(records).damaged:
        raise formats.FormatError(path, f"it has no value that a run writes: {damaged[0]!r}")
    return records


_CLOCK = re.compile(r"(\d{1,9}):(\d\d):(\d\d\.\d{3})")


def seconds(clock: str) -> float:
    """Seconds of a time text such as "00:03:07.250"; ValueError for anything else."""
    if (match := _CLOCK.fullmatch(clock)) is None:
        raise ValueError(f"no time: {clock!r}")
    return 3600 * int(match[1]) + 60 * int(match[2]) + float(match[3])


@dataclass
class LoadCaseLog:
    """What the log tells of one load case; None for what hasn't come yet."""

    number: int
    pattern: int | None = None
    equations_millions: float | None = None  # only on a change of pattern
    entries_millions: float | None = None
    memory_estimate_gb: float | None = None
    mode: int | None = None  # 1 iterative, 2 with a factor
    iterations: int | None = None
    seconds: float | None = None
    data: dict[str, float] = field(default_factory=dict)  # "ARQua", "SEner", "MaxDis", ...
    warnings: list[str] = field(default_factory=list)


@dataclass
class RunLog:
    """A log put together by load case, in the order of the run."""

    load_cases: list[LoadCaseLog] = field(default_factory=list)
    warnings: list[str] = field(default_factory=list)  # all, those of load cases too
    error: str | None = None
    seconds: float | None = None  # of the whole run, once it has ended
    ended: bool = False
    damaged: list[str] = field(default_factory=list)  # lines without a value that a run writes


_SYSTEM = re.compile(r"Im[48]::MaxBW/MDOF/MPRE=-?\d+/([^/]+)/([^/]+)\Z")


def digest(records: Iterable[LogRecord]) -> RunLog:
    """Put log records together. Accepts a log that is still growing, broke off or is damaged."""
    run = RunLog()
    for record in records:
        try:
            _take(run, record)
        except ValueError:
            run.damaged.append(f"{record.key}: {record.value}")
    return run


def _take(run: RunLog, record: LogRecord) -> None:
    if record.frame == "error":
        run.error = record.text
    elif record.frame == "data" and record.key == "LCaseId":
        run.load_cases.append(LoadCaseLog(_integer(record.value)))
    elif record.frame == "info" and record.key == "Total time":
        run.seconds = seconds(record.value)
    elif record.frame == "info" and record.text == "Tool.vk_rund.End":
        run.ended = True
    else:
        if record.frame == "warning":
            run.warnings.append(record.text)
        if run.load_cases:
            _add(run.load_cases[-1], record)


def _integer(text: str) -> int:
    if re.fullmatch(r"-?\d{1,10}", text, re.ASCII) is None:
        raise ValueError(f"no whole number: {text!r}")
    return int(text)


def _add(case: LoadCaseLog, record: LogRecord) -> None:
    if record.frame == "warning":
        case.warnings.append(record.text)
    elif record.frame == "data":
        case.data[record.key] = record.number()
    elif record.key == "LCasePatInx":
        case.pattern = _integer(record.value)
    elif record.key == "IMode":
        case.mode = _integer(record.value)
    elif record.key == "ICount":
        case.iterations = _integer(record.value)
    elif record.key == "EstDecMemReq":
        case.memory_estimate_gb = record.number()
    elif record.key == "LCaseTime":
        case.seconds = seconds(record.value)
    elif record.key == "SysConfig" and (match := _SYSTEM.match(record.value)):
        case.equations_millions, case.entries_millions = float(match[1]), float(match[2])
