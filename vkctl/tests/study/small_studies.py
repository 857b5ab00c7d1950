"""Small studies of a plate, and what they leave behind."""

from __future__ import annotations

import csv
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path

from small_loops import TWO_CASES, write_small

from vkctl.study import Outcome, Task, solve

PARAMETERS = """
[parameters.force]
key = "loads.down.value.y"
values = [-1.0, -2.0]

[parameters.modulus]
key = "materials.unit.E"
range = [1.0, 2.0, 2]
"""
RESULTS = """
[results.energy]
value = "strain_energy"
load_case = "down"

[results.stress]
value = "von_mises"
"""


def write_study(
    folder: Path, text: str = PARAMETERS + RESULTS, head: str = "", settings: str = ""
) -> Path:
    """A study file beside a case file of two load cases."""
    if not (folder / "cases.toml").exists():
        write_small(folder, settings, TWO_CASES)
    path = folder / "study.toml"
    path.write_text(f'cases = "cases.toml"\n{head}\n{text}')
    return path


def rows(out: Path) -> list[dict[str, str]]:
    with open(out / "results.csv", newline="") as stream:
        return list(csv.DictReader(stream))


def directories(out: Path) -> list[str]:
    folder = out / "variants"
    return sorted(path.name for path in folder.iterdir()) if folder.is_dir() else []


@contextmanager
def instantly(tasks: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
    """Outcomes without a solver: what a result is worth follows from the variant's number."""
    yield (
        Outcome(task.number, "done", dict.fromkeys(task.columns, task.number / 8), 0.5)
        for task in tasks
    )


@contextmanager
def in_turn(tasks: Sequence[Task], jobs: int) -> Iterator[Iterator[Outcome | None]]:
    """The variants solved one after the other in this process."""
    yield map(solve, tasks)
