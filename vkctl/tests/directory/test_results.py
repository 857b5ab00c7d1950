"""Result files and log, as a run leaves them."""

import numpy as np
import pytest

from vkctl.directory import formats
from vkctl.directory.results import read_results, solved


def write_results(directory, number, *, state):
    totals = np.zeros(1, formats.TOTALS)[0]
    totals["LoadCase"], totals["Kind"], totals["ARQua"] = number, 1, 0.5
    totals["R"] = 1, 2, 3
    formats.write_totals(directory, number, totals)
    formats.write_criterion(directory, number, [1, 2, 3])
    formats.write_stress(directory, number, [-4, 5])
    formats.write_magnitude(directory, number, [6, 7])
    if state:
        formats.write_displacements(directory, number, np.ones((2, 3)))
        formats.write_element_state(directory, number, [0.5])


def test_results_with_and_without_state_files(tmp_path):
    write_results(tmp_path, 2, state=True)
    write_results(tmp_path, 11, state=False)
    assert solved(tmp_path) == [2, 11]
    r = read_results(tmp_path, 2)
    assert (r.number, r.kind, r.quality, r.applied_load) == (2, 1, 0.5, (1.0, 2.0, 3.0))
    assert r.criterion.tolist() == [1, 2, 3]
    assert r.stress.tolist() == [-4, 5]
    assert r.magnitude.tolist() == [6, 7]
    assert r.displacements is not None and r.element_state is not None
    assert r.displacements.shape == (2, 3)
    assert r.element_state.tolist() == [0.5]
    poor = read_results(tmp_path, 11)
    assert poor.displacements is None
    assert poor.element_state is None


def test_a_load_case_that_is_not_solved_has_no_results(tmp_path):
    with pytest.raises(FileNotFoundError):
        read_results(tmp_path, 1)
