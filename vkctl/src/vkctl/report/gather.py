"""What a directory has for its report, and what it lacks, told in sentences."""

from __future__ import annotations

from collections.abc import Sequence

from vkctl.basics.failures import sentence
from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.log import RunLog, digest, read_log
from vkctl.directory.model import Model
from vkctl.optimise.history import HistoryRow, read_history

from .facts import CaseFacts, case_facts

MOST_CASES = 20  # in three dimensions


def chosen_cases(
    directory: PathLike, there: list[int], wanted: Sequence[int] | None, missing: list[str]
) -> list[int]:
    """Numbers of the load cases to show, of those `there`; ValueError for one without results."""
    if wanted is not None:
        for number in wanted:
            if number not in there:
                raise ValueError(f"load case {number} has no results in {directory}")
        return list(dict.fromkeys(wanted))
    if not there:
        missing.append("Results: no load case has been solved, so the page shows the bare model.")
    if len(there) > MOST_CASES:
        missing.append(
            f"Of {len(there)} solved load cases the page holds the first {MOST_CASES}; "
            "--case chooses others."
        )
    return there[:MOST_CASES]


def facts_of_cases(
    model: Model,
    directory: PathLike,
    numbers: Sequence[int],
    fields: Sequence[str],
    missing: list[str],
) -> list[CaseFacts]:
    """Facts of the load cases whose results can be read and fit the model."""
    cases = []
    for number in numbers:
        try:
            cases.append(case_facts(model, directory, number, fields))
        except (formats.FormatError, OSError, ValueError) as error:
            words = sentence(error) if isinstance(error, OSError) else str(error)
            missing.append(f"Results of load case {number} can't be shown: {words}")
    return cases


def log_of(directory: PathLike, missing: list[str]) -> RunLog | None:
    """What the last run's log says."""
    try:
        return digest(read_log(directory))
    except FileNotFoundError:
        missing.append("A log: the solver hasn't been run here.")
    except (OSError, formats.FormatError) as error:
        missing.append(f"The log can't be read: {error}")
    return None


def history_of(directory: PathLike, missing: list[str]) -> list[HistoryRow]:
    """Finished steps of an optimisation."""
    try:
        return read_history(directory)
    except (OSError, formats.FormatError) as error:
        missing.append(f"The optimisation's history can't be read: {error}")
        return []
