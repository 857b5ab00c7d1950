"""Faults of what vkctl keeps beside the model, told by `vkctl.check.own_files`."""

from pathlib import Path

import numpy as np
import pytest

from vkctl.directory import formats, model
from vkctl.directory.formats import CaseNotes, NamedSet, NotedCase

from .faults import assert_told, collection, cut, sound

FAULTS, provokes = collection()


@provokes("labels-unfit", "warning", "vkctl.labels is of another mesh", "17 nodes and 18 elements")
def labels_of_another_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_labels(directory, formats.Labels(np.arange(17), np.arange(18)))


@provokes("labels-unfit", "warning", "vkctl.labels can't be read", "element labels")
def labels_cut_short(directory):
    model.write(sound()[0], directory)
    formats.write_labels(directory, formats.Labels(np.arange(16), np.arange(18)))
    cut(directory, "vkctl.labels")


@provokes("labels-unfit", "warning", "vkctl.labels can't be read")
def a_folder_in_place_of_the_labels(directory):
    model.write(sound()[0], directory)
    Path(directory, "vkctl.labels").mkdir()


def with_set(directory, node):
    model.write(sound()[0], directory)
    formats.write_sets(directory, [NamedSet("tip", "node", np.array([1, node]))])


@provokes("sets-unfit", "warning", "vkctl.sets can't be used", "set 'tip' names 17 of 16")
def a_set_of_another_mesh(directory):
    with_set(directory, 17)


@provokes("sets-unfit", "warning", "vkctl.sets can't be used", "set members")
def sets_cut_short(directory):
    with_set(directory, 16)
    cut(directory, "vkctl.sets")


@provokes("names-unfit", "warning", "vkctl.case can't be used: isn't what vkctl writes there")
def notes_cut_short(directory):
    model.write(sound()[0], directory)
    formats.write_case_notes(directory, CaseNotes("mm-N-MPa"))
    cut(directory, "vkctl.case")


@provokes("names-unfit", "warning", "vkctl.case tells of 2 load cases, not 1")
def notes_of_other_load_cases(directory):
    model.write(sound()[0], directory)
    notes = CaseNotes(load_cases=(NotedCase("a"), NotedCase("b")))
    formats.write_case_notes(directory, notes)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")
