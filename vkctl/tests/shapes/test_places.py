"""Points in elements, against what shape functions say the other way round."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.shapes.boxes import box
from vkctl.shapes.functions import GRADIENTS, shape_values
from vkctl.shapes.places import elements_at_points
from vkctl.shapes.topology import HEX8, TET4, TET10

KINDS = ("tet4", "hex8", "tet10", "mixed")


def bent(points: Array) -> Array:
    """A quarter of a ring."""
    x, y, z = points.T
    angle = np.pi / 2 * x / 3
    return np.column_stack(((2 + y) * np.sin(angle), (2 + y) * np.cos(angle), z + 0.1 * x * y))


def everywhere(count: int) -> Array:
    return np.random.default_rng(7).uniform((0.02, 0.02, 0.02), (2.98, 1.98, 0.98), (count, 3))


@pytest.mark.parametrize("code", (TET4, HEX8, TET10))
def test_many_points_have_the_shape_functions_of_each(code: int) -> None:
    points = np.random.default_rng(1).uniform(0, 0.3, (2, 3, 3))
    values, slopes = shape_values(code, points), GRADIENTS[code](points)
    for i in range(2):
        for j in range(3):
            assert np.array_equal(values[i, j], shape_values(code, points[i, j]))
            assert np.array_equal(slopes[i, j], GRADIENTS[code](points[i, j]))


@pytest.mark.parametrize("kind", KINDS)
def test_each_point_is_found_where_it_lies(kind: str) -> None:
    part = box(kind, (6, 4, 3), (3.0, 2.0, 1.0), mapping=bent, curved=True)  # type: ignore[arg-type]
    # Straight faces beside curved ones leave gaps in a mixed box: points come from elements.
    points, owners = [], []
    random = np.random.default_rng(3)
    for code in (TET4, HEX8, TET10):
        numbers, rows = part.elements.of_type(code)
        for number, row in zip(numbers[::5], rows[::5], strict=True):
            at = random.dirichlet(np.ones(4))[:3] if code != HEX8 else random.uniform(-1, 1, 3)
            points.append(shape_values(code, at) @ part.nodes[row - 1])
            owners.append(number)
    chosen = np.ones(len(part.elements), np.bool_)
    hits = elements_at_points(part.nodes, part.elements, chosen, np.array(points))
    for place, owner in enumerate(owners):
        assert owner in hits.elements[hits.points == place]
    for place, number, at in zip(hits.points, hits.elements, hits.parameters, strict=True):
        code = int(part.elements.type_codes[number - 1])
        row = part.elements.table(code)[part.elements.conn_index[number - 1] - 1]
        back = shape_values(code, at) @ part.nodes[row - 1]
        assert back == pytest.approx(points[place], abs=1e-9)


def test_nodes_are_in_all_their_elements_and_what_is_outside_in_none() -> None:
    part = box("hex8", (3, 2, 2), (3.0, 2.0, 1.0))
    chosen = np.ones(len(part.elements), np.bool_)
    points = np.vstack((part.nodes, (3.001, 1.0, 0.5), (1e9, 0.0, 0.0)))
    hits = elements_at_points(part.nodes, part.elements, chosen, points)
    touching = np.bincount(part.elements.hex8.ravel() - 1, minlength=len(points))
    assert np.array_equal(np.bincount(hits.points, minlength=len(points)), touching)


def test_only_chosen_elements_hold_a_point() -> None:
    part = box("tet4", (2, 1, 1), (2.0, 1.0, 1.0))
    chosen = part.centroids()[:, 0] < 1.0
    points = np.array(((0.5, 0.4, 0.3), (1.5, 0.4, 0.3)))
    hits = elements_at_points(part.nodes, part.elements, chosen, points)
    assert set(hits.points.tolist()) == {0}


def test_a_flat_element_holds_nothing_and_disturbs_nobody() -> None:
    part = box("tet4", (1, 1, 1))
    nodes = part.nodes.copy()
    row = part.elements.tet4[0] - 1
    nodes[row] = nodes[row[0]]
    hits = elements_at_points(nodes, part.elements, np.ones(6, np.bool_), nodes[row[:1]] + 1e-3)
    assert 1 not in hits.elements


def test_many_points_are_found_as_one_by_one() -> None:
    part = box("hex8", (30, 20, 10), (3.0, 2.0, 1.0), distortion=0.1)
    points = everywhere(2000)
    chosen = np.ones(len(part.elements), np.bool_)
    hits = elements_at_points(part.nodes, part.elements, chosen, points)
    assert np.array_equal(np.unique(hits.points), np.arange(2000))
    some = elements_at_points(part.nodes, part.elements, chosen, points[:20])
    assert np.array_equal(some.elements, hits.elements[hits.points < 20])
