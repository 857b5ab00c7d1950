"""The surface of what tetrahedra leave above level zero."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.shapes.boxes import Kind, box
from vkctl.shapes.cutting import Body, Surface, body, surface
from vkctl.shapes.simplices import at_points, tetrahedra
from vkctl.shapes.topology import TYPES

KINDS: tuple[Kind, ...] = ("hex8", "tet4", "tet10")
SIZE = (4.0, 2.0, 3.0)


def box_body(kind: Kind, cells: tuple[int, int, int] = (4, 2, 3)) -> tuple[Body, dict[int, Array]]:
    part = box(kind, cells, SIZE)
    tables = {code: part.elements.of_type(code)[1].astype(np.int64) - 1 for code in TYPES}
    rows, points, _ = tetrahedra(part.nodes, tables, {})
    return body(points, rows, len(part.nodes)), tables


def volume(of: Surface) -> float:
    """By the divergence theorem; what is seen from outside counts as positive."""
    a, b, c = (of.points[of.triangles[:, k]] for k in range(3))
    return float(np.einsum("ij,ij->i", a, np.cross(b, c)).sum() / 6.0)


def is_closed(of: Surface) -> bool:
    """Every edge is passed as often one way as the other."""
    ways = np.concatenate([of.triangles[:, [k, (k + 1) % 3]] for k in range(3)])
    there = {tuple(way): 0 for way in ways.tolist()}
    for first, second in ways.tolist():
        there[first, second] += 1
    return all(count == there.get((b, a)) == 1 for (a, b), count in there.items())


@pytest.mark.parametrize("kind", KINDS)
def test_a_level_that_is_positive_everywhere_leaves_the_outside_of_the_mesh(kind: Kind) -> None:
    whole, _ = box_body(kind)
    found = surface(whole, np.ones(len(whole.points)))
    assert volume(found) == pytest.approx(24.0, rel=1e-12)
    assert is_closed(found)
    assert (found.levels == 1.0).all()


@pytest.mark.parametrize("kind", KINDS)
def test_a_level_linear_in_space_cuts_along_a_plane(kind: Kind) -> None:
    whole, _ = box_body(kind)
    slope = np.array((1.0, 0.3, -0.2))
    levels = whole.points @ slope - 1.63
    found = surface(whole, levels)
    assert is_closed(found)
    np.testing.assert_allclose(found.levels, found.points @ slope - 1.63, atol=1e-12)
    # Above the plane: of 4 - (1.63 - 0.3 y + 0.2 z) the mean over y and z, times their area.
    assert volume(found) == pytest.approx((4.0 - 1.63 + 0.3 * 1.0 - 0.2 * 1.5) * 6.0, rel=1e-12)


@pytest.mark.parametrize("kind", KINDS)
def test_what_is_above_and_what_is_below_fill_the_mesh(kind: Kind) -> None:
    whole, tables = box_body(kind)
    random = np.random.default_rng(3)
    count = len(whole.points) - len(tables[60])
    levels = at_points(random.choice((-1.0, -0.2, 0.3, 1.0), count), tables, of_corners=True)
    levels = np.where(levels == 0.0, 0.1, levels)
    above, below = surface(whole, levels), surface(whole, -levels)
    assert is_closed(above) and is_closed(below)
    assert volume(above) + volume(below) == pytest.approx(24.0, rel=1e-12)
    assert 5.0 < volume(above) < 19.0


def test_nothing_is_left_below_zero() -> None:
    whole, _ = box_body("hex8")
    assert len(surface(whole, np.full(len(whole.points), -1.0)).triangles) == 0
