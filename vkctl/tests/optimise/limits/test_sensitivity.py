"""Derivatives by the level field, held against differences of what the solver computes."""

from __future__ import annotations

from dataclasses import dataclass
from functools import partial
from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model, read, write
from vkctl.directory.results import read_results
from vkctl.optimise.limits.adjoint import Pull, solve_adjoint
from vkctl.optimise.limits.aggregates import (
    Value,
    largest_displacement,
    largest_stress,
    work_of_forces,
)
from vkctl.optimise.limits.sensitivity import material_slopes, sensitivity
from vkctl.running.run import run
from vkctl.shapes.boxes import box
from vkctl.stress.points import integration_points
from vkctl.stress.solution import Solution, solution_of

NAMES = ("work", "along", "magnitude", "stress")


@dataclass
class Plate:
    """A plate with a wavy level field, solved at whatever levels."""

    folder: Path
    model: Model
    tip: Array
    free: Array

    def solve(self, levels: Array) -> Solution:
        self.model.tp = levels.astype(np.float32)
        write(self.model, self.folder)
        assert run(self.folder, vk_rund=VK_RUND, again=True).ok
        return solution_of(read(self.folder), read_results(self.folder, 1))

    def values(self, solution: Solution) -> list[Value]:
        return [
            work_of_forces(self.model, solution, 1),
            largest_displacement(solution, self.tip, np.array((0.0, -1.0, 0.0))),
            largest_displacement(solution, self.tip, None),
            largest_stress(solution, self.free),
        ]


def plate(folder: Path, kind: str, slope: float, heated: bool) -> Plate:
    """Clamped and pulled; where it is heated, also pushed aside at its upper corner."""
    part = box(kind, (6, 3, 1), (6.0, 3.0, 1.0))  # type: ignore[arg-type]
    x, y, z = part.nodes.T
    wall = np.flatnonzero(x < 0.01) + 1
    tip = np.flatnonzero((x > 5.99) & (y < 0.01)) + 1
    case = LoadCase().prescribe(wall).load(tip, (0, -1.0, 0))
    material = Material.isotropic(1.0, 0.3)
    if heated:
        material = Material.isotropic(1.0, 0.3, expansion=0.1, initial_strain=0.02)
        case.heat(np.arange(1, len(x) + 1), np.linspace(0, 1, len(x)))
        case.prescribe(np.flatnonzero((x > 5.99) & (y > 2.99)) + 1, "x", (0.3, 0, 0))
    options = {"Sta.MatSlopeFactor": slope, "Sys.MaxNumCompThreads": 1}
    model = Model(part.nodes, part.elements, [material], [case], options=options)
    model.set_level(0.6 * np.sin(1.1 * x) + 0.3 + 0.3 * np.cos(2 * y + z))
    free = np.ones(len(x), np.bool_)
    free[np.concatenate((wall, tip)) - 1] = False
    return Plate(folder, model, tip, free)


def adjoints(plate: Plate, values: list[Value]) -> list[Array]:
    pulls = [Pull(1, value.pull) for value in values]
    return solve_adjoint(
        plate.folder / "adjoint", plate.model, "", pulls, "direct", partial(run, vk_rund=VK_RUND)
    )


@pytest.mark.parametrize(
    ("kind", "slope", "heated"),
    [
        ("hex8", 20.0, False),
        ("tet10", 20.0, True),
        ("tet4", 20.0, True),
        ("hex8", 500.0, True),
    ],
)
def test_derivatives_are_the_differences_of_solved_values(
    tmp_path: Path, kind: str, slope: float, heated: bool
) -> None:
    """The step is so short that its second order, by 1 / slope, stays below a percent."""
    part = plate(tmp_path, kind, slope, heated)
    levels = part.model.tp.astype(np.float64)
    solution = part.solve(levels)
    values = part.values(solution)
    slopes = [
        sensitivity(part.model, solution, adjoint, value.gain).gradient
        for adjoint, value in zip(adjoints(part, values), values, strict=True)
    ]
    volume_slopes = material_slopes(part.model, solution)
    step = 0.02 / slope
    way = np.random.default_rng(3).standard_normal(len(levels))
    ends = [part.solve(levels + sign * step * way) for sign in (1, -1)]
    above, below = (part.values(end) for end in ends)
    for name, up, down, slope_of in zip(NAMES, above, below, slopes, strict=True):
        difference = (up.smooth - down.smooth) / (2 * step)
        size = float(np.linalg.norm(slope_of))
        assert slope_of @ way == pytest.approx(difference, abs=0.01 * size), name
    volumes = [
        sum(float((b.volumes * b.smooth_presences).sum()) for b in integration_points(end))
        for end in ends
    ]
    difference = (volumes[0] - volumes[1]) / (2 * step)
    size = float(np.linalg.norm(volume_slopes))
    assert volume_slopes @ way == pytest.approx(difference, abs=0.01 * size)


@pytest.mark.parametrize("kind", ["hex8", "tet4", "tet10"])
def test_the_criterion_of_a_compliance_is_twice_the_solvers(tmp_path: Path, kind: str) -> None:
    part = plate(tmp_path, kind, 500.0, heated=False)
    solution = part.solve(part.model.tp)
    found = sensitivity(part.model, solution, solution.displacements).criterion
    theirs = read_results(tmp_path, 1).criterion.astype(np.float64)
    assert found == pytest.approx(2 * theirs, rel=1e-4)


def test_nodal_forces_alone_are_their_own_adjoint_load(tmp_path: Path) -> None:
    part = plate(tmp_path, "hex8", 500.0, heated=False)
    solution = part.solve(part.model.tp)
    (adjoint,) = adjoints(part, [work_of_forces(part.model, solution, 1)])
    largest = np.abs(adjoint).max()
    assert adjoint == pytest.approx(solution.displacements, abs=1e-5 * largest)
