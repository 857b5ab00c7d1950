"""Faults that `vkctl.check.states` tells."""

import numpy as np
import pytest

from vkctl.directory import formats, model
from vkctl.directory.model import Material

from .faults import assert_stops, assert_told, collection, cut, sound, with_level, with_material

FAULTS, provokes = collection()


@provokes("state-displacements", "warning", "too short", "starts from zero")
def displacements_of_a_smaller_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.zeros((15, 3)))


@provokes("state-displacements", "warning", "longer")
def displacements_of_a_larger_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.zeros((17, 3)))


@provokes("state-elements", "warning", "17 elements", "ignored")
def an_element_state_of_another_mesh(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, np.ones(17))


@provokes("state-elements", "warning", "too short", "ignored")
def an_element_state_cut_short(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, np.ones(18))
    cut(directory, "ws.mstate.0001")


@provokes("state-elements", "error", "1 element (4)", "damaged")
def an_element_state_of_zero(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, [1.0] * 3 + [0.0] + [1.0] * 14)


@provokes("state-displacements", "error", "nothing to start from", stops=True)
def displacements_that_are_no_numbers(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.full((16, 3), np.nan))


@provokes("state-criterion", "error", "fewer values", stops=True)
def a_criterion_of_fewer_design_points(directory):
    with_level(directory, 1.0)
    formats.write_options(directory, {"Sta.ResponseDumpFac": 0.5})
    formats.write_criterion(directory, 1, np.ones(15))


@provokes("state-criterion", "warning", "more values")
def a_criterion_of_more_design_points(directory):
    with_level(directory, 1.0)
    formats.write_options(directory, {"Sta.ResponseDumpFac": 0.5})
    formats.write_criterion(directory, 1, np.ones(17))


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
