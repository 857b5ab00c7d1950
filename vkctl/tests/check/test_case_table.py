"""Faults that `vkctl.check.case_table` tells."""

import numpy as np
import pytest

from vkctl.directory import formats, model
from vkctl.running.run import run

from .faults import assert_stops, assert_told, collection, sound, with_records

FAULTS, provokes = collection()


@provokes("count-cases", "error", "has 2 load cases", "has 1")
def flags_of_more_load_cases(directory):
    model.write(sound()[0], directory)
    formats.write_loadcase_flags(directory, [1, 1])


@provokes("order-outside", "error", "position 1", stops=True)
def a_run_order_that_leads_outside(directory):
    with_records(directory, lambda r: r["RunOrder"].__setitem__(0, 2))


@provokes("order-incomplete", "warning", "(2)")
def a_run_order_that_leaves_one_out(directory):
    with_records(directory, lambda r: r["RunOrder"].__setitem__(1, 1), 2)


@provokes("case-kind", "warning", "(1)")
def a_load_case_of_another_kind(directory):
    with_records(directory, lambda r: r["Kind"].__setitem__(0, 3))


@provokes("case-number", "error", "(10000)", "mxs.lcmap.****")
def too_many_load_cases(directory):
    model.write(sound()[0], directory)
    records = np.repeat(formats.read_loadcases(directory), 10000)
    records["RunOrder"] = np.arange(1, 10001)
    formats.write_loadcases(directory, records)
    formats.write_loadcase_flags(directory, 9999 * [4] + [1])


@provokes("nothing-requested", "warning", "does nothing")
def no_load_case_requested(directory):
    model.write(sound()[0], directory)
    model.set_flags(directory, {1: 0})


@provokes("all-done", "note", "does nothing")
def every_load_case_done(directory):
    model.write(sound()[0], directory)
    model.set_flags(directory, {1: 3})


@provokes("pattern-zero-first", "error", "Load case 1", stops=True)
def the_first_pattern_is_zero(directory):
    with_records(directory, lambda r: r["PatternIndex"].__setitem__(0, 0))


@provokes("pattern-zero", "warning", "(2)")
def a_later_pattern_is_zero(directory):
    with_records(directory, lambda r: r["PatternIndex"].__setitem__(1, 0), 2)


@provokes("pattern-components", "error", "Load cases 1 and 2", "1 node (4)")
def load_cases_of_a_pattern_with_other_components(directory):
    whole, part = sound(count=2)
    whole.load_cases[1].prescribe(part.corner("x+", "y-", "z-"), "z")
    model.write(whole, directory)


@provokes("pattern-values", "error", "load case 2", "1 node (4)")
def a_prescribed_value_that_the_first_load_case_has_as_zero(directory):
    whole, part = sound(count=2)
    for case, value in zip(whole.load_cases, (0.0, 0.1), strict=True):
        case.prescribe(part.corner("x+", "y-", "z-"), "z", value)
    model.write(whole, directory)


@provokes("pattern-values", "error", "2 nodes (4, 8)")
def prescribed_rows_in_another_order(directory):
    whole, part = sound(count=2)
    for case, nodes in zip(whole.load_cases, ([4, 8], [8, 4]), strict=True):
        case.prescribe(nodes, "z", [[0.1], [0.2]])
    whole.load_cases[1].constraints["Value"][-2:] = [[0.2] * 3, [0.1] * 3]
    model.write(whole, directory)


@provokes("pattern-supports", "error", "elastic supports")
def load_cases_of_a_pattern_with_other_springs(directory):
    whole, _ = sound(count=2)
    whole.load_cases[1].support([4])
    model.write(whole, directory)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)


def test_a_misread_prescribed_value_is_what_the_solver_takes(tmp_path):
    a_prescribed_value_that_the_first_load_case_has_as_zero(tmp_path)
    assert run(tmp_path).ok
    assert formats.read_displacements(tmp_path, 2)[3, 2] == 0.0
