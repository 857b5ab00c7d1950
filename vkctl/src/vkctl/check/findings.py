"""What `check` finds, one record per kind of trouble."""

from __future__ import annotations

from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any, Literal

# error: the run would stop or its results would be wrong; warning: it would run, and surprise;
# note: worth knowing.
Severity = Literal["error", "warning", "note"]
SEVERITIES: tuple[Severity, ...] = ("error", "warning", "note")


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
