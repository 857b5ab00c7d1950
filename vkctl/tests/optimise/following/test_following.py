"""Weight that follows the design, and heat: forces, derivatives, loops."""

from __future__ import annotations

import re
from functools import partial
from pathlib import Path

import numpy as np
import pytest
from small_loops import OPTIONS, SMALL, VK_RUND, write_small

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.levels import level_field
from vkctl.directory.model import LoadCase, Material, Model, read, write
from vkctl.directory.results import read_results
from vkctl.optimise import OptimiseError, history, optimise
from vkctl.optimise.following.criteria import energy_gain
from vkctl.optimise.following.weights import set_weights
from vkctl.optimise.limits.adjoint import Pull, solve_adjoint
from vkctl.optimise.limits.aggregates import nodal_forces, work_of_forces
from vkctl.optimise.limits.sensitivity import _by_list, sensitivity
from vkctl.prepare import new
from vkctl.running.run import run
from vkctl.shapes.boxes import box
from vkctl.stress.points import integration_points
from vkctl.stress.solution import Solution, solution_of
from vkctl.stress.weight import Weight, weight_of
from vkctl.view.grid import mesh_grid

HEAVY = """
[loads.weight]
type = "gravity"
value = [0, -0.01, 0]
follows = true
"""
WEIGHT_AND_FORCE = HEAVY + '\n[[load_case]]\nname = "both"\nloads = ["down", "weight"]\n'


def heavy(folder: Path, settings: str = "", load_cases: str = WEIGHT_AND_FORCE) -> Path:
    cases = write_small(folder, settings, load_cases)
    cases.write_text(cases.read_text().replace("nu = 0.3", "nu = 0.3\ndensity = 1.0"))
    return cases


def test_a_column_bears_its_own_weight_up_to_where_the_level_field_ends_it(tmp_path: Path) -> None:
    """Its end sinks by density g L^2 / (2 E), with L what is left of it."""
    part = box("hex8", (2, 16, 2), (1.0, 16.0, 1.0))
    mesh_grid(Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.0)])).save(
        tmp_path / "part.vtu"
    )
    text = SMALL.split("[node_sets.wall]")[0].replace("nu = 0.3", "nu = 0.0\ndensity = 2.0")
    text += (
        "[face_sets.foot]\nplane = { point = [0, 0, 0], normal = [0, 1, 0] }\n"
        '[supports.foot]\nset = "foot"\n'
        '[level]\nvalue = "10.5 - y"\n' + HEAVY + OPTIONS
    )
    (tmp_path / "cases.toml").write_text(text)
    prepared = new(None, tmp_path / "cases.toml", tmp_path / "run")
    assert prepared.resultants[0, 1] == pytest.approx(-2.0 * 0.01 * 10.5, rel=0.005)
    assert run(tmp_path / "run", mode="direct", vk_rund=VK_RUND).ok
    moved = read_results(tmp_path / "run", 1).displacements
    assert moved is not None
    at = np.flatnonzero(np.isclose(part.nodes[:, 1], 10.0))
    # At 10 of 10.5: the weight above a place y strains it.
    expected = -2.0 * 0.01 * (10.5 * 10.0 - 10.0**2 / 2)
    assert moved[at, 1] == pytest.approx(expected, rel=0.01)


class Shelf:
    """A plate with a wavy level field under its weight, solved at whatever levels."""

    def __init__(self, folder: Path, kind: str, heated: bool) -> None:
        part = box(kind, (6, 3, 1), (6.0, 3.0, 1.0))  # type: ignore[arg-type]
        x, y, z = part.nodes.T
        tip = np.flatnonzero((x > 5.99) & (y < 0.01)) + 1
        case = LoadCase().prescribe(np.flatnonzero(x < 0.01) + 1).load(tip, (0, -1.0, 0))
        material = Material.isotropic(1.0, 0.3)
        if heated:
            material = Material.isotropic(1.0, 0.3, expansion=0.1, initial_strain=0.02)
            case.heat(np.arange(1, len(x) + 1), np.linspace(0, 1, len(x)))
        options = {"Sta.MatSlopeFactor": 20.0, "Sys.MaxNumCompThreads": 1}
        self.model = Model(part.nodes, part.elements, [material], [case], options=options)
        self.model.set_level(0.6 * np.sin(1.1 * x) + 0.3 + 0.3 * np.cos(2 * y + z))
        self.folder = folder
        body = np.zeros((len(part.elements), 3))
        body[:, 1] = np.linspace(-0.3, -0.1, len(body))
        self.weight: Weight = weight_of(self.model, body)

    def solve(self, levels: Array) -> Solution:
        self.model.tp = levels.astype(np.float32)
        fields = level_field(self.model).astype(np.float64)
        set_weights(self.model.load_cases, {1: self.weight}, fields)
        write(self.model, self.folder)
        assert run(self.folder, vk_rund=VK_RUND, mode="direct", again=True).ok
        return solution_of(read(self.folder), read_results(self.folder, 1))

    def weight_slopes(self, along: Array) -> Array:
        fields = level_field(self.model).astype(np.float64)
        return _by_list(self.model, self.weight.slopes(fields, along))


def energy(solution: Solution) -> float:
    blocks = integration_points(solution)
    return sum(float((b.at.energies * b.volumes * b.smooth_presences).sum()) for b in blocks)


@pytest.mark.parametrize(("kind", "heated"), [("hex8", False), ("hex8", True), ("tet10", True)])
def test_derivatives_under_weight_and_heat_are_the_differences_of_solved_values(
    tmp_path: Path, kind: str, heated: bool
) -> None:
    shelf = Shelf(tmp_path, kind, heated)
    levels = shelf.model.tp.astype(np.float64)
    solution = shelf.solve(levels)
    pull = Pull(1, nodal_forces(shelf.model, 1))
    (by_forces,) = solve_adjoint(
        tmp_path / "a", shelf.model, "", [pull], "direct", partial(run, vk_rund=VK_RUND)
    )
    of_energy = sensitivity(shelf.model, solution, by_forces, energy_gain).gradient
    of_energy = of_energy + shelf.weight_slopes(by_forces)
    of_work = sensitivity(shelf.model, solution, by_forces).gradient
    of_work = of_work + shelf.weight_slopes(by_forces + solution.displacements)
    way = np.random.default_rng(3).standard_normal(len(levels))
    step = 0.001
    ends = []
    for sign in (1, -1):
        end = shelf.solve(levels + sign * step * way)
        ends.append((energy(end), work_of_forces(shelf.model, end, 1).measured))
    differences = (np.array(ends[0]) - np.array(ends[1])) / (2 * step)
    for gradient, difference in zip((of_energy, of_work), differences, strict=True):
        size = float(np.linalg.norm(gradient))
        assert gradient @ way == pytest.approx(difference, abs=0.01 * size)


def test_the_criterion_of_a_heated_bar_is_the_closed_form(tmp_path: Path) -> None:
    """Held at both ends, heated by T and pulled in the middle by 2 E A e.

    The halves are strained by e - a T and -e - a T. The energy falls with the area of either half
    by E (e^2 - a^2 T^2) / 2 per volume, whether the one or the other.
    """
    part = box("hex8", (12, 2, 2), (12.0, 1.0, 1.0))
    mesh_grid(Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.0)])).save(
        tmp_path / "part.vtu"
    )
    strain, free = 0.02, 0.01
    text = SMALL.split("[node_sets.wall]")[0].replace("nu = 0.3", "nu = 0.0\nexpansion = 1e-4")
    text += (
        '[node_sets.ends]\nwhere = "x < 0.01 or x > 11.99"\n'
        '[node_sets.middle]\nwhere = "abs(x - 6) < 0.01"\n'
        '[supports.ends]\nset = "ends"\n'
        f'[loads.heat]\ntype = "temperature"\nvalue = {free * 1e4}\n'
        f'[loads.pull]\ntype = "force"\nset = "middle"\nvalue = [{2 * strain}, 0, 0]\n' + OPTIONS
    )
    cases = tmp_path / "cases.toml"
    cases.write_text(text + "[optimise]\nsteps = 1\nradius = 0.1\n")
    optimise(cases, tmp_path / "run", vk_rund=VK_RUND)
    found = history.load_array(history.criterion_file(tmp_path / "run", 1))
    away = (abs(part.nodes[:, 0] - 6) > 1.5) & (part.nodes[:, 0] > 1) & (part.nodes[:, 0] < 11)
    expected = 0.5 * (strain**2 - free**2)
    assert found[away] == pytest.approx(expected, rel=0.03)


def vertical_forces(directory: Path) -> float:
    return float(formats.read_loadcase_map(directory, 1).forces3["Force"][:, 1].sum())


def test_weight_goes_with_the_material_from_step_to_step(tmp_path: Path) -> None:
    cases = heavy(tmp_path, "volume = 0.5\nsteps = 4\nreduction = 0.2\n")
    done = optimise(cases, tmp_path / "run", vk_rund=VK_RUND)
    full = 12 * 6 * 0.01
    assert done.rows[-1].volume == pytest.approx(0.5, abs=0.001)
    assert vertical_forces(tmp_path / "run") == pytest.approx(-0.5 * full, rel=0.02)


def test_a_loop_under_its_weight_goes_on_as_if_it_had_never_stopped(tmp_path: Path) -> None:
    settings = "volume = 0.5\nsteps = {}\nreduction = 0.2\n"
    whole = optimise(heavy(tmp_path / "a", settings.format(3)), tmp_path / "a/run", vk_rund=VK_RUND)
    optimise(heavy(tmp_path / "b", settings.format(2)), tmp_path / "b/run", vk_rund=VK_RUND)
    again = optimise(heavy(tmp_path / "b", settings.format(3)), tmp_path / "b/run", vk_rund=VK_RUND)
    assert [r.objective for r in again.rows] == pytest.approx([r.objective for r in whole.rows])
    assert vertical_forces(tmp_path / "b/run") == vertical_forces(tmp_path / "a/run")


def test_a_weight_that_does_not_follow_stays_that_of_the_design_volume(tmp_path: Path) -> None:
    cases = heavy(tmp_path, "volume = 0.5\nsteps = 2\nreduction = 0.4\n")
    cases.write_text(cases.read_text().replace("follows = true", "follows = false"))
    optimise(cases, tmp_path / "run", vk_rund=VK_RUND)
    assert vertical_forces(tmp_path / "run") == pytest.approx(-12 * 6 * 0.01, rel=1e-6)


def test_a_limited_compliance_is_that_of_each_steps_own_weight(tmp_path: Path) -> None:
    settings = "goal = 'mass'\nsteps = 5\nreduction = 0.1\n"
    settings += "[optimise.limits]\ncompliance = { at_most = 1e5 }\n"
    done = optimise(heavy(tmp_path, settings), tmp_path / "run", vk_rund=VK_RUND)
    (told,) = done.told
    value = float(re.findall(r": ([\d.]+) of", told)[0])
    moved = read_results(tmp_path / "run", 1).displacements
    forces = nodal_forces(read(tmp_path / "run"), 1)
    assert value == pytest.approx(float((forces * moved).sum()), rel=1e-3)
    assert done.rows[-1].volume < 0.9


def test_a_criterion_of_stresses_is_refused_under_a_weight_that_follows(tmp_path: Path) -> None:
    cases = heavy(tmp_path, "steps = 1\n")
    cases.write_text(cases.read_text().replace("[options]", '[options]\n"Sta.TopCriteriaCode" = 1'))
    with pytest.raises(OptimiseError, match="knows nothing of weight"):
        optimise(cases, tmp_path / "run", vk_rund=VK_RUND)


def test_heat_beside_prescribed_displacements_is_refused(tmp_path: Path) -> None:
    heat = '\n[loads.heat]\ntype = "temperature"\nvalue = 1.0\n'
    cases = write_small(tmp_path, "steps = 1\n", heat)
    moved = 'set = "wall"\ntype = "prescribed"\nvalue = [0.1, 0, 0]'
    cases.write_text(cases.read_text().replace('set = "wall"', moved))
    with pytest.raises(OptimiseError, match="make two load cases of it"):
        optimise(cases, tmp_path / "run", vk_rund=VK_RUND)
