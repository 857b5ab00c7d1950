"""Units of a run: constraint patterns with their load cases, and what each needs."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass
from itertools import groupby
from pathlib import Path

from vkctl.check.estimates import estimate
from vkctl.check.inputs import read_inputs
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.plan import PlannedCase

_BYTES_PER_EQUATION = 12_000  # of a run with a factor: more than measured below a million equations
_REST_SHARE = 0.4  # of it that isn't the factor
_FEW_EQUATIONS = 200_000  # up to here that bound will do
_LEAST_GAIN = 0.1  # of a pattern's time, for splitting it


@dataclass(frozen=True)
class Pattern:
    """Load cases of one constraint pattern that a run works on one after the other."""

    number: int
    load_cases: tuple[int, ...]

    @property
    def key(self) -> str:
        return f"{self.number}-{self.load_cases[0]}"


@dataclass(frozen=True)
class Need:
    """What the run of a pattern takes, estimated."""

    memory_gb: float
    rest_gb: float  # of it, what isn't the factor
    first_seconds: float = 0.0  # of a pattern's first load case; 0 where nobody asked
    next_seconds: float = 0.0  # of each further one


def patterns_of(planned: Sequence[PlannedCase]) -> list[Pattern]:
    """The load cases of a run, put together as it goes from pattern to pattern."""
    return [
        Pattern(number, tuple(case.number for case in cases))
        for number, cases in groupby(planned, lambda case: case.pattern)
    ]


def need_of(directory: Path, patterns: Sequence[Pattern], smallest_gb: float, workers: int) -> Need:
    """What a pattern takes: by a bound where that is enough to know, else by the estimates.

    The bound is quick, and enough where the smallest worker has twice as much and no pattern is
    going to be split.
    """
    equations = Path(directory, file_names.NODES).stat().st_size // 4  # three floats a node
    bound = equations * _BYTES_PER_EQUATION / 2**30
    single = workers <= len(patterns) or all(len(p.load_cases) == 1 for p in patterns)
    if equations <= _FEW_EQUATIONS and 2 * bound <= smallest_gb and single:
        return Need(bound, _REST_SHARE * bound)
    inputs, _ = read_inputs(directory)
    values = estimate(inputs)
    if not values:  # the solver will tell what is wrong
        return Need(0.0, 0.0)
    memory, factor = values["memory_gb"], 0.0 if values["iterative"] else values["factor_gb"]
    return Need(memory, memory - factor, values["first_seconds"], values["next_seconds"])


def split(patterns: Sequence[Pattern], need: Need, workers: int, stateful: bool) -> list[Pattern]:
    """Patterns with many load cases in several parts, where workers would be idle otherwise.

    Each part makes the factor anew: that is worth it where it shortens the pattern by a tenth at
    least. Elements that keep a state of their own hand it on inside of a pattern: no splitting.
    """
    parts = workers // max(len(patterns), 1)
    if parts < 2 or stateful or not need.next_seconds:
        return list(patterns)
    found: list[Pattern] = []
    for pattern in patterns:
        count = len(pattern.load_cases)
        size = math.ceil(count / parts)
        whole = need.first_seconds + (count - 1) * need.next_seconds
        pays = (count - size) * need.next_seconds >= _LEAST_GAIN * whole
        step = size if pays else count
        found += [
            Pattern(pattern.number, pattern.load_cases[at : at + step])
            for at in range(0, count, step)
        ]
    return found


def has_state(directory: Path) -> bool:
    """Whether elements keep a state from one run to the next."""
    flags = formats.read_materials(directory)["MaterialFlags"]
    return bool((flags & formats.MATERIAL_WITH_STATE).any())
