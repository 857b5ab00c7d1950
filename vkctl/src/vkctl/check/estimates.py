"""Memory and time of a run, estimated from the model. The numbers behind it are measured ones.

They come from boxes of 4,000 to 100,000 equations of every element type, on one core of an AMD
EPYC server, and are listed in docs/how-to.md. Memory comes out within some 10 percent there; time
depends on the machine and may be off by a factor of two, of three in iterative mode.
"""

from __future__ import annotations

import math
import os
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.memory import available_gb
from vkctl.basics.types import Array, PathLike
from vkctl.directory.formats import MODES, MOST_THREADS, OPTIONS_FILE
from vkctl.directory.numbering import prescribed_components
from vkctl.directory.structure import node_neighbours
from vkctl.shapes.topology import HEX8, TET4, TET10

from .dissection import FactorSize, factor_size, rising_sizes
from .findings import Finding, note, warning
from .inputs import ActiveMesh, Inputs, read_inputs

_GB = 2.0**30
_MARGIN = 1.1  # on the solver's own estimate when it compares with the budget
_BYTES_PER_FACTOR_ENTRY = 4.0  # single precision; measured 3.6 to 4.3
_FACTOR_GB_PER_THREAD = 0.015  # of each thread beyond the first, measured
_PROGRAM_GB = 0.04  # the program itself with its library
_FACTOR_SPEED = 30e9  # operations per second and core, measured 14e9 to 37e9
_FACTOR_PASS = 8.0 / 10e9  # seconds per factor entry and iteration: both sweeps, 10 GB/s
_SWEEP = 3.0e-9  # seconds per matrix entry and iteration without a factor, 2.3 to 3.9 measured
_ORDERING = 0.2e-6  # seconds per matrix entry for ordering and scaling
_ELEMENT_TIME = {TET4: 2.5e-6, HEX8: 9.0e-6, TET10: 20.0e-6}  # seconds, matrix and forces
_FORCES_SHARE = 0.3  # of the time of an element in a load case that keeps its matrix
_FACTOR_ITERATIONS = 3
_ITERATIONS_PER_STEP = 5.5  # iterations per element along the longest side, without a factor
_THREAD_GAIN = 0.7  # of each further thread

_AUTOMATIC, _ITERATIVE = MODES["automatic"], MODES["iterative"]


def estimate(inputs: Inputs) -> dict[str, float]:
    """Estimates by name, empty where the model doesn't allow any.

    "equations", "entries" of the matrix, "factor_gb" as the solver will report it, "memory_gb" of
    the process, "seconds" of the load cases still to run (of all, if all are done), "first_seconds"
    of a pattern's first load case and "next_seconds" of each further one, "iterative" 1 where no
    factor is used.
    """
    matrix = _matrix(inputs)
    if matrix is None:
        return {}
    factor = factor_size(matrix.points, matrix.edges)
    factor_gb = _factor_gb(inputs, factor)
    iterative = _is_iterative(inputs, factor_gb)
    first, further = _case_seconds(inputs, matrix, factor, iterative)
    return {
        "equations": matrix.equations,
        "entries": round(matrix.entries),
        "factor_gb": factor_gb,
        "memory_gb": _memory(inputs, matrix, 0.0 if iterative else factor_gb),
        "seconds": _seconds(inputs, first, further),
        "first_seconds": first,
        "next_seconds": further,
        "iterative": float(iterative),
    }


@dataclass
class FactoredTime:
    """Seconds of all requested load cases with a factor, estimated as far as it is asked for."""

    rising: Iterator[float]  # each at least as much as the one before, the last is the estimate
    known: float = 0.0

    def is_below(self, seconds: float) -> bool:
        while self.known < seconds:
            further = next(self.rising, None)
            if further is None:
                return True
            self.known = further
        return False


def factored_time(directory: PathLike) -> FactoredTime:
    """Of a working directory, read when it is first asked for; infinite without enough memory."""
    return FactoredTime(_rising_seconds(Path(directory)))


def _rising_seconds(directory: Path) -> Iterator[float]:
    inputs, _ = read_inputs(directory)
    inputs.option_values["Sys.ComputationMode"] = MODES["direct"]
    matrix, there = _matrix(inputs), available_gb()
    if matrix is None:
        yield math.inf
        return
    for factor in rising_sizes(matrix.points, matrix.edges):
        if there is not None and _memory(inputs, matrix, _factor_gb(inputs, factor)) > there:
            yield math.inf
            return
        yield _seconds(inputs, *_case_seconds(inputs, matrix, factor, False))


@dataclass(frozen=True)
class _Matrix:
    """Of a model: what its entries are and how nodes with equations are coupled."""

    mesh: ActiveMesh
    equations: int
    entries: float
    edges: tuple[Array, Array]  # 0-based, of the nodes with equations
    points: Array  # (k, 3) where these are


def _matrix(inputs: Inputs) -> _Matrix | None:
    mesh = inputs.mesh
    if mesh is None or not inputs.sound_maps or not np.isfinite(mesh.nodes[mesh.used]).all():
        return None
    fixed = prescribed_components(inputs.maps[inputs.sound_maps[0]].constraints, len(mesh.nodes))
    free = ~fixed & mesh.used[:, None]
    equations = int(free.sum())
    if equations == 0:
        return None
    edges, points = _free_graph(mesh, np.asarray(free.any(axis=1)))
    entries = 9.0 * len(edges[0]) * (equations / (3 * len(points))) ** 2 + 2.0 * equations
    return _Matrix(mesh, equations, entries, edges, points)


def _factor_gb(inputs: Inputs, factor: FactorSize) -> float:
    found = factor.entries * _BYTES_PER_FACTOR_ENTRY / _GB
    return found + _FACTOR_GB_PER_THREAD * (threads(inputs) - 1)


def _free_graph(mesh: ActiveMesh, free: Array) -> tuple[tuple[Array, Array], Array]:
    """Edges between nodes with equations, renumbered from 0, and their coordinates."""
    start, neighbours = node_neighbours(len(free), [rows for _, rows in mesh.blocks.values()])
    row = np.repeat(np.arange(len(free)), np.diff(start))
    inside = (row != neighbours) & free[row] & free[neighbours]
    number = np.cumsum(free) - 1
    return (number[row[inside]], number[neighbours[inside]]), mesh.nodes[free]


def _is_iterative(inputs: Inputs, factor_gb: float) -> bool:
    mode = inputs.option_values["Sys.ComputationMode"]
    budget = inputs.option_values["Sys.AvailableMemGB"]
    return mode == _ITERATIVE or (mode == _AUTOMATIC and 0 < budget < _MARGIN * factor_gb)


def _memory(inputs: Inputs, matrix: _Matrix, factor_gb: float) -> float:
    """Peak of the process, GB: with the factor, or while the raw structure is compressed."""
    mesh, entries = matrix.mesh, matrix.entries
    nodes, elements = len(mesh.nodes), len(mesh.active)
    connectivity = sum(rows.size for _, rows in mesh.blocks.values())
    model = 60 * nodes + 10 * elements + 4 * connectivity
    raw = 4 * len(inputs.structure.columns) + 24 * nodes if inputs.structure is not None else 0
    second = (4 if factor_gb > 0 else 18) * entries  # in single precision, or in blocks
    solving = 12 * entries + second + 180 * nodes + factor_gb * _GB
    return _PROGRAM_GB + (model + max(raw + 4 * entries, solving)) / _GB


def threads(inputs: Inputs) -> int:
    """Threads that the solver would use on this machine."""
    wanted, there = int(inputs.option_values["Sys.MaxNumCompThreads"]), os.cpu_count() or 1
    count = there if wanted == 0 else there + wanted if wanted < 0 else min(wanted, there)
    return max(1, min(count, MOST_THREADS))


def _case_seconds(
    inputs: Inputs, matrix: _Matrix, factor: FactorSize, iterative: bool
) -> tuple[float, float]:
    """The first load case of a pattern and a further one, on threads as those measured on."""
    mesh, entries = matrix.mesh, matrix.entries
    gain = 1 + _THREAD_GAIN * (threads(inputs) - 1)
    elements = sum(_ELEMENT_TIME[code] * len(rows) for code, (_, rows) in mesh.blocks.items())
    if iterative:
        prepare, solve = 0.0, _iterations(mesh, len(matrix.points)) * _SWEEP * entries
    else:
        prepare = factor.operations / _FACTOR_SPEED / gain
        solve = _FACTOR_ITERATIONS * (_FACTOR_PASS * factor.entries + _SWEEP * entries)
    first = elements / gain + _ORDERING * entries + prepare + solve
    return first, _FORCES_SHARE * elements / gain + solve


def _seconds(inputs: Inputs, first: float, further: float) -> float:
    """All load cases to run, on this machine."""
    patterns = [inputs.pattern(number) for number in inputs.to_run or inputs.sequence]
    new = sum(1 for i, p in enumerate(patterns) if i == 0 or p != patterns[i - 1])
    return new * first + (len(patterns) - new) * further


def _iterations(mesh: ActiveMesh, nodes: int) -> float:
    """Iterations without a factor: they grow with the nodes along the longest side."""
    sides = np.sort(np.ptp(mesh.nodes[mesh.used], axis=0))
    spacing = (max(float(sides.prod()), 1e-300) / nodes) ** (1 / 3)
    return max(50.0, _ITERATIONS_PER_STEP * float(sides[-1] / spacing))


def check_estimate(inputs: Inputs, values: dict[str, float]) -> Iterator[Finding]:
    """The estimates against the memory budget and the memory of this machine."""
    if not values:
        return
    mode = inputs.option_values["Sys.ComputationMode"]
    budget = inputs.option_values["Sys.AvailableMemGB"]
    if mode == _AUTOMATIC and values["iterative"]:
        text = (
            f"The factor needs about {_MARGIN * values['factor_gb']:.2g} GB with its margin, the "
            f"budget is {budget:g} GB: the run will go on iteratively."
        )
        yield warning(
            "memory-budget", text, OPTIONS_FILE, "Raise Sys.AvailableMemGB if there is memory."
        )
    elif mode == _AUTOMATIC and budget <= 0:
        text = "Sys.AvailableMemGB is 0 or less: the factor is made whatever memory it needs."
        yield note("memory-no-budget", text, OPTIONS_FILE)
    there = available_gb()
    if there is not None and values["memory_gb"] > there:
        text = f"The run needs about {values['memory_gb']:.2g} GB, {there:.2g} GB are free here."
        hint = (
            "Use --mode iterative, a lower Sys.AvailableMemGB, a coarser mesh, or a larger machine."
        )
        yield warning("memory-machine", text, "", hint)
