"""Where the solver's iterations of a step begin."""

from __future__ import annotations

import shutil
import signal
from functools import partial
from pathlib import Path

import numpy as np
import pytest
from killing import in_child, killed_before
from small_loops import TWO_CASES, VK_RUND, write_small

from vkctl.directory import formats
from vkctl.optimise import history, optimise
from vkctl.optimise.starting import set_start_vectors


@pytest.fixture
def directory(tmp_path: Path) -> Path:
    """Displacements of load case 1 as step 6 has left them, and those of step 5 kept."""
    target = tmp_path / "d"
    history.folder_of(target).mkdir(parents=True)
    formats.write_displacements(target, 1, np.full((4, 3), 5.0))
    history.save_array(history.displacements_file(target, 5, 1), np.full(12, 3.0))
    history.save_array(history.displacements_file(target, 4, 1), np.full(12, 100.0))
    return target


def test_a_step_starts_on_the_line_through_the_two_before(directory: Path) -> None:
    set_start_vectors(directory, 7, [1])
    np.testing.assert_array_equal(formats.read_displacements(directory, 1), np.full((4, 3), 7.0))
    kept = sorted(path.name for path in history.folder_of(directory).iterdir())
    assert kept == ["displacements.0005.0001.npy", "displacements.0006.0001.npy"]


def test_killed_at_any_file_operation_and_repeated_it_does_the_same(directory: Path) -> None:
    number, ended = 0, False
    while not ended:
        number += 1
        copy = Path(shutil.copytree(directory, directory.with_name(f"copy{number}")))
        code = in_child(killed_before, partial(set_start_vectors, copy, 7, [1]), number)
        assert code in (0, -signal.SIGKILL)
        ended = code == 0
        set_start_vectors(copy, 7, [1])
        np.testing.assert_array_equal(formats.read_displacements(copy, 1), np.full((4, 3), 7.0))
    assert number > 3  # two files written, one removed


@pytest.mark.parametrize("step", [1, 2, 9])
def test_without_two_steps_before_it_starts_where_the_solver_does(
    directory: Path, step: int
) -> None:
    set_start_vectors(directory, step, [1, 2])
    np.testing.assert_array_equal(formats.read_displacements(directory, 1), np.full((4, 3), 5.0))
    assert not history.displacements_file(directory, step - 1, 2).exists()


def test_load_cases_with_element_states_start_from_what_these_belong_to(directory: Path) -> None:
    formats.write_element_state(directory, 1, np.ones(2))
    set_start_vectors(directory, 7, [1])
    np.testing.assert_array_equal(formats.read_displacements(directory, 1), np.full((4, 3), 5.0))


def test_displacements_of_another_mesh_are_passed_over(directory: Path) -> None:
    history.save_array(history.displacements_file(directory, 5, 1), np.full(9, 3.0))
    set_start_vectors(directory, 7, [1])
    np.testing.assert_array_equal(formats.read_displacements(directory, 1), np.full((4, 3), 5.0))


def test_a_loop_takes_other_iterations_and_arrives_at_the_same(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    cases = write_small(tmp_path, "steps = 5\nmode = 'iterative'\n", TWO_CASES)
    faster = optimise(cases, tmp_path / "faster", vk_rund=VK_RUND).rows
    monkeypatch.setattr("vkctl.optimise.solving.set_start_vectors", lambda *told: None)
    plain = optimise(cases, tmp_path / "plain", vk_rund=VK_RUND).rows
    counts = [[row.iterations for row in rows] for rows in (faster, plain)]
    assert counts[0][:2] == counts[1][:2] and counts[0] != counts[1]
    for ours, theirs in zip(faster, plain, strict=True):
        assert ours.objective == pytest.approx(theirs.objective, rel=1e-4)
