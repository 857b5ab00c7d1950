"""Faults that `vkctl.check.supports` tells."""

import numpy as np
import pytest

from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.shapes.boxes import box

from .faults import assert_told, collection, findings_of, sound

FAULTS, provokes = collection()


def supported(change, kind="tet4", **changes):
    """A model whose supports `change` puts in place of the clamped side."""
    whole, part = sound(kind, **changes)
    case = whole.load_cases[0]
    case.constraints = case.constraints[:0]
    change(case, part)
    return whole


@provokes("rigid-body", "error", "The part is not held", "no support at all")
def a_part_without_supports(directory):
    model.write(supported(lambda case, part: None), directory)


@provokes("rigid-body", "error", "it can slide along y and z and turn about x.")
def a_part_held_in_one_direction(directory):
    model.write(supported(lambda case, part: case.prescribe(part.face("x-"), "x")), directory)


@provokes("rigid-body", "error", "it can turn about y.")
def a_part_on_a_hinge(directory):
    model.write(supported(lambda c, part: c.prescribe(part.edge("x-", "z-"))), directory)


@provokes("rigid-body", "error", "it can turn about every axis.")
def a_part_on_a_point(directory):
    model.write(supported(lambda case, part: case.prescribe(1)), directory)


@provokes("rigid-body", "error", "it can slide along z.")
def springs_that_act_in_two_directions(directory):
    model.write(supported(lambda c, part: c.support(part.face("x-"), directions="xy")), directory)


def two_boxes(gap):
    """Two boxes of a mesh; only the first is clamped, the second lies behind a gap."""
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes = np.concatenate((part.nodes, part.nodes + (3.0 + gap, 0, 0)))
    rows = np.concatenate((part.elements.tet4, part.elements.tet4 + 16))
    return sound(nodes=nodes, elements=model.Elements.from_tables(tet4=rows))[0]


@provokes("rigid-body", "error", "Part 2 of 2 (16 nodes, node 17", "no support at all")
def a_second_part_without_supports(directory):
    model.write(two_boxes(1.0), directory)


@provokes("rigid-body", "error", "4 nodes of it coincide", "merge them?")
def a_second_part_that_only_touches(directory):
    model.write(two_boxes(0.0), directory)


@provokes("rigid-body-more", "error", "2 more parts")
def many_loose_parts(directory):
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes = np.concatenate([part.nodes + (5.0 * k, 0, 0) for k in range(6)])
    rows = np.concatenate([part.elements.tet4 + 16 * k for k in range(6)])
    whole, _ = sound(nodes=nodes, elements=model.Elements.from_tables(tet4=rows))
    model.write(whole, directory)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_three_points_held_in_three_two_and_one_directions_are_enough(tmp_path, kind):
    def hold(case, part):
        case.prescribe(part.corner("x-", "y-", "z-"), "xyz")
        case.prescribe(part.corner("x+", "y-", "z-"), "yz")
        case.prescribe(part.corner("x-", "y+", "z-"), "z")

    model.write(supported(hold, kind), tmp_path)
    assert ("rigid-body", "error") not in findings_of(tmp_path)


def test_springs_and_prescribed_displacements_hold_together(tmp_path):
    def hold(case, part):
        case.prescribe(part.face("x-"), "x")
        case.support([1, 5], np.eye(3)[[1, 2, 0]], directions="xy")

    model.write(supported(hold), tmp_path)
    assert ("rigid-body", "error") not in findings_of(tmp_path)
    formats.write_options(tmp_path, {"Sta.SupportStiffness": 0.0})
    assert ("rigid-body", "error") in findings_of(tmp_path)


def test_far_from_the_origin_the_same_supports_hold(tmp_path):
    whole, _ = sound()
    whole.nodes += 1000.0
    model.write(whole, tmp_path)
    assert check(tmp_path).findings == []


def test_each_pattern_is_looked_at(tmp_path):
    whole, _ = sound(count=2)
    whole.load_cases[1].pattern = 2
    whole.load_cases[1].constraints = whole.load_cases[1].constraints[:0]
    model.write(whole, tmp_path)
    found = findings_of(tmp_path)[("rigid-body", "error")]
    assert found.where == "load case 2, pattern 2"
