"""Faults that `vkctl.check.structure` tells."""

import numpy as np
import pytest

from vkctl.check.structure import size_findings
from vkctl.directory import formats, model
from vkctl.directory.structure import build_structure

from .faults import assert_stops, assert_told, collection, sound, with_structure

FAULTS, provokes = collection()


@provokes("structure-rows", "error", "45 rows", "48")
def a_structure_of_another_mesh(directory):
    def drop_a_node(s):
        return formats.RawStructure(s.columns, s.row_start[:-3], s.max_bandwidth)

    with_structure(directory, drop_a_node)


@provokes("structure-starts", "error", "row 4")
def row_starts_that_fall(directory):
    with_structure(directory, lambda s: s.row_start.__setitem__(4, s.row_start[3]))


@provokes("structure-column", "error", "row 2")
def a_column_outside(directory):
    with_structure(directory, lambda s: s.columns.__setitem__(s.row_start[2] - 2, 49))


@provokes("structure-diagonal", "error", "row 1")
def a_row_without_diagonal(directory):
    with_structure(directory, lambda s: s.columns.__setitem__(0, 2))


@provokes("structure-order", "error", "row 4", stops=True)
def unsorted_columns(directory):
    def swap(s):
        second = s.row_start[3]
        s.columns[[second, second + 1]] = s.columns[[second + 1, second]]

    with_structure(directory, swap)


@provokes("structure-missing", "error", "1 couplings", "1 with 2")
def a_structure_without_a_coupling(directory):
    whole, part = sound()
    kept = [t for t in part.elements.used_tables() if len(t)]
    structure = build_structure(16, kept)
    row = np.repeat(np.arange(48), np.diff(structure.row_start))
    gone = (row // 3 == 0) & ((structure.columns - 1) // 3 == 1)
    lengths = np.bincount(row[~gone], minlength=48)
    start = np.concatenate(([1], 1 + np.cumsum(lengths)))
    model.write(whole, directory, formats.RawStructure(structure.columns[~gone], start, 9))


@provokes("structure-extra", "note", "share no element")
def a_structure_with_couplings_too_many(directory):
    whole, _ = sound()
    everything = np.arange(1, 17)[None]
    model.write(whole, directory, build_structure(16, [everything]))


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)


def test_sizes_that_no_test_can_write_are_judged_by_their_number():
    assert [f.code for f in size_findings(499_999_999)] == []
    assert [f.code for f in size_findings(500_000_000)] == ["structure-64bit"]
    assert [f.code for f in size_findings(2**31)] == ["structure-too-large"]
