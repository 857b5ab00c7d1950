"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

import csv
import multiprocessing
import os
import re
import shutil
import signal
import time
from collections.abc import Callable
from dataclasses import dataclass, replace
from itertools import pairwise
from pathlib import Path

import density_method
import numpy as np
import pytest
import pyvista
from density_method import Frame
from PIL import Image
from rich.console import Console
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.commands import optimise as commands_optimise
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, read
from vkctl.directory.results import read_results
from vkctl.optimise import (
    HistoryRow,
    OptimiseError,
    StepShown,
    optimise,
    read_history,
    read_settings,
)
from vkctl.optimise import history as loop_files
from vkctl.optimise.design import make_design
from vkctl.optimise.loop import Optimised, combined, has_converged, model_at, objective
from vkctl.optimise.pictures import shown_steps
from vkctl.optimise.settings import Settings
from vkctl.prepare import CaseFileError
from vkctl.running.progress import Tracker
from vkctl.shapes.boxes import box
from vkctl.view.grid import mesh_grid

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "vkctl" / "examples"
VK_RUND = Path(os.environ.get("VK_RUND", ROOT / "build" / "release" / "vk_rund")).resolve()
NOBODY = np.empty(0, np.int64)

# One thread: models this small gain nothing from more.
OPTIONS = '\n[options]\n"Sys.MaxNumCompThreads" = 1\n'

SMALL = """
part = "part.vtu"

[materials.unit]
E = 1.0
nu = 0.3

[node_sets.wall]
where = "x < 0.01"

[node_sets.tip]
where = "x > 11.99 and y < 0.01"

[node_sets.top_tip]
where = "x > 11.99 and y > 5.99"

[node_sets.far]
where = "x > 9.99 and y > 3.99"

[supports.wall]
set = "wall"

[loads.down]
type = "force"
set = "tip"
value = [0, -1, 0]

[loads.along]
type = "force"
set = "top_tip"
value = [2, 0, 0]
"""
ONE_CASE = '\n[[load_case]]\nname = "down"\nloads = ["down"]\n'
TWO_CASES = ONE_CASE + '\n[[load_case]]\nname = "along"\nloads = ["along"]\n'


def write_small(folder: Path, settings: str = "", load_cases: str = ONE_CASE) -> Path:
    """A case file of a plate of 12 x 6 x 1 hexahedra."""
    folder.mkdir(parents=True, exist_ok=True)
    part = box("hex8", (12, 6, 1), (12.0, 6.0, 1.0))
    mesh_grid(Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)])).save(
        folder / "part.vtu"
    )
    cases = folder / "cases.toml"
    cases.write_text(SMALL + load_cases + OPTIONS + "\n[optimise]\n" + settings)
    return cases


def run_small(folder: Path, settings: str = "", load_cases: str = ONE_CASE, **more) -> Optimised:
    cases = write_small(folder, settings, load_cases)
    return optimise(cases, folder / "d", vk_rund=VK_RUND, **more)


# --- what it arrives at ----------------------------------------------------------------------


@dataclass
class Compared:
    """A finished loop beside a density method on the same mesh with the same radius."""

    done: Optimised
    frame: Frame
    volume: float
    grey: float  # compliance of the densities, the intermediate ones penalised
    reference: float  # of the densities turned black and white
    filled: np.ndarray  # part of each element that the loop has left as material


@pytest.fixture(
    scope="module", params=[("mbb-beam", "mbb_beam", 0.5), ("cantilever", "cantilever", 0.4)]
)
def compared(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Compared:
    example, name, volume = request.param
    folder = tmp_path_factory.mktemp(example)
    for ending in ("geo", "toml"):
        shutil.copy(EXAMPLES / f"{example}.{ending}", folder)
    cases = folder / f"{example}.toml"
    cases.write_text(cases.read_text() + OPTIONS)
    done = optimise(cases, folder / "d", vk_rund=VK_RUND)
    frame = getattr(density_method, name)()
    densities, grey = density_method.optimise(frame, volume, radius=1.5)
    black = density_method.black_and_white(densities, volume)
    reference = density_method.compliance(frame, black)
    return Compared(done, frame, volume, grey, reference, filled_parts(done, frame))


def filled_parts(done: Optimised, frame: Frame) -> np.ndarray:
    """Filled part of each element, (columns, rows)."""
    model = model_at(done.directory, done.rows[-1].step)
    design = make_design(model, None, NOBODY)
    ((corners, shapes, _),) = design.samples
    levels = design.levels_of_nodes(model.tp.astype(np.float64))
    centres = model.nodes[corners].mean(axis=1).astype(int)
    parts = np.zeros((frame.columns, frame.rows))
    parts[centres[:, 0], centres[:, 1]] = (levels[corners] @ shapes.T > 0).mean(axis=1)
    return parts


def work_of_the_load(directory: Path) -> float:
    forces = read(directory).load_cases[0].forces2
    moved = read_results(directory, 1).displacements
    assert moved is not None
    return float((forces["Force"] * moved[forces["Node"] - 1]).sum())


def test_the_density_method_meets_the_published_compliance() -> None:
    """c = 216.81 for 60 x 20 elements, volume 0.5, radius 2.4 (Andreassen et al. 2011)."""
    _, compliance = density_method.optimise(density_method.mbb_beam(), 0.5, radius=2.4)
    assert compliance == pytest.approx(216.81, abs=0.1)


def test_the_part_is_as_stiff_as_that_of_the_density_method(compared: Compared) -> None:
    """Both turned into whole elements, full or empty, of the same volume."""
    black = density_method.black_and_white(compared.filled, compared.volume)
    ours = density_method.compliance(compared.frame, black)
    assert ours == pytest.approx(compared.reference, rel=0.02)
    assert ours < compared.grey


def test_the_solver_agrees_on_the_compliance_of_the_part(compared: Compared) -> None:
    """In two dimensions, elements that the surface cuts counted by the part that is filled."""
    moduli = np.maximum(compared.filled, density_method.EMPTY)
    flat = density_method.compliance(compared.frame, moduli)
    assert work_of_the_load(compared.done.directory) == pytest.approx(flat, rel=0.01)


def test_the_objective_is_the_strain_energy_of_the_part(compared: Compared) -> None:
    last = compared.done.rows[-1]
    assert 2 * last.objective == pytest.approx(work_of_the_load(compared.done.directory), rel=0.01)
    assert last.energies == {1: last.objective}


def test_the_loop_converges_at_its_volume(compared: Compared) -> None:
    rows = compared.done.rows
    assert compared.done.converged and len(rows) < 60
    assert rows[0].volume == 1.0
    assert rows[-1].target == compared.volume
    assert rows[-1].volume == pytest.approx(compared.volume, abs=0.002)
    assert compared.filled.mean() == pytest.approx(compared.volume, abs=0.002)
    assert min(row.quality for row in rows) > 0.99


# --- resumed ---------------------------------------------------------------------------------


def same_history(rows: list[HistoryRow], expected: list[HistoryRow]) -> None:
    """A solve that was started again begins elsewhere and ends within the solver's tolerance."""
    assert [row.step for row in rows] == [row.step for row in expected]
    for name in ("objective", "volume", "target"):
        values = [getattr(row, name) for row in rows]
        assert values == pytest.approx([getattr(row, name) for row in expected], rel=1e-4)
    changes = [row.change for row in rows]
    assert changes == pytest.approx([row.change for row in expected], abs=1e-4)


def in_child(action: Callable[..., object], *arguments: object) -> int:
    """Exit code of a forked process that does `action`; minus the signal that killed it."""
    child = multiprocessing.get_context("fork").Process(target=action, args=arguments)
    child.start()
    child.join()
    assert child.exitcode is not None
    return child.exitcode


class _Deadly:
    """Stands for a function; instead of its n-th call, counted over all of them, the end comes."""

    calls = 0

    def __init__(self, function: Callable, deadly: int) -> None:
        self.function, self.deadly = function, deadly

    def __call__(self, *args, **kwargs):
        _Deadly.calls += 1
        if _Deadly.calls == self.deadly:
            os.kill(os.getpid(), signal.SIGKILL)
        return self.function(*args, **kwargs)


def _killed_before(cases: Path, directory: Path, number: int) -> None:
    """The loop, killed before its file operation `number`."""
    _Deadly.calls = 0
    os.replace = _Deadly(os.replace, number)
    os.unlink = _Deadly(os.unlink, number)
    optimise(cases, directory, vk_rund=VK_RUND)


def test_a_loop_killed_at_any_file_operation_goes_on_as_if_nothing_had_happened(
    tmp_path: Path,
) -> None:
    cases = write_small(tmp_path, "steps = 2\nreduction = 0.1\nkeep = ['far']\n")
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND).rows
    number, ended = 0, False
    while not ended:
        number += 1
        directory = tmp_path / f"d{number}"
        code = in_child(_killed_before, cases, directory, number)
        assert code in (0, -signal.SIGKILL)
        ended = code == 0
        done = optimise(cases, directory, vk_rund=VK_RUND)
        same_history(done.rows, expected)
        same_history(read_history(directory), expected)
        assert not list((directory / "optimise").glob(".*.tmp"))
        assert np.array_equal(read(directory).tp, done.levels.astype(np.float32))
    assert number > 25  # the working directory's files, then those of two steps


def script(path: Path, text: str) -> Path:
    path.write_text(f"#!/bin/sh\nreal={VK_RUND}\n{text}\n")
    path.chmod(0o755)
    return path


def test_a_solver_that_was_killed_is_finished_not_repeated(tmp_path: Path) -> None:
    """Killed in step 2 with the first of two load cases done."""
    cases = write_small(tmp_path, "steps = 3\n", TWO_CASES)
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND).rows
    # The word of load case 2 stands at byte 8 of the flags.
    killed = script(
        tmp_path / "killed",
        '"$real" "$1" || exit\n'
        '[ -e "$1/optimise/levels.0002.npy" ] || exit 0\n'
        "printf '\\001' | dd of=\"$1/mxs.lcflags\" bs=1 seek=8 conv=notrunc 2>/dev/null\n"
        "kill -9 $$",
    )
    directory = tmp_path / "d"
    with pytest.raises(OptimiseError, match="step 2: ") as raised:
        optimise(cases, directory, vk_rund=killed)
    assert raised.value.run is not None and raised.value.run.outcome == "killed"
    planned: list[list[int]] = []
    done = optimise(
        cases, directory, vk_rund=VK_RUND, on_step=lambda s: planned.append(s.run.planned)
    )
    assert planned == [[2], [1, 2]]
    same_history(done.rows, expected)


def test_a_solver_that_outlived_its_loop_is_waited_for(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\n")
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND).rows
    slow = script(
        tmp_path / "slow",
        'exec 3>>"$1/vk_rund_log.txt"\ntouch "$1/begun"\nsleep 1\n"$real" "$1"\ntouch "$1/ended"',
    )
    directory = tmp_path / "d"
    context = multiprocessing.get_context("fork")
    child = context.Process(target=lambda: optimise(cases, directory, vk_rund=slow))
    child.start()
    while not (directory / "begun").exists():
        time.sleep(0.01)
    child.kill()
    child.join()
    assert not (directory / "ended").exists()
    done = optimise(cases, directory, vk_rund=VK_RUND)
    assert (directory / "ended").exists()
    same_history(done.rows, expected)


def test_more_steps_carry_a_finished_loop_further(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\nreduction = 0.05\n")
    first = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert len(first.rows) == 2 and not first.converged
    again = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert again.rows == first.rows
    more = optimise(cases, tmp_path / "d", steps=4, vk_rund=VK_RUND)
    assert more.rows[:2] == first.rows and len(more.rows) == 4
    assert [row.target for row in more.rows] == pytest.approx([1.0, 0.95, 0.9, 0.85])


def test_another_volume_is_approached_from_where_the_loop_stands(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 3\nreduction = 0.1\nvolume = 0.85\n")
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    done = optimise(cases, tmp_path / "d", volume=0.6, steps=6, vk_rund=VK_RUND)
    assert [row.target for row in done.rows] == pytest.approx([1.0, 0.9, 0.85, 0.85, 0.75, 0.65])
    up = optimise(cases, tmp_path / "d", volume=0.7, steps=8, vk_rund=VK_RUND)
    # Step 7 was laid out when step 6 ended.
    assert [row.target for row in up.rows[5:]] == pytest.approx([0.65, 0.6, 0.7])


def test_other_weights_start_the_wait_for_convergence_anew(tmp_path: Path) -> None:
    settings = "steps = 1\n"
    run_small(tmp_path, settings, TWO_CASES)
    assert loop_files.read_state(tmp_path / "d").since == 1
    done = run_small(tmp_path, "steps = 2\nweights = { along = 3.0 }\n", TWO_CASES)
    state = loop_files.read_state(tmp_path / "d")
    assert (state.since, state.weights) == (2, [1.0, 3.0])
    down, along = done.rows[1].energies.values()
    assert done.rows[1].objective == pytest.approx((down + 3 * along) / 4)


def test_sets_to_keep_can_be_added_later(tmp_path: Path) -> None:
    run_small(tmp_path, "steps = 1\n")
    run_small(tmp_path, "steps = 2\nkeep = ['far']\n")
    model = read(tmp_path / "d")
    far = np.flatnonzero((model.nodes[:, 0] > 9.99) & (model.nodes[:, 1] > 3.99)) + 1
    assert loop_files.read_state(tmp_path / "d").kept == far.tolist()


def test_changes_that_the_directory_does_not_know_of_are_refused(tmp_path: Path) -> None:
    run_small(tmp_path, "steps = 1\n")
    cases = tmp_path / "cases.toml"
    text = cases.read_text()
    cases.write_text("# a comment changes nothing\n" + text)
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    cases.write_text(text.replace("nu = 0.3", "nu = 0.2"))
    with pytest.raises(OptimiseError, match=r"changed outside \[optimise\]"):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


def test_a_directory_with_another_model_is_refused(tmp_path: Path) -> None:
    run_small(tmp_path, "steps = 1\n")
    nodes = formats.read_nodes(tmp_path / "d")
    formats.write_nodes(tmp_path / "d", 1.5 * nodes)
    with pytest.raises(OptimiseError, match="model in .* has changed"):
        run_small(tmp_path, "steps = 2\n")


def test_levels_that_something_else_wrote_are_put_right(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 3\nreduction = 0.1\n")
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND).rows
    optimise(cases, tmp_path / "d", steps=2, vk_rund=VK_RUND)
    state = loop_files.read_state(tmp_path / "d")
    loop_files.write_state(tmp_path / "d", replace(state, running=3))  # as if its run had begun
    formats.write_tp(tmp_path / "d", np.ones(len(read(tmp_path / "d").tp)))
    same_history(optimise(cases, tmp_path / "d", vk_rund=VK_RUND).rows, expected)


def test_two_loops_do_not_share_a_directory(tmp_path: Path) -> None:
    cases = write_small(tmp_path)
    with (
        loop_files.locked(tmp_path / "d"),
        pytest.raises(OptimiseError, match="another optimisation works on"),
    ):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


# --- settings --------------------------------------------------------------------------------


def test_the_criteria_of_load_cases_are_added_or_their_largest_taken() -> None:
    criteria = np.array([[1.0, 4.0, 0.0], [2.0, 1.0, 3.0]])
    weighted, worst = Settings(combine="weighted"), Settings(combine="worst")
    assert combined(criteria, [1.0, 2.0], weighted).tolist() == [5.0, 6.0, 6.0]
    assert combined(criteria, [1.0, 2.0], worst).tolist() == [4.0, 4.0, 6.0]
    assert objective([5.0, 2.0], [1.0, 3.0], weighted) == pytest.approx(11 / 4)
    assert objective([5.0, 2.0], [1.0, 3.0], worst) == pytest.approx(6.0)


def test_worst_counts_a_load_case_once_however_often_it_is_given(tmp_path: Path) -> None:
    again = TWO_CASES + '\n[[load_case]]\nname = "again"\nloads = ["down"]\n'
    rows = {}
    for combine in ("worst", "weighted"):
        settings = f"steps = 6\nreduction = 0.1\ncombine = '{combine}'\n"
        twice = run_small(tmp_path / combine / "2", settings, TWO_CASES).rows[-1]
        thrice = run_small(tmp_path / combine / "3", settings, again).rows[-1]
        rows[combine] = twice, thrice
    twice, thrice = rows["worst"]
    assert thrice.objective == pytest.approx(twice.objective, rel=1e-4)
    assert twice.objective == max(twice.energies.values())
    twice, thrice = rows["weighted"]
    assert thrice.energies[2] > 1.001 * twice.energies[2]  # outvoted
    assert thrice.objective == pytest.approx(sum(thrice.energies.values()) / 3)


def test_kept_sets_stay_material_where_nothing_is_carried(tmp_path: Path) -> None:
    free = run_small(tmp_path / "free", "steps = 12\nvolume = 0.4\n")
    kept = run_small(tmp_path / "kept", "steps = 12\nvolume = 0.4\nkeep = ['far']\n")
    nodes = read(tmp_path / "free" / "d").nodes
    far = (nodes[:, 0] > 9.99) & (nodes[:, 1] > 3.99)
    assert (free.levels[far] < 0).all()
    assert (kept.levels[far] == 1.0).all()
    assert kept.rows[-1].volume == pytest.approx(0.4, abs=0.01)


def test_a_level_field_of_the_case_file_is_the_first_design(tmp_path: Path) -> None:
    """Only its set is designed; what lies outside stays material."""
    cases = write_small(tmp_path, "steps = 2\n")
    level = '\n[level]\nset = "right"\nvalue = "x - 9"\n[node_sets.right]\nwhere = "x > 5.99"\n'
    cases.write_text(cases.read_text().replace("\n[optimise]", level + "\n[optimise]"))
    done = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    first = np.load(tmp_path / "d" / "optimise" / "levels.0001.npy")
    assert (first.min(), first.max(), len(first)) == (-1.0, 1.0, 7 * 7 * 2)
    # Levels fall from 1 to -1 between x = 5 and 6 and rise through 0 at x = 9.
    assert done.rows[0].volume == pytest.approx((5.5 + 3) / 12, abs=0.001)


def rows_of(objectives: list[float], target: float = 0.5) -> list[HistoryRow]:
    return [
        HistoryRow(k, value, target, target, 0.0, 1.0, 0.0, {1: value})
        for k, value in enumerate(objectives, 1)
    ]


def test_the_loop_ends_when_the_mean_objective_of_five_steps_stands_still() -> None:
    settings = Settings(volume=0.5, tolerance=1e-3)
    assert has_converged(rows_of([10.0] * 5 + [10.009] * 5), settings)
    assert has_converged(rows_of([50.0] + [10.0, 11.0] * 5), Settings(tolerance=0.03))
    assert not has_converged(rows_of([10.0] * 5 + [10.011] * 5), settings)
    assert not has_converged(rows_of([10.0] * 9), settings)
    assert not has_converged(rows_of([10.0] * 10, target=0.6), settings)


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("volume = 1.5", "volume in [optimise] must be at most 1"),
        ("volume = 0", "volume in [optimise] must be above 0"),
        ("steps = 0", "steps in [optimise] must be at least 1"),
        ("steps = 2.5", "steps in [optimise] must be a whole number"),
        ("move = 2", "move in [optimise] must be at most 1"),
        ("radius = -1", "radius in [optimise] must be above 0"),
        ("tolerance = 'small'", "tolerance in [optimise] must be a number"),
        ("combine = 'worse'", "did you mean 'worst'?"),
        ("volum = 0.5", "unknown key 'volum' in [optimise]; did you mean 'volume'?"),
        ("weights = { dwn = 2.0 }", "no load case is named 'dwn'; did you mean 'down'?"),
        ("weights = { down = 0.0 }", "down in [optimise.weights] must be above 0"),
    ],
)
def test_mistakes_of_the_settings_are_told_by_line(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    line = cases.read_text().splitlines().index(settings) + 1
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert message in str(problem)
    assert problem.line == line


def test_a_set_to_keep_that_does_not_exist_is_told(tmp_path: Path) -> None:
    with pytest.raises(CaseFileError, match="did you mean 'far'"):
        run_small(tmp_path, "keep = ['fra']\n")


@pytest.mark.parametrize("wrong", [{"volume": 0.0}, {"volume": 1.1}, {"steps": 0}])
def test_wrong_arguments_are_refused(tmp_path: Path, wrong: dict) -> None:
    with pytest.raises(ValueError, match="must be"):
        run_small(tmp_path, **wrong)


def test_a_part_without_loads_is_refused(tmp_path: Path) -> None:
    unloaded = '\n[[load_case]]\nname = "nothing"\nloads = []\n'
    with pytest.raises(OptimiseError, match="criterion isn't positive"):
        run_small(tmp_path, "steps = 1\n", unloaded)


def test_a_part_without_a_requested_load_case_is_refused(tmp_path: Path) -> None:
    with pytest.raises(OptimiseError, match="no load case of .* is requested"):
        run_small(tmp_path, "", ONE_CASE + "requested = false\n")


# --- the design field ------------------------------------------------------------------------


def design_of(kind: str, radius: float = 1.0):
    part = box(kind, (6, 4, 4), (6.0, 4.0, 4.0))  # type: ignore[arg-type]
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    return model, make_design(model, radius, NOBODY)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])
def test_the_volume_of_a_half_space_is_what_it_cuts_off(kind: str) -> None:
    model, design = design_of(kind)
    assert design.volume(np.ones(len(model.tp))) == 1.0
    assert design.volume(model.nodes[:, 0] - 3.0) == pytest.approx(0.5, abs=1e-6)
    assert design.volume(model.nodes[:, 0] - 1.47) == pytest.approx(1 - 1.47 / 6, abs=0.03)


@pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])
@pytest.mark.parametrize("volume", [0.25, 0.8])
def test_the_threshold_meets_the_volume(kind: str, volume: float) -> None:
    model, design = design_of(kind)
    criterion = 1.0 + np.sin(model.nodes).sum(axis=1) ** 2
    levels, threshold = design.next_levels(np.ones(len(model.tp)), criterion, volume, 1.0)
    assert design.volume(levels) == pytest.approx(volume, abs=0.01)
    assert np.array_equal(levels > 0, criterion > threshold)
    assert np.abs(levels).max() <= 1.0


def test_smoothing_keeps_constants_and_reaches_as_far_as_its_radius() -> None:
    model, design = design_of("hex8", radius=1.5)
    assert np.allclose(design.smoothing @ np.full(len(model.tp), 7.0), 7.0)
    peak = np.zeros(len(model.tp))
    peak[70] = 1.0
    smooth = design.smoothing @ peak
    distance = np.linalg.norm(model.nodes - model.nodes[70], axis=1)
    assert (smooth[distance < 1.49] > 0).all() and (smooth[distance >= 1.5] == 0).all()


# --- what it leaves and shows ----------------------------------------------------------------


@pytest.fixture(scope="module")
def drawn(tmp_path_factory: pytest.TempPathFactory) -> tuple[Path, str]:
    """Folder of a loop of four steps run by the command, and what it printed."""
    folder = tmp_path_factory.mktemp("drawn")
    cases = write_small(folder, "reduction = 0.15\n", TWO_CASES)
    command = ["optimise", str(cases), str(folder / "d"), "--volume", "0.6", "--steps", "4"]
    shown = CliRunner().invoke(app, [*command, "--vk-rund", str(VK_RUND)])
    assert shown.exit_code == 0, shown.output
    return folder / "d" / "optimise", shown.output


def test_the_command_prints_a_line_per_step_and_the_end(drawn: tuple[Path, str]) -> None:
    lines = drawn[1].splitlines()
    assert re.match(r"step 1 of 4, objective [\d.]+, volume 1.000, target 1.000, ", lines[0])
    assert [line.split(",")[0] for line in lines[:4]] == [f"step {k} of 4" for k in range(1, 5)]
    assert lines[4].startswith("ended at the step limit after 4 steps: objective ")
    assert len(lines) == 6


def test_the_history_is_a_table(drawn: tuple[Path, str]) -> None:
    with open(drawn[0] / "history.csv", newline="") as stream:
        rows = list(csv.DictReader(stream))
    assert list(rows[0]) == [
        "step", "objective", "volume", "target", "change", "quality", "seconds",
        "energy_1", "energy_2",
    ]  # fmt: skip
    assert [int(row["step"]) for row in rows] == [1, 2, 3, 4]
    assert [float(row["target"]) for row in rows] == pytest.approx([1.0, 0.85, 0.7, 0.6])
    for row in rows:
        mean = 0.5 * (float(row["energy_1"]) + float(row["energy_2"]))
        assert float(row["objective"]) == pytest.approx(mean)


def test_the_chart_is_not_blank(drawn: tuple[Path, str]) -> None:
    with Image.open(drawn[0] / "history.png") as picture:
        pixels = np.asarray(picture.convert("RGB")).reshape(-1, 3)
    blue = (pixels == (31, 119, 180)).all(axis=1)  # the objective's line
    assert blue.sum() > 200 and (pixels == 255).all(axis=1).mean() < 0.99


def test_the_series_shows_the_part_getting_smaller(drawn: tuple[Path, str]) -> None:
    reader = pyvista.get_reader(drawn[0] / "part.pvd")
    assert reader.time_values == [1.0, 2.0, 3.0, 4.0]
    volumes = []
    for time_value in reader.time_values:
        reader.set_active_time_value(time_value)
        volumes.append(reader.read()[0].volume)
    assert volumes[0] == pytest.approx(72.0, rel=1e-3)
    rows = read_history(drawn[0].parent)
    assert volumes == pytest.approx([72.0 * row.volume for row in rows], rel=0.05)


def test_the_animation_has_a_frame_per_step_and_moves(drawn: tuple[Path, str]) -> None:
    with Image.open(drawn[0] / "part.gif") as film:
        frames = []
        for k in range(film.n_frames):
            film.seek(k)
            frame = film.convert("RGB")
            assert len(frame.getcolors(1 << 24)) > 20
            frames.append(np.asarray(frame).astype(int))
    assert len(frames) == 4
    for before, after in pairwise(frames):
        assert (np.abs(after - before).max(axis=2) > 30).sum() > 500


def test_long_histories_are_thinned_and_keep_their_end() -> None:
    assert shown_steps(3) == [1, 2, 3]
    assert shown_steps(100, 10) == [1, 11, 21, 31, 41, 51, 61, 71, 81, 91, 100]


def test_a_terminal_sees_the_steps_and_what_the_solver_does(drawn: tuple[Path, str]) -> None:
    directory = drawn[0].parent
    progress = Tracker(directory).update()
    progress.stage = "factorising"
    steps = [
        StepShown(row, 9, None)  # type: ignore[arg-type]
        for row in read_history(directory)
    ]
    console = Console(width=100, record=True, file=open(os.devnull, "w"))
    console.print(commands_optimise.table(steps, (5, progress)))
    text = console.export_text()
    assert re.search(r"step +objective +volume +target +change +quality +time", text)
    assert re.search(r"4 of 9 +[\d.]+ +0\.\d{3} +0\.600", text)
    assert "step 5: load case 2, factorising; 2 of 2 load cases" in text


def test_progress_of_the_solver_comes_with_the_step(tmp_path: Path) -> None:
    seen: list[tuple[int, str]] = []
    run_small(tmp_path, "steps = 2\n", on_progress=lambda step, p: seen.append((step, p.stage)))
    assert {step for step, _ in seen} == {1, 2}
    assert (2, "ended") in seen


@pytest.mark.parametrize(
    ("text", "status", "words"),
    [("exit 242", 242, "step 1: "), ("kill -9 $$", 137, "step 1: "), (None, 127, "no program")],
)
def test_the_command_tells_how_the_solver_failed(
    tmp_path: Path, text: str | None, status: int, words: str
) -> None:
    cases = write_small(tmp_path)
    program = script(tmp_path / "program", text) if text else tmp_path / "nothing"
    shown = CliRunner().invoke(
        app, ["optimise", str(cases), str(tmp_path / "d"), "--vk-rund", str(program)]
    )
    assert shown.exit_code == status
    assert words in shown.output


def test_the_command_refuses_a_wrong_case_file(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "volume = 2\n")
    shown = CliRunner().invoke(app, ["optimise", str(cases), str(tmp_path / "d")])
    assert shown.exit_code == 2
    assert "cases.toml:" in shown.output and "at most 1" in shown.output
    assert not (tmp_path / "d").exists()
