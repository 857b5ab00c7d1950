"""Which load cases a run works on, and in which order."""

from __future__ import annotations

from dataclasses import dataclass

from vkctl.basics.types import PathLike

from . import formats


@dataclass(frozen=True)
class PlannedCase:
    """A load case that a run works on."""

    number: int
    pattern: int


def plan(directory: PathLike) -> list[PlannedCase]:
    """Load cases that a run started now would work on, in its order.

    Raises as the readers of `mxs.lcdata` and `mxs.lcflags` do; a run order that leads outside
    them ends the list.
    """
    records = formats.read_loadcases(directory)
    flags, _ = formats.read_loadcase_flags(directory)
    planned: dict[int, PlannedCase] = {}
    for number in records["RunOrder"][: len(flags)].tolist():
        if not 1 <= number <= min(len(records), len(flags)):
            break
        if formats.is_to_run(int(records["Kind"][number - 1]), int(flags[number - 1])):
            planned.setdefault(
                number, PlannedCase(number, int(records["PatternIndex"][number - 1]))
            )
    return list(planned.values())


def wanted(directory: PathLike) -> list[int]:
    """Numbers of the load cases that take part in runs, done or not; raises as `plan` does."""
    records = formats.read_loadcases(directory)
    flags, _ = formats.read_loadcase_flags(directory)
    pairs = zip(records["Kind"].tolist(), flags.tolist(), strict=False)
    return [n for n, (kind, word) in enumerate(pairs, 1) if formats.is_wanted(kind, word)]


def plan_or_nothing(directory: PathLike) -> list[PlannedCase]:
    """`plan`, empty where the files can't be read: the run itself will say what is wrong."""
    try:
        return plan(directory)
    except (OSError, formats.FormatError):
        return []
