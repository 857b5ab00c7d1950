"""Faults that `vkctl.check.options` tells."""

import pytest

from .faults import assert_stops, assert_told, collection, with_options

FAULTS, provokes = collection()


@provokes("option-unknown", "warning", "Sta.BStresExp", "Did you mean Sta.BStressExp?")
def an_unknown_key(directory):
    with_options(directory, "Sta.BStresExp=3\n")


@provokes("option-unknown", "warning", "Did you mean Sys.ComputationMode?")
def a_key_in_another_case(directory):
    with_options(directory, "sys.computationmode=2\n")


@provokes("option-clamped", "warning", "Sys.ComputationMode=7", "becomes 2", "line 2")
def an_option_out_of_range(directory):
    with_options(directory, "* comment\n Sys.ComputationMode = 7\n")


@provokes("option-clamped", "warning", "becomes 0.99")
def a_blend_of_one(directory):
    with_options(directory, "Sta.ResponseDumpFac=1.0\n")


@provokes("option-unreadable", "error", "Sta.BStressExp", "whole number", stops=True)
def an_option_that_is_no_number(directory):
    with_options(directory, "Sta.BStressExp=x\n")


@provokes("option-unreadable", "error", "Sta.BStressExp")
def a_key_without_a_value(directory):
    with_options(directory, "Sta.BStressExp\n")


@provokes("option-empty", "note", "keeps its value")
def a_separator_for_a_value(directory):
    with_options(directory, "Sta.BStressExp=,\n")


@provokes("option-twice", "warning", "Sta.BStressExp", "line 2")
def an_option_given_twice(directory):
    with_options(directory, "Sta.BStressExp=3\nSta.BStressExp=4\n")


@provokes("option-prefix", "warning", "Sta.BStressExponent")
def a_key_that_begins_with_another(directory):
    with_options(directory, "Sta.BStressExponent=3\n")


@provokes("option-long-line", "warning", "512")
def a_line_too_long(directory):
    with_options(directory, "Sta.BStressExp=3" + " " * 600 + "\n")


@provokes("option-threads", "note", "Sys.MaxNumCompThreads=100")
def more_threads_than_there_are(directory):
    with_options(directory, "Sys.MaxNumCompThreads=100\n")


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
