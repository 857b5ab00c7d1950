"""Adjoint displacements, solved by the solver itself on a copy of the directory.

The copy lies in the loop's folder. Its load cases have the supports of the load cases that they
belong to, but nothing is prescribed other than zero, and there are no temperatures: what is left is
the linear problem of the same matrix. It begins each step with the displacements of the step
before, and can be removed at any time.
"""

from __future__ import annotations

import json
import shutil
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Model, forces, set_flags, write
from vkctl.running import processes
from vkctl.running.run import RunResult, set_run_options

FOLDER = "adjoint"  # in the loop's folder
_MADE = "made"  # in it, once it is whole: what it was made for
_POLL = 0.1  # seconds between two looks at a solver that an earlier loop has left behind


@dataclass(frozen=True)
class Pull:
    """Forces (n, 3) under the supports of a load case."""

    case: int
    forces: Array


class AdjointError(Exception):
    """The adjoint load cases can't be solved."""

    def __init__(self, text: str, outcome: RunResult) -> None:
        super().__init__(text)
        self.run = outcome


def solve_adjoint(
    folder: Path,
    model: Model,
    digest: str,
    pulls: Sequence[Pull],
    mode: formats.Mode,
    run: Callable[[Path], RunResult],
) -> list[Array]:
    """Displacements (n, 3) of each pull at the model's levels, in either mode.

    `run` has the solver do what a directory requests. `digest` tells one model from another.
    AdjointError where both modes fail.
    """
    while processes.worker_on(folder) is not None:  # outlived the loop that started it
        time.sleep(_POLL)
    sizes = [float(np.abs(pull.forces).max(initial=0.0)) or 1.0 for pull in pulls]
    cases = [_load_case(model, p, size) for p, size in zip(pulls, sizes, strict=True)]
    _make(folder, model, digest, pulls, cases)
    formats.write_tp(folder, model.tp)
    for number, case in enumerate(cases, 1):
        formats.write_loadcase_map(
            folder,
            number,
            formats.LoadCaseMap(case.constraints, case.forces2, case.forces3, case.scalars),
        )
    set_flags(folder, dict.fromkeys(range(1, len(cases) + 1), formats.LOADCASE_REQUESTED))
    _solve(folder, mode, run)
    return [
        formats.read_displacements(folder, number).astype(np.float64) * size
        for number, size in enumerate(sizes, 1)
    ]


def _solve(folder: Path, mode: formats.Mode, run: Callable[[Path], RunResult]) -> None:
    others: tuple[formats.Mode, ...] = ("direct", "iterative")
    for taken in (mode, *(other for other in others if other != mode)):
        set_run_options(folder, mode=taken)
        outcome = run(folder)
        if outcome.ok or outcome.outcome in ("killed", "interrupted"):
            break
    if not outcome.ok:
        raise AdjointError(f"the adjoint load cases: {outcome.advice.sentence}", outcome)


def _load_case(model: Model, pull: Pull, size: float) -> LoadCase:
    original = model.load_cases[pull.case - 1]
    constraints = original.constraints.copy()
    constraints["Value"] = 0.0
    pulled = np.flatnonzero(np.abs(pull.forces).max(axis=1)) + 1
    records = forces(pulled, pull.forces[pulled - 1] / size)
    return LoadCase(pattern=original.pattern, constraints=constraints, forces2=records)


def _make(
    folder: Path, model: Model, digest: str, pulls: Sequence[Pull], cases: list[LoadCase]
) -> None:
    """The copy of the model with these load cases, unless it is there."""
    made_for = json.dumps([digest, [pull.case for pull in pulls]]).encode()
    try:
        if formats.read_regular(folder / _MADE) == made_for:
            return
    except OSError:
        pass
    shutil.rmtree(folder, ignore_errors=True)
    assert model.node_flags is not None
    linear = replace(
        model,
        load_cases=cases,
        run_order=None,
        # Such nodes take no forces, but an adjoint one may act there.
        node_flags=model.node_flags & ~np.int16(formats.NODE_NO_LOADS),
        materials=[replace(material, initial_strain=0.0) for material in model.materials],
        labels=None,
        sets=None,
        notes=None,
    )
    write(linear, folder)
    formats.write_parts(folder / _MADE, [made_for])
