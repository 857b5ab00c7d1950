"""Mistakes of a case file, told by line."""

from __future__ import annotations

import os
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.basics.words import printable

from . import locate

_MOST = 200


@dataclass(frozen=True, order=True)
class Problem:
    """One mistake of a case file; line 0 stands for the file as a whole."""

    line: int
    text: str
    suggestion: str = ""

    def __str__(self) -> str:
        return f"{self.text}; {self.suggestion}" if self.suggestion else self.text


class CaseFileError(Exception):
    """A case file with mistakes, one `FILE:LINE: TEXT; SUGGESTION` a line."""

    def __init__(self, path: PathLike, problems: Iterable[Problem]) -> None:
        self.path = Path(path)
        self.problems = sorted(problems)
        name = os.fspath(path)
        places = [f"{name}:{p.line}: {p}" if p.line else f"{name}: {p}" for p in self.problems]
        super().__init__("\n".join(places))


@dataclass
class Mistakes:
    """Collects the mistakes of one case file."""

    path: Path
    lines: dict[locate.Path, int] = field(default_factory=dict)
    problems: list[Problem] = field(default_factory=list)

    def add(self, where: locate.Path, text: str, suggestion: str = "") -> None:
        """Note a mistake at the key path `where`, or at the nearest table that has a line."""
        while where and where not in self.lines:
            where = where[:-1]
        problem = Problem(self.lines.get(where, 0), printable(text), printable(suggestion))
        if problem not in self.problems and not self.is_full:
            self.problems.append(problem)

    @property
    def is_full(self) -> bool:
        """Whether there are as many mistakes as anybody will read."""
        return len(self.problems) >= _MOST

    def finish(self) -> None:
        """Raise CaseFileError if there is any mistake."""
        if self.problems:
            raise CaseFileError(self.path, self.problems)
