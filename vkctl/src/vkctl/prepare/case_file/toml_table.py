"""Reading a TOML table key by key, with every mistake told by line and with a suggestion."""

from __future__ import annotations

import math
import re
import tomllib
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from vkctl.basics.failures import reason
from vkctl.basics.types import PathLike
from vkctl.basics.words import closest, did_you_mean

from . import locate
from .expression import Expression, ExpressionError
from .mistakes import CaseFileError, Mistakes, Problem

Field = float | Expression  # a number, or a formula of x, y and z

_LONGEST_FILE = 4 << 20  # bytes
_DEEPEST = 16  # tables and lists inside of each other
_MOST_PARTS = 32  # of a dotted key
# Parts behind each other with nothing but a dot between them: names, quoted ones included.
_PART = r"""(?:[\w-]++|"[^"]*+"|'[^']*+')"""
_LONG_KEY = re.compile(rf"(?:{_PART}[ \t]*+\.[ \t]*+){{{_MOST_PARTS}}}")
_TYPE_NAMES = {
    bool: "a truth value",
    int: "a whole number",
    float: "a number",
    str: "a text",
    list: "a list",
    dict: "a table",
}


def load(path: PathLike) -> tuple[Table, Mistakes]:
    """The top table of a TOML file and the report for its mistakes.

    CaseFileError where the file is missing or isn't TOML.
    """
    try:
        with open(path, "rb") as stream:
            data = stream.read(_LONGEST_FILE + 1)
        if len(data) > _LONGEST_FILE:
            raise CaseFileError(path, [Problem(0, f"is longer than {_LONGEST_FILE >> 20} MB")])
        text = data.decode("utf-8-sig")
    except OSError as error:
        raise CaseFileError(path, [Problem(0, f"can't be read: {reason(error)}")]) from None
    except UnicodeDecodeError as error:
        raise CaseFileError(path, [Problem(0, f"isn't UTF-8 text: {error.reason}")]) from None
    text = text.replace("\r\n", "\n")
    if (line := _line_of_long_key(text)) is not None:
        raise CaseFileError(path, [Problem(line, "a key of too many parts")])
    try:
        said = tomllib.loads(text)
        if _is_deeper(said, _DEEPEST):
            raise RecursionError
    except RecursionError:
        raise CaseFileError(path, [Problem(0, "tables or lists are nested too deeply")]) from None
    except tomllib.TOMLDecodeError as error:
        match = re.match(r"(.*) \(at line (\d+), column (\d+)\)\Z", str(error), re.DOTALL)
        if match:
            problem = Problem(int(match[2]), f"not TOML: {match[1]} in column {match[3]}")
        else:
            problem = Problem(text.count("\n") + 1, f"not TOML: {error}")
        raise CaseFileError(path, [problem]) from None
    except ValueError as error:  # of numbers with thousands of digits
        raise CaseFileError(path, [Problem(0, f"not TOML: {error}")]) from None
    report = Mistakes(Path(path), locate.locate(text))
    return Table(said, (), report), report


def _line_of_long_key(text: str) -> int | None:
    """Line of a key or header of more parts than any has; such cost their square in time."""
    for number, line in enumerate(text.split("\n"), 1):
        if line.count(".") > _MOST_PARTS and _LONG_KEY.search(line):
            return number
    return None


def _is_deeper(value: object, most: int) -> bool:
    """Whether tables and lists lie more than `most` deep in each other."""
    level = [value]
    for _ in range(most):
        inside: list[object] = []
        for one in level:
            inside += (
                one.values() if isinstance(one, dict) else one if isinstance(one, list) else []
            )
        level = inside
    return bool(level)


_LARGEST = 3.4e38  # a 32-bit number
_SHORTEST = 1e-30  # of a direction's components; shorter ones vanish when they are squared
_LARGEST_INTEGER = 2**31 - 1
_LARGEST_LABEL = 2**62
_LONGEST_SHOWN = 80  # characters of a value in a message


class _Required:
    pass


REQUIRED = _Required()


class Table:
    """One table of the file. Each reading method takes a key; `done` reports the others.

    A mistake goes into the report and the method returns the default, so that one reading finds
    all mistakes.
    """

    def __init__(self, data: dict[str, Any], path: locate.Path, report: Mistakes) -> None:
        self.data = data
        self.path = path
        self.report = report
        self._seen: list[str] = []

    @property
    def label(self) -> str:
        """The table as it is called in messages, such as "[materials.steel]"."""
        parts = [str(p + 1) if isinstance(p, int) else p for p in self.path]
        return f"[{'.'.join(parts)}]" if parts else "the file"

    def where(self, key: str, *more: str | int) -> locate.Path:
        return (*self.path, key, *more)

    def problem(self, key: str, text: str, suggestion: str = "", *more: str | int) -> None:
        """Report a mistake in the value of `key`."""
        self.report.add(self.where(key, *more), f"{key} in {self.label} {text}", suggestion)

    def has(self, key: str) -> bool:
        """Whether the table has a key, which is thereby a known one."""
        self._seen.append(key)
        return key in self.data

    def _take(self, key: str, default: Any) -> tuple[bool, Any]:
        self._seen.append(key)
        if key in self.data:
            return True, self.data[key]
        if isinstance(default, _Required):
            meant = closest(key, self.data)
            hint = f"is {meant!r} meant to be it?" if meant else ""
            self.report.add(self.path, f"{self.label} has no {key!r}", hint)
            return False, None
        return False, default

    def _typed(self, key: str, default: Any, kind: type) -> tuple[bool, Any]:
        given, value = self._take(key, default)
        if given and (not isinstance(value, kind) or (kind is int and isinstance(value, bool))):
            self.problem(key, f"must be {_TYPE_NAMES[kind]}, not {_described(value)}")
            return False, None if isinstance(default, _Required) else default
        return given, value

    def number(
        self,
        key: str,
        default: float | None | _Required = REQUIRED,
        *,
        above: float | None = None,
        least: float | None = None,
        below: float | None = None,
        most: float | None = None,
    ) -> Any:
        """A finite number inside open (above, below) or closed (least, most) limits."""
        given, value = self._take(key, default)
        if not given:
            return value
        number = self._finite(value, (key,))
        if number is None:
            return None if isinstance(default, _Required) else default
        for fails, words in (
            (above is not None and not number > above, f"must be above {above}"),
            (least is not None and not number >= least, f"must be at least {least}"),
            (below is not None and not number < below, f"must be below {below}"),
            (most is not None and not number <= most, f"must be at most {most}"),
        ):
            if fails:
                self.problem(key, f"{words}, not {value!r}")
        return number

    def _finite(self, value: Any, key: tuple[str | int, ...]) -> float | None:
        name, more = str(key[0]), key[1:]
        if isinstance(value, bool) or not isinstance(value, int | float):
            self.problem(name, f"must be a number, not {_described(value)}", "", *more)
        elif not -_LARGEST <= value <= _LARGEST:
            finite = isinstance(value, int) or math.isfinite(value)
            words = "is too large for a 32-bit number:" if finite else "must be finite, not"
            self.problem(name, f"{words} {_described(value)}", "", *more)
        else:
            return float(value)
        return None

    def integer(
        self, key: str, default: int | _Required = REQUIRED, least: int | None = None
    ) -> int:
        given, value = self._typed(key, default, int)
        if given and least is not None and value < least:
            self.problem(key, f"must be at least {least}, not {_described(value)}")
        if given and abs(value) > _LARGEST_INTEGER:
            self.problem(key, f"is too large: {_described(value)}")
            return _LARGEST_INTEGER
        return int(value or 0)

    def boolean(self, key: str, default: bool) -> bool:
        return bool(self._typed(key, default, bool)[1])

    def text(self, key: str, default: str | _Required = REQUIRED) -> str:
        return self._typed(key, default, str)[1] or ""

    def choice(self, key: str, options: Sequence[str], default: str | _Required = REQUIRED) -> str:
        """One of `options`; what isn't gives the first of them."""
        given, value = self._typed(key, default, str)
        if value is None:
            return options[0]
        if given and value not in options:
            text = f"can't be {value!r}"
            suggestion = did_you_mean(value, options)
            self.problem(key, text, suggestion)
            return options[0]
        return str(value)

    def vector(
        self,
        key: str,
        default: Sequence[float] | None | _Required = REQUIRED,
        nonzero: bool = False,
    ) -> Any:
        """Three numbers as a tuple."""
        given, value = self._take(key, default)
        if not given:
            return (0.0, 0.0, 0.0) if value is None and isinstance(default, _Required) else value
        numbers = self._triple(value, (key,))
        if nonzero and max(map(abs, numbers)) < _SHORTEST:
            if isinstance(value, list) and all(isinstance(v, int | float) for v in value):
                short = value and any(value)
                self.problem(key, "is too short" if short else "must not be the zero vector")
            return (1.0, 0.0, 0.0)
        return numbers

    def _triple(self, value: Any, key: tuple[str | int, ...]) -> tuple[float, float, float]:
        if not isinstance(value, list) or len(value) != 3:
            self.problem(
                str(key[0]), f"must be three numbers, not {_described(value)}", "", *key[1:]
            )
            return (0.0, 0.0, 0.0)
        numbers = [self._finite(v, (*key, i)) for i, v in enumerate(value)]
        return tuple(0.0 if n is None else n for n in numbers)  # type: ignore[return-value]

    def triples(self, key: str, count: int | None = None) -> tuple[tuple[float, float, float], ...]:
        """A list of vectors; one vector alone stands for a list of one."""
        given, value = self._take(key, REQUIRED)
        if not given:
            return ()
        if isinstance(value, list) and value and not isinstance(value[0], list):
            value = [value]
        if not isinstance(value, list) or not value or (count and len(value) != count):
            wanted = f"{count} vectors" if count else "a list of vectors"
            self.problem(key, f"must be {wanted} of three numbers, not {_described(value)}")
            return ()
        return tuple(self._triple(v, (key, i)) for i, v in enumerate(value))

    def labels(self, key: str) -> tuple[int, ...] | None:
        """A list of whole numbers from 1 on, None where the key is missing."""
        given, value = self._take(key, None)
        if not given:
            return None
        numbers = value if isinstance(value, list) else [value]
        if not numbers or not all(type(n) is int and 0 < n <= _LARGEST_LABEL for n in numbers):
            self.problem(key, f"must be a list of whole numbers from 1 on, not {_described(value)}")
            return None
        return tuple(numbers)

    def numbers(self, key: str) -> tuple[float, ...]:
        """A list of numbers."""
        given, value = self._take(key, REQUIRED)
        if not given:
            return ()
        if not isinstance(value, list):
            self.problem(key, f"must be a list of numbers, not {_described(value)}")
            return ()
        return tuple(self._finite(v, (key, i)) or 0.0 for i, v in enumerate(value))

    def names(self, key: str, default: Sequence[str] | None | _Required = ()) -> Any:
        """A text or a list of texts, as a tuple."""
        given, value = self._take(key, default)
        if not given:
            return () if value is None and isinstance(default, _Required) else value
        if isinstance(value, str):
            return (value,)
        if not isinstance(value, list) or not all(isinstance(v, str) for v in value):
            self.problem(key, f"must be a name or a list of names, not {_described(value)}")
            return ()
        return tuple(value)

    def field(self, key: str, default: Field | None | _Required = REQUIRED) -> Any:
        """A number, or a formula of x, y and z in quotes."""
        given, value = self._take(key, default)
        if given:
            return self._field(value, (key,))
        return 0.0 if isinstance(default, _Required) else default

    def field_vector(self, key: str) -> tuple[Field, Field, Field]:
        """Three numbers or formulas."""
        given, value = self._take(key, REQUIRED)
        if given and isinstance(value, list) and len(value) == 3:
            return tuple(self._field(v, (key, i)) for i, v in enumerate(value))  # type: ignore[return-value]
        if given:
            self.problem(key, f"must be three numbers or formulas, not {_described(value)}")
        return (0.0, 0.0, 0.0)

    def _field(self, value: Any, key: tuple[str | int, ...]) -> Field:
        if not isinstance(value, str):
            return self._finite(value, key) or 0.0
        try:
            return Expression(value)
        except ExpressionError as error:
            self.problem(str(key[0]), f"holds a formula that {_reason(error)}", "", *key[1:])
            return 0.0

    def formula(self, key: str) -> Expression | None:
        """A formula, None where the key is missing."""
        given, value = self._typed(key, None, str)
        result = self._field(value, (key,)) if given else None
        return result if isinstance(result, Expression) else None

    def table(self, key: str) -> Table | None:
        """A table below this one, None where there is none."""
        given, value = self._typed(key, None, dict)
        return Table(value, self.where(key), self.report) if given else None

    def tables(self, key: str) -> dict[str, Table]:
        """The named tables below `key`, such as all [materials.NAME]."""
        given, value = self._typed(key, None, dict)
        found = {}
        for name, data in value.items() if given else ():
            if isinstance(data, dict):
                found[name] = Table(data, self.where(key, name), self.report)
            else:
                text = f"{name} in [{key}] must be a table, not {_described(data)}"
                self.report.add(
                    self.where(key, name), text, f"write [{key}.NAME] and keys below it"
                )
        return found

    def table_list(self, key: str) -> list[Table]:
        """The tables of an array of tables, such as all [[load_case]]."""
        given, value = self._take(key, None)
        if not given:
            return []
        if isinstance(value, dict):
            self.problem(key, "must be a list of tables", f"write [[{key}]] instead of [{key}]")
            return []
        if not isinstance(value, list) or not all(isinstance(v, dict) for v in value):
            self.problem(key, f"must be a list of tables, not {_described(value)}")
            return []
        return [Table(v, self.where(key, i), self.report) for i, v in enumerate(value)]

    def done(self) -> None:
        """Report the keys that nothing asked for."""
        for key in self.data:
            if self.report.is_full:
                return
            if key not in self._seen:
                text = f"unknown key {key!r} in {self.label}"
                self.report.add(self.where(key), text, did_you_mean(key, dict.fromkeys(self._seen)))


def _described(value: Any) -> str:
    if isinstance(value, dict):
        return "a table"
    if isinstance(value, list):
        return f"a list of {len(value)}"
    if isinstance(value, int) and not isinstance(value, bool) and abs(value) > _LARGEST:
        return f"a number of {value.bit_length()} bits"
    text = repr(value)
    return text if len(text) <= _LONGEST_SHOWN else f"{text[:_LONGEST_SHOWN]}..."


def _reason(error: ExpressionError) -> str:
    text = str(error)
    return text if text.startswith("can't") else f"can't be used: {text}"
