"""The file of run options, read as the solver reads it."""

from __future__ import annotations

import math
import re
from collections.abc import Mapping
from dataclasses import dataclass
from decimal import Decimal
from fractions import Fraction
from pathlib import Path
from typing import Literal

import numpy as np

from vkctl.basics.types import PathLike

from .file_names import OPTIONS_FILE
from .regular import read_regular
from .streams import FormatError, write_parts


@dataclass(frozen=True)
class Option:
    """One key of the options file: its type, its default and the limits the solver applies."""

    type: type
    default: float
    low: float | None = None
    high: float | None = None

    def rounded(self, value: float) -> float:
        """A value in the solver's precision, which has no denormal numbers."""
        if self.type is int:
            return value
        single = float(np.float32(value))
        return single if abs(single) >= _SMALLEST else 0.0

    def taken(self, value: float) -> float:
        """The value that the solver works with for one that it has read."""
        value = self.rounded(value)
        if self.low is not None and value < self.low:
            return self.low
        return self.high if self.high is not None and value > np.float32(self.high) else value


_SMALLEST = float(np.finfo(np.float32).tiny)
_LARGEST = float(np.finfo(np.float32).max)
_INTEGERS = -(2**31), 2**31 - 1
# From here on a decimal number is rounded to infinity in single precision.
_TOO_LARGE = 2**128 - 2**103

# Values of "Sys.ComputationMode": the log tells the mode that was taken by the same numbers.
Mode = Literal["automatic", "iterative", "direct"]
MODES: dict[Mode, int] = {"automatic": 0, "iterative": 1, "direct": 2}
MOST_THREADS = 16  # of a run, whatever the option says
LONGEST_LINE = 512  # characters of a line that are read

# In the order in which the solver compares a line with the keys.
OPTIONS: dict[str, Option] = {
    "Sys.AvailableMemGB": Option(float, 8.0),
    "Sys.MaxNumCompThreads": Option(int, 0),
    "Sys.ComputationMode": Option(int, 0, 0, 2),
    "Sta.SupportStiffness": Option(float, 1.0, 0.0),
    "Sta.ResponseDumpFac": Option(float, 0.0, 0.0, 0.99),
    "Sta.TopCriteriaCode": Option(int, 0, 0, 1),
    "Sta.BStressExp": Option(int, 4, 1, 24),
    "Sta.YieldStressFac": Option(float, 1.0, 0.0),
    "Sta.MatSlopeFactor": Option(float, 500.0, 10.0, 10000.0),
}

_INTEGER = re.compile(r"[+-]?[0-9]+\Z")
_FLOAT = re.compile(r"([+-]?(?:[0-9]+\.?[0-9]*|\.[0-9]+))(?:[eEdD]([+-]?[0-9]+)|([+-][0-9]+))?\Z")


def _option_value(text: str, option: Option) -> float | None:
    """Value at the start of `text`; None where a separator leaves the option as it was."""
    text = text.lstrip(" \t")
    token = re.split(r"[ \t,/]", text, maxsplit=1)[0]
    if not token and text:
        return None
    if option.type is int:
        if _INTEGER.match(token):
            return _fitting(int(token), option)
    elif match := _FLOAT.match(token):
        return _fitting(_number(match[1], match[2] or match[3] or "0"), option)
    raise ValueError(text)


def _number(mantissa: str, exponent: str) -> float:
    """The number, infinite where single precision can't hold it."""
    number = float(f"{mantissa}e{exponent}")
    # Close to the limit double precision may have rounded over it.
    if math.isfinite(number) and abs(number) >= float(_TOO_LARGE):
        exact = Fraction(Decimal(mantissa)) * Fraction(10) ** int(exponent)
        return math.inf if abs(exact) >= _TOO_LARGE else math.copysign(_LARGEST, number)
    return number


def _fitting(value: float, option: Option) -> float:
    """The value, ValueError where the option's type of 32 bits can't hold it."""
    if option.type is int:
        fits = _INTEGERS[0] <= value <= _INTEGERS[1]
    else:
        fits = abs(value) < _TOO_LARGE  # of NaN too: no
    if not fits:
        raise ValueError(f"{value!r} doesn't fit into 32 bits")
    return value


@dataclass(frozen=True)
class OptionLine:
    """One line of the options file. `key` is None for comments, blank lines and unknown keys."""

    text: str  # without its line end
    key: str | None
    value: float | None  # None also where a separator leaves the option as it was
    readable: bool  # False: the solver stops here

    @property
    def is_long(self) -> bool:
        """Whether the solver reads its beginning only."""
        return len(self.text) > LONGEST_LINE

    @property
    def read(self) -> str:
        """What the solver reads of it."""
        return self.text[:LONGEST_LINE].strip(" ")


def parse_option_line(text: str) -> OptionLine:
    """Read a line as the solver does: it counts as a key's line when it begins with the key.

    Its end, of either system, may be there or not.
    """
    text = text.removesuffix("\n").removesuffix("\r")
    line = OptionLine(text, None, None, True)
    key = next((k for k in OPTIONS if line.read.startswith(k)), None)
    if key is None:
        return line
    try:
        value = _option_value(line.read[line.read.find("=") + 1 :], OPTIONS[key])
    except ValueError:
        return OptionLine(text, key, None, False)
    return OptionLine(text, key, value, True)


def read_option_lines(directory: PathLike) -> list[OptionLine]:
    """`vk_rund_cmd.txt` line by line."""
    text = read_regular(Path(directory, OPTIONS_FILE)).decode("latin-1")
    return [parse_option_line(line) for line in text.split("\n")]


def read_options(directory: PathLike) -> dict[str, float]:
    """`vk_rund_cmd.txt`: the values given there, by key, before the solver's limits.

    Follows the solver's reader: a line that begins with a key counts, whatever comes between the
    key and the first "="; comments, unknown keys and blank lines are passed over.
    """
    options: dict[str, float] = {}
    for number, line in enumerate(read_option_lines(directory), 1):
        if not line.readable:
            path = Path(directory, OPTIONS_FILE)
            raise FormatError(path, f"line {number}: no value in {line.read!r}")
        if line.key is not None and line.value is not None:
            options[line.key] = line.value
    return options


def _option_text(key: str, value: float) -> str:
    if key not in OPTIONS:
        raise KeyError(f"unknown option {key!r}, known are {', '.join(OPTIONS)}")
    return f"{key}={OPTIONS[key].type(_fitting(value, OPTIONS[key]))!r}"


def update_options(directory: PathLike, changes: Mapping[str, float]) -> None:
    """Set options in `vk_rund_cmd.txt` and leave its other lines alone; made if missing.

    The first line of a key takes the new value, further lines of the key are dropped. ValueError
    for a value that its type of 32 bits can't hold.
    """
    path = Path(directory, OPTIONS_FILE)
    lines = read_regular(path).decode("latin-1").split("\n") if path.exists() else [""]
    end = "\r" if lines[0].endswith("\r") else ""
    waiting = {key: _option_text(key, value) + end for key, value in changes.items()}
    kept = []
    for line in lines:
        key = parse_option_line(line).key
        if key not in changes:
            kept.append(line)
        elif key in waiting:
            kept.append(waiting.pop(key))
    last = kept.pop() if kept and not kept[-1].strip("\r") else None
    kept += [*waiting.values(), "" if last is None else last]
    write_parts(path, ["\n".join(kept).encode("latin-1")])


def write_options(directory: PathLike, options: Mapping[str, float]) -> None:
    """`vk_rund_cmd.txt` from values by key.

    The solver passes over unknown keys and stops at values that 32 bits can't hold, so they raise
    KeyError and ValueError.
    """
    lines = [_option_text(key, value) + "\n" for key, value in options.items()]
    write_parts(Path(directory, OPTIONS_FILE), ["".join(lines).encode("ascii")])
