"""The order of nodes: from both ends, and of hexahedra halves and colours, on meshes with and
without structure."""

from __future__ import annotations

import numpy as np
import pytest
from scipy.spatial import Delaunay

from vkctl.basics.types import Array
from vkctl.shapes.boxes import box, renumbered
from vkctl.shapes.ordering import from_both_ends, in_colours
from vkctl.shapes.topology import HEX8_EDGES

CELLS = (7, 5, 4)


def ring(count: int, layers: int = 2) -> tuple[Array, Array]:
    """Points and rows of positions of a closed ring of hexahedra, one across and `layers` up."""
    angle = 2 * np.pi * np.arange(count) / count
    flat = np.concatenate([np.column_stack((np.cos(angle), np.sin(angle))) * r for r in (1, 2)])
    points = np.concatenate(
        [np.column_stack((flat, np.full(2 * count, z))) for z in range(layers + 1)]
    )
    inner, following = np.arange(count), np.roll(np.arange(count), -1)
    face = np.column_stack((inner, inner + count, following + count, following))
    rows = [np.hstack((face, face + 2 * count)) + 2 * count * z for z in range(layers)]
    return points, np.concatenate(rows)


def fan(count: int) -> tuple[Array, Array]:
    """The same of hexahedra that all share an edge."""
    angle = np.pi * np.arange(2 * count) / count
    rim = np.column_stack((np.cos(angle), np.sin(angle)))
    flat = np.concatenate((np.zeros((1, 2)), rim))
    points = np.concatenate([np.column_stack((flat, np.full(len(flat), z))) for z in (0, 1)])
    first = 1 + 2 * np.arange(count)
    last = 1 + (2 * np.arange(count) + 2) % (2 * count)
    face = np.column_stack((np.zeros(count, np.int64), first, first + 1, last))
    return points, np.hstack((face, face + len(flat)))


def levels_of(rows: Array, order: Array) -> Array:
    """Of each position: one more than the highest of its neighbours that come before it.

    So many sweeps in parallel does the order leave.
    """
    rank = np.empty(len(order), np.int64)
    rank[order] = np.arange(len(order))
    levels = np.zeros(len(order), np.int64)
    neighbours: list[set[int]] = [set() for _ in order]
    for row in rows.tolist():
        for node in row:
            neighbours[node].update(row)
    for node in order.tolist():
        before = [levels[other] for other in neighbours[node] if rank[other] < rank[node]]
        levels[node] = 1 + max(before, default=0)
    return levels


def box_rows() -> tuple[Array, Array, Array]:
    part = box("hex8", CELLS)
    return part.nodes * CELLS, part.elements.hex8.astype(np.int64) - 1, part.lattice


def test_nodes_from_both_ends_follow_each_other_along_the_longest_side_to_the_middle() -> None:
    x = np.array([9.0, 1.0, 5.0, 0.0, 10.0, 4.0])
    points = np.column_stack((x / 2, -x, 1e8 * np.ones(6)))
    np.testing.assert_array_equal(from_both_ends(points), [3, 4, 0, 1, 5, 2])
    assert not len(from_both_ends(np.empty((0, 3))))


def test_from_both_ends_half_as_many_levels_are_left_as_from_one() -> None:
    points = np.random.default_rng(1).random((2000, 3)) * (30, 4, 4)
    rows = Delaunay(points).simplices.astype(np.int64)
    one = levels_of(rows, np.argsort(points[:, 0])).max()
    both = levels_of(rows, from_both_ends(points)).max()
    assert 0.45 * one < both < 0.65 * one


def test_a_box_has_two_halves_of_four_colours_each() -> None:
    points, rows, lattice = box_rows()
    order = in_colours(points, rows)
    assert sorted(order) == list(range(len(points)))
    odd = lattice[order].sum(axis=1) % 2
    assert (np.diff(odd) >= 0).all() and odd[0] == 0
    parities = lattice[order] % 2 @ (1, 2, 4)
    assert np.count_nonzero(np.diff(parities)) == 7  # each combination in one run
    assert levels_of(rows, order).max() == 8


def test_nodes_of_one_colour_lie_from_both_ends() -> None:
    points, rows, lattice = box_rows()
    placed = lattice[in_colours(points, rows)]
    same = np.diff(placed % 2 @ (1, 2, 4)) == 0
    assert (np.diff(placed @ (100, 10, 1))[same] > 0).all()


def test_the_order_is_the_places_and_not_the_numbers() -> None:
    points, rows, _ = box_rows()
    mixed = np.random.default_rng(3).permutation(len(points))
    number = np.empty(len(points), np.int64)
    number[mixed] = np.arange(len(points))
    again = in_colours(points[mixed], number[rows][::-1])
    np.testing.assert_array_equal(points[mixed][again], points[in_colours(points, rows)])


def test_several_pieces_have_their_halves_each() -> None:
    points, rows, _ = box_rows()
    count = len(points)
    order = in_colours(
        np.concatenate((points, points + (20, 0, 0))), np.concatenate((rows, rows + count))
    )
    assert sorted(order) == list(range(2 * count))
    assert sum(order[:count] < count) == sum(order[:count] >= count)


@pytest.mark.parametrize("count", (6, 7))
def test_a_ring_is_ordered_whether_its_elements_are_even_or_odd(count: int) -> None:
    points, rows = ring(count)
    order = in_colours(points, rows)
    assert sorted(order) == list(range(len(points)))
    half = np.empty(len(points), np.bool_)
    edges = np.unique(np.sort(rows[:, HEX8_EDGES].reshape(-1, 2), axis=1), axis=0)
    half[order] = np.arange(len(order)) >= len(order) // 2
    along = (half[edges[:, 0]] != half[edges[:, 1]]).mean()
    assert along == 1 if count == 6 else along > 0.6


def test_too_many_elements_around_a_node_leave_the_order_from_both_ends() -> None:
    points, rows = fan(40)
    np.testing.assert_array_equal(in_colours(points, rows), from_both_ends(points))
    few, around = fan(12)
    assert not np.array_equal(in_colours(few, around), from_both_ends(few))


def test_a_mesh_without_elements_keeps_its_points() -> None:
    assert not len(in_colours(np.empty((0, 3)), np.empty((0, 8), np.int64)))


def test_a_renumbered_box_is_the_same_box() -> None:
    part = box("hex8", CELLS, materials=np.arange(1, 141))
    other = renumbered(part, in_colours(part.nodes, part.elements.hex8 - 1))
    assert not np.array_equal(other.nodes, part.nodes)
    places = dict(zip(part.elements.materials, part.nodes[part.elements.hex8 - 1], strict=True))
    for material, row in zip(other.elements.materials, other.elements.hex8, strict=True):
        np.testing.assert_array_equal(other.nodes[row - 1], places[material])
    assert (np.diff(other.elements.hex8.min(axis=1)) >= 0).all()
    for side in ("x-", "y+", "z-"):
        ours = {tuple(p) for p in other.nodes[other.face(side) - 1]}
        assert ours == {tuple(p) for p in part.nodes[part.face(side) - 1]}
