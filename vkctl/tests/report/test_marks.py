"""Supports and loads as few marks."""

from __future__ import annotations

import re

import numpy as np
import pytest
from results_on_disk import make_model

from vkctl.directory.model import LoadCase
from vkctl.report.about_conditions import about_conditions
from vkctl.report.marks import marks_of


def test_arrows_add_up_to_the_forces_and_their_moments() -> None:
    model = make_model(cells=(24, 12, 12))
    case = LoadCase()
    rng = np.random.default_rng(2)
    nodes = np.arange(1, len(model.nodes) + 1, 3)
    forces = np.outer(rng.uniform(0.5, 2.0, len(nodes)), (0.0, 0.0, -1.0))
    case.load(nodes, forces)
    marks = marks_of(model, case)
    assert 1 < len(marks.places) < len(nodes)
    assert marks.forces.sum(axis=0) == pytest.approx(forces.sum(axis=0), rel=1e-5)
    # Parallel forces act at their middle, so that moments stay as well.
    moment = np.cross(model.nodes[nodes - 1], forces).sum(axis=0)
    assert np.cross(marks.places, marks.forces).sum(axis=0) == pytest.approx(moment, rel=1e-5)


def test_arrows_move_as_the_nodes_below_them_do() -> None:
    model = make_model()
    end = np.flatnonzero(model.nodes[:, 0] == 8.0) + 1
    case = LoadCase().load(end, (1.0, 0.0, 0.0))
    shift = np.full_like(model.nodes, 0.25)
    assert marks_of(model, case, shift).shifts == pytest.approx(0.25)


def test_few_of_many_supported_nodes_are_shown_all_of_few() -> None:
    model = make_model(cells=(24, 12, 12))
    every = LoadCase().prescribe(np.arange(1, len(model.nodes) + 1))
    some = LoadCase().prescribe([3, 5])
    assert 200 < len(marks_of(model, every).supports) <= 400
    assert marks_of(model, some).supports[:, :3].tolist() == model.nodes[[2, 4]].tolist()


def test_a_load_case_without_anything_has_no_marks() -> None:
    marks = marks_of(make_model(), LoadCase())
    assert [len(part) for part in (marks.supports, marks.places, marks.forces)] == [0, 0, 0]


def test_springs_and_temperatures_have_marks_of_their_own() -> None:
    model = make_model()
    case = LoadCase().prescribe([3]).support([5], 10.0).heat([7, 9], [80.0, 20.0])
    marks = marks_of(model, case)
    assert marks.supports[:, :3].tolist() == model.nodes[[2]].tolist()
    assert marks.springs[:, :3].tolist() == model.nodes[[4]].tolist()
    moved = marks_of(model, case, np.full_like(model.nodes, 0.25))
    assert moved.temperatures[:, 3:].tolist() == [[0.25] * 3] * 2
    assert marks.temperatures[:, :3].tolist() == model.nodes[[6, 8]].tolist()


def test_springs_and_temperatures_are_counted_in_the_table_of_load_cases() -> None:
    model = make_model()
    model.load_cases = [LoadCase().prescribe([3]).support([5], 10.0).heat([7, 9], [80.0, 20.0])]
    (row,) = re.findall(r"<tr><td>one</td>.*?</tr>", about_conditions(model, ["one"]), re.DOTALL)
    cells = re.findall(r"<td[^>]*>(.*?)</td>", row)
    assert cells == ["one", "1", "1", "0", "2", "20 to 80"]
