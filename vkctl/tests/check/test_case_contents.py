"""Faults that `vkctl.check.case_contents` tells."""

import numpy as np
import pytest

from vkctl.directory import formats, model

from .faults import assert_stops, assert_told, collection, sound, with_case, with_level

FAULTS, provokes = collection()


@provokes("case-node", "error", "1 constraints", "17")
def a_constraint_on_no_node(directory):
    with_case(directory, lambda case, part: case.prescribe(17))


@provokes("case-node", "error", "1 forces of the second list", "outside 1 to 16", stops=True)
def a_force_on_no_node(directory):
    with_case(directory, lambda case, part: case.load(99, (1, 0, 0), section=3))


@provokes("case-node", "error", "1 temperatures", "-1")
def a_temperature_of_no_node(directory):
    with_case(directory, lambda case, part: case.heat(-1, 20.0))


@provokes("constraint-idle", "note", "1 constraint row")
def a_constraint_in_no_direction(directory):
    with_case(directory, lambda case, part: case.prescribe(4, 0))


@provokes("constraint-not-finite", "error", "finite")
def a_prescribed_value_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.prescribe(4, "z", np.nan))


@provokes("constraint-twice", "warning", "1 node (4)")
def two_values_for_a_component(directory):
    with_case(directory, lambda case, part: case.prescribe([4, 4], "z", [[0.1], [0.2]]))


@provokes("constraint-unused", "warning", "(17)")
def a_constraint_on_an_unused_node(directory):
    nodes = np.concatenate((sound()[1].nodes, [(5.0, 5.0, 5.0)]))
    with_case(directory, lambda case, part: case.prescribe(17), nodes=nodes)


@provokes("all-fixed", "error", "no degrees of freedom", stops=True)
def everything_prescribed(directory):
    with_case(directory, lambda case, part: case.prescribe(np.arange(1, 17)))


@provokes("support-no-stiffness", "warning", "1 elastic support")
def springs_without_stiffness(directory):
    options = {"Sta.SupportStiffness": 0.0}
    with_case(directory, lambda case, part: case.support(4), options=options)


@provokes("support-axis", "warning", "1 node (4)")
def a_spring_without_direction(directory):
    with_case(directory, lambda case, part: case.support(4, np.zeros((3, 3))))


@provokes("support-not-finite", "error", "1 node (4)", stops=True)
def a_spring_whose_direction_is_no_number(directory):
    with_case(directory, lambda case, part: case.support(4, np.full((3, 3), np.nan)))


@provokes("support-scaled", "note", "1 node (4)")
def a_spring_with_a_long_axis(directory):
    with_case(directory, lambda case, part: case.support(4, 2 * np.eye(3)))


@provokes("force-twice", "error", "Force list 2", "1 node (16)")
def a_node_twice_in_a_force_list(directory):
    def repeat(case, part):
        case.forces2 = np.concatenate((case.forces2, case.forces2))

    with_case(directory, repeat)


@provokes("force-not-finite", "error", "1 node (4)")
def a_force_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.load(4, (np.inf, 0, 0)))


@provokes("force-fixed", "warning", "0.5 of the load", "1 node (1)")
def half_the_load_on_a_clamped_node(directory):
    with_case(directory, lambda case, part: case.load(1, (0, 0, -1.0)))


@provokes("force-fixed", "note", "1 node (1)")
def a_little_load_on_a_clamped_node(directory):
    with_case(directory, lambda case, part: case.load(1, (0, 0, -1e-3)))


@provokes("force-unused", "warning", "(17)")
def a_force_on_an_unused_node(directory):
    nodes = np.concatenate((sound()[1].nodes, [(5.0, 5.0, 5.0)]))
    with_case(directory, lambda case, part: case.load(17, (1, 0, 0)), nodes=nodes)


@provokes("force-marked", "warning", "(16)", "bit 11")
def a_force_on_a_marked_node(directory):
    flags = np.zeros(16, np.int16)
    flags[15] = formats.NODE_NO_LOADS
    model.write(sound(node_flags=flags)[0], directory)


@provokes("force-in-void", "warning", "1 node (16)")
def a_force_in_the_void(directory):
    with_level(directory, np.where(sound()[1].nodes[:, 0] > 1.5, -1.0, 1.0))


@provokes("load-none", "warning", "no load")
def a_load_case_without_load(directory):
    def unload(case, part):
        case.forces2 = case.forces2[:0]

    with_case(directory, unload)


@provokes("temperature-not-finite", "error", "finite")
def a_temperature_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.heat(4, np.nan))


@provokes("temperature-twice", "warning", "1 node (4)")
def two_temperatures_of_a_node(directory):
    with_case(directory, lambda case, part: case.heat([4, 4], [20.0, 30.0]))


@provokes("temperature-no-effect", "warning", "no material expands")
def temperatures_without_expansion(directory):
    with_case(directory, lambda case, part: case.heat(4, 20.0))


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
