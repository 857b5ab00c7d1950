"""What a study file says, as typed data."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

from vkctl.prepare.case_file import locate

Scalar = float | int | str | bool  # what a parameter may be
Deed = Literal["run", "settle", "optimise"]
Take = Literal["max", "min", "mean", "percentile"]
Over = Literal["largest", "smallest", "sum"]
Method = Literal["latin hypercube", "sobol"]


@dataclass(frozen=True)
class Parameter:
    """A value of the case file that changes; one of the four sources is given.

    `base` is what the case file has at the first of the `places`, the paths to what it sets.
    """

    name: str
    where: locate.Path
    keys: tuple[str, ...]
    places: tuple[tuple[str | int, ...], ...]
    base: Scalar
    values: tuple[Scalar, ...] = ()  # of a list or a range
    between: tuple[float, float] | None = None  # of a sample
    logarithmic: bool = False
    whole: bool = False  # rounded to whole numbers
    column: str | None = None  # of the table


@dataclass(frozen=True)
class Sample:
    method: Method = "latin hypercube"
    count: int = 0
    seed: int = 0


@dataclass(frozen=True)
class Wanted:
    """A value that is reported."""

    name: str
    where: locate.Path
    value: str  # a field, a total, or what is told of the whole run
    take: Take = "max"
    percentile: float = 50.0
    over: Over = "largest"  # of several load cases
    load_case: str | None = None  # None: all of them; "each": a column for each
    set: str | None = None


@dataclass(frozen=True)
class Keep:
    """Whose directories stay: of all, none or the failed ones, or the best by a column."""

    which: Literal["all", "none", "failed", "best"] = "failed"
    count: int = 0
    by: str = ""
    order: Literal["smallest", "largest"] = "smallest"


@dataclass
class StudyFile:
    path: Path
    cases: Path
    said: dict[str, object]  # the case file
    load_cases: tuple[str, ...]  # names of those that a run solves, by the case file
    numbers: tuple[int, ...]  # theirs
    parameters: list[Parameter] = field(default_factory=list)
    sample: Sample = field(default_factory=Sample)
    table: Path | None = None
    deed: Deed = "run"
    mode: Literal["automatic", "iterative", "direct"] | None = None
    tolerance: float = 1e-3  # of "settle"
    wanted: list[Wanted] = field(default_factory=list)
    keep: Keep = field(default_factory=Keep)
