"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

import multiprocessing
import signal
import time
from dataclasses import replace
from functools import partial
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from fake_solver import ended_when_seen, lasting_solver
from killing import in_child, killed_before
from small_loops import ONE_CASE, TWO_CASES, VK_RUND, script, write_small

from vkctl.directory import formats
from vkctl.directory.model import read, write
from vkctl.directory.results import read_results
from vkctl.optimise import HistoryRow, OptimiseError, optimise, read_history
from vkctl.optimise import history as loop_files
from vkctl.optimise.begun import start
from vkctl.optimise.loop import Optimised, combined, has_converged, objective
from vkctl.optimise.settings import Settings, read_settings
from vkctl.prepare import CaseFileError, new

ROOT = Path(__file__).resolve().parents[3]


def run_small(folder: Path, settings: str = "", load_cases: str = ONE_CASE, **more) -> Optimised:
    cases = write_small(folder, settings, load_cases)
    return optimise(cases, folder / "d", vk_rund=VK_RUND, **more)


def same_history(rows: list[HistoryRow], expected: list[HistoryRow]) -> None:
    """A solve that was started again begins elsewhere and ends within the solver's tolerance."""
    assert [row.step for row in rows] == [row.step for row in expected]
    for name in ("objective", "volume", "target"):
        values = [getattr(row, name) for row in rows]
        assert values == pytest.approx([getattr(row, name) for row in expected], rel=1e-4)
    changes = [row.change for row in rows]
    assert changes == pytest.approx([row.change for row in expected], abs=1e-4)


def state_of(directory: Path) -> loop_files.State:
    state = loop_files.read_state(directory)
    assert state is not None
    return state


@pytest.mark.thorough
def test_a_loop_killed_at_any_file_operation_goes_on_as_if_nothing_had_happened(
    tmp_path: Path,
) -> None:
    half = "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]\n"
    cases = write_small(tmp_path, "steps = 2\nreduction = 0.1\nkeep = ['far']\n" + half)
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND).rows
    number, ended = 0, False
    while not ended:
        number += 1
        directory = tmp_path / f"d{number}"
        code = in_child(killed_before, partial(optimise, cases, directory, vk_rund=VK_RUND), number)
        assert code in (0, -signal.SIGKILL)
        ended = code == 0
        done = optimise(cases, directory, vk_rund=VK_RUND)
        same_history(done.rows, expected)
        same_history(read_history(directory), expected)
        assert not list((directory / "optimise").glob(".*.tmp"))
        assert np.array_equal(read(directory).tp, done.levels.astype(np.float32))
    assert number > 25  # the working directory's files, then those of two steps


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
    slow = lasting_solver(tmp_path / "slow")
    directory = tmp_path / "d"
    context = multiprocessing.get_context("fork")
    child = context.Process(target=lambda: optimise(cases, directory, vk_rund=slow))
    child.start()
    while not (directory / "begun").exists():
        time.sleep(0.01)
    child.kill()
    child.join()
    assert not (directory / "ended").exists()
    with ended_when_seen(directory):
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


def test_a_loop_that_goes_on_looks_for_the_threshold_where_it_did_before(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 3\nreduction = 0.1\n")
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    kept = state_of(tmp_path / "d")
    assert kept.ratio != 1.0 and kept.steepness is not None and kept.steepness > 0
    sought = start(cases, tmp_path / "d", read_settings(cases), None).design.sought
    assert (sought.ratio, sought.steepness) == (kept.ratio, kept.steepness)


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
    assert state_of(tmp_path / "d").since == 1
    done = run_small(tmp_path, "steps = 2\nweights = { along = 3.0 }\n", TWO_CASES)
    state = state_of(tmp_path / "d")
    assert (state.since, state.weights) == (2, [1.0, 3.0])
    down, along = done.rows[1].energies.values()
    assert done.rows[1].objective == pytest.approx((down + 3 * along) / 4)


def test_sets_to_keep_can_be_added_later(tmp_path: Path) -> None:
    run_small(tmp_path, "steps = 1\n")
    run_small(tmp_path, "steps = 2\nkeep = ['far']\n")
    model = read(tmp_path / "d")
    far = np.flatnonzero((model.nodes[:, 0] > 9.99) & (model.nodes[:, 1] > 3.99)) + 1
    assert state_of(tmp_path / "d").kept == far.tolist()


def renumbered(directory: Path) -> None:
    """Turn the order of the nodes of a directory round, and with it whatever names them."""
    model = read(directory)
    count = len(model.nodes)
    model.nodes = model.nodes[::-1]
    model.elements.hex8 = count + 1 - model.elements.hex8
    assert model.node_tp_index is not None
    model.node_tp_index = model.node_tp_index[::-1]
    for case in model.load_cases:
        for records in (case.constraints, case.forces2, case.forces3):
            records["Node"] = count + 1 - records["Node"]
    write(model, directory)


def test_sets_to_keep_are_found_by_place_where_a_directory_numbers_its_nodes_otherwise(
    tmp_path: Path,
) -> None:
    cases = write_small(tmp_path, "steps = 2\nkeep = ['far']\n")
    new(None, cases, tmp_path / "d")
    renumbered(tmp_path / "d")
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    kept = state_of(tmp_path / "d").kept
    nodes = read(tmp_path / "d").nodes
    far = np.flatnonzero((nodes[:, 0] > 9.99) & (nodes[:, 1] > 3.99)) + 1
    assert kept == far.tolist() and 1 in kept


def test_sets_to_keep_are_refused_where_the_nodes_of_a_directory_lie_elsewhere(
    tmp_path: Path,
) -> None:
    cases = write_small(tmp_path, "steps = 1\nkeep = ['far']\n")
    new(None, cases, tmp_path / "d")
    nodes = formats.read_nodes(tmp_path / "d")
    nodes[0] += 0.125
    formats.write_nodes(tmp_path / "d", nodes)
    with pytest.raises(OptimiseError, match="has its nodes elsewhere than the directory"):
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)


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
    state = state_of(tmp_path / "d")
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


def test_the_criteria_of_load_cases_are_added_with_their_weights() -> None:
    criteria = np.array([[1.0, 4.0, 0.0], [2.0, 1.0, 3.0]])
    weighted, worst = Settings(combine="weighted"), Settings(combine="worst")
    assert combined(criteria, [1.0, 2.0]).tolist() == [5.0, 6.0, 6.0]
    assert objective([5.0, 2.0], [1.0, 3.0], weighted) == pytest.approx(11 / 4)
    assert objective([5.0, 2.0], [1.0, 3.0], worst) == pytest.approx(6.0)


def test_the_worst_load_case_counts_where_a_sum_would_outvote_it(tmp_path: Path) -> None:
    again = TWO_CASES + '\n[[load_case]]\nname = "again"\nloads = ["down"]\n'
    settings = "steps = 6\nreduction = 0.1\ncombine = "
    worst = run_small(tmp_path / "worst", settings + "'worst'\n", again).rows[-1]
    twice = run_small(tmp_path / "2", settings + "'weighted'\n", TWO_CASES).rows[-1]
    thrice = run_small(tmp_path / "3", settings + "'weighted'\n", again).rows[-1]
    assert worst.objective == max(worst.energies.values())
    assert thrice.energies[2] > 1.001 * twice.energies[2]  # outvoted
    assert worst.energies[2] < 0.999 * thrice.energies[2]
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
    # Levels fall from 1 to -1 between x = 5 and 6, in which two of three columns of the solver's
    # points are inside, and rise through 0 at x = 9.
    assert done.rows[0].volume == pytest.approx((5 + 13 / 18 + 3) / 12, abs=0.001)
    told = read_results(tmp_path / "d", 1).material_volume
    assert done.rows[1].volume == pytest.approx(told / 72, rel=2e-5)


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


def test_a_set_to_keep_that_does_not_exist_is_told(tmp_path: Path) -> None:
    with pytest.raises(CaseFileError, match="did you mean 'far'"):
        run_small(tmp_path, "keep = ['fra']\n")


@pytest.mark.parametrize("wrong", [{"volume": 0.0}, {"volume": 1.1}, {"steps": 0}])
def test_wrong_arguments_are_refused(tmp_path: Path, wrong: dict[str, Any]) -> None:
    with pytest.raises(ValueError, match="must be"):
        run_small(tmp_path, **wrong)


def test_a_part_without_loads_is_refused(tmp_path: Path) -> None:
    unloaded = '\n[[load_case]]\nname = "nothing"\nloads = []\n'
    with pytest.raises(OptimiseError, match="criterion isn't positive"):
        run_small(tmp_path, "steps = 1\n", unloaded)


def test_a_part_without_a_requested_load_case_is_refused(tmp_path: Path) -> None:
    with pytest.raises(OptimiseError, match="no load case of .* is requested"):
        run_small(tmp_path, "", ONE_CASE + "requested = false\n")


def test_progress_of_the_solver_comes_with_the_step(tmp_path: Path) -> None:
    seen: list[tuple[int, str]] = []
    run_small(tmp_path, "steps = 2\n", on_progress=lambda step, p: seen.append((step, p.stage)))
    assert {step for step, _ in seen} == {1, 2}
    assert (2, "ended") in seen
