"""Faults that `vkctl.check.hinges` tells."""

import numpy as np
import pytest

from vkctl.check import check
from vkctl.directory import model
from vkctl.shapes.boxes import box

from .faults import assert_told, collection, sound

FAULTS, provokes = collection()


def joined(*shared, count=2):
    """A clamped box with others behind it that have only the nodes `shared` (y, z) in common."""
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes, rows = [part.nodes], [part.elements.tet4]
    for k in range(1, count):
        moved = part.nodes + (3.0 * k, 0, 0)
        numbers = np.arange(1, 17) + 16 * k
        for y, z in shared:
            before = 16 * (k - 1)
            numbers[part.corner("x-", y, z) - 1] = part.corner("x+", y, z) + before
        nodes.append(moved)
        rows.append(numbers[part.elements.tet4 - 1])
    elements = model.Elements.from_tables(tet4=np.concatenate(rows))
    return sound(nodes=np.concatenate(nodes), elements=elements)[0]


@provokes("hinge", "error", "16 nodes hangs on the rest at 1 node (4)", "turn about every axis")
def a_piece_on_a_single_node(directory):
    model.write(joined(("y-", "z-")), directory)


@provokes("hinge", "error", "at 2 nodes (4, 8)", "it can turn about y.")
def a_piece_on_an_edge(directory):
    model.write(joined(("y-", "z-"), ("y+", "z-")), directory)


@provokes("hinge-more", "error", "2 more pieces")
def a_chain_of_pieces(directory):
    model.write(joined(("y-", "z-"), count=6), directory)


@provokes("hinge-many", "warning", "300 pieces")
def very_many_pieces(directory):
    model.write(joined(("y-", "z-"), count=300), directory)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


def test_pieces_that_share_three_nodes_hold_each_other(tmp_path):
    model.write(joined(("y-", "z-"), ("y+", "z-"), ("y-", "z+")), tmp_path)
    assert not [f for f in check(tmp_path).findings if f.severity == "error"]
