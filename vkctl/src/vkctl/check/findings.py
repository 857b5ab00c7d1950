"""What `check` finds, one record per kind of trouble."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any, Literal

import numpy.typing as npt

# error: the run would stop or its results would be wrong; warning: it would run, and surprise;
# note: worth knowing.
Severity = Literal["error", "warning", "note"]
SEVERITIES: tuple[Severity, ...] = ("error", "warning", "note")

_SHOWN = 5  # numbers listed in a message


@dataclass(frozen=True)
class Finding:
    """One kind of trouble in one place. `code` is its stable name; `where` a file or load case."""

    code: str
    severity: Severity
    message: str
    where: str = ""
    hint: str = ""


def error(code: str, message: str, where: str = "", hint: str = "") -> Finding:
    """Finding that stops the run or makes its results wrong."""
    return Finding(code, "error", message, where, hint)


def warning(code: str, message: str, where: str = "", hint: str = "") -> Finding:
    """Finding that lets the run go on, with a surprise."""
    return Finding(code, "warning", message, where, hint)


def note(code: str, message: str, where: str = "", hint: str = "") -> Finding:
    """Finding that is worth knowing."""
    return Finding(code, "note", message, where, hint)


def some(numbers: Sequence[int] | npt.NDArray[Any]) -> str:
    """The first few of a list of numbers: "3, 4, 9, 12, 15 and 40 more"."""
    text = ", ".join(str(int(number)) for number in numbers[:_SHOWN])
    return text if len(numbers) <= _SHOWN else f"{text} and {len(numbers) - _SHOWN} more"


def counted(count: int, noun: str) -> str:
    """Such as "1 element" or "3 elements"."""
    return f"{count} {noun}" + ("" if count == 1 else "s")


def listed(numbers: Sequence[int] | npt.NDArray[Any], noun: str) -> str:
    """Such as "1 element (7)" or "3 elements (7, 8, 9)"."""
    return f"{counted(len(numbers), noun)} ({some(numbers)})"


@dataclass
class Report:
    """All findings of a directory, the sizes of its model, and estimates of the run."""

    directory: Path
    findings: list[Finding] = field(default_factory=list)
    counts: dict[str, int] = field(default_factory=dict)
    estimate: dict[str, float] = field(default_factory=dict)  # empty where it can't be made

    def of(self, severity: Severity) -> list[Finding]:
        """Findings of a severity."""
        return [finding for finding in self.findings if finding.severity == severity]

    @property
    def status(self) -> int:
        """0 nothing but notes, 1 warnings, 2 errors."""
        return 2 if self.of("error") else 1 if self.of("warning") else 0

    def as_dict(self) -> dict[str, Any]:
        """Plain types for JSON."""
        return {
            "directory": str(self.directory),
            "status": self.status,
            "findings": [asdict(finding) for finding in self.findings],
            "counts": self.counts,
            "estimate": self.estimate,
        }
