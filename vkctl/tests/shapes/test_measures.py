"""Boxes: orientation, volumes, node order, faces, consistent loads."""

import numpy as np
import pytest

from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.functions import tet10_gradients
from vkctl.shapes.measures import element_volumes, select_nodes

KINDS = ["tet4", "hex8", "tet10", "mixed"]


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("distortion", [0.0, 0.15, -0.15])
def test_volumes_are_positive_and_fill_the_box(kind, distortion):
    part = box(kind, (4, 3, 5), (2.0, 3.0, 1.0), (5.0, -1.0, 0.0), distortion=distortion)
    volumes = element_volumes(part.nodes, part.elements)
    assert volumes.min() > 0
    assert volumes.sum() == pytest.approx(6.0, rel=1e-12)


def test_curved_quadratic_tetrahedra_fill_the_box_and_differ_from_straight_ones():
    straight = box("tet10", (3, 3, 3), distortion=0.15)
    curved = box("tet10", (3, 3, 3), distortion=0.15, curved=True)
    assert element_volumes(curved.nodes, curved.elements).sum() == pytest.approx(1.0, rel=1e-12)
    assert np.abs(curved.nodes - straight.nodes).max() > 1e-3


def test_volume_of_a_curved_tetrahedron_against_fine_quadrature():
    rng = np.random.default_rng(2)
    part = box("tet10", (1, 1, 1))
    row = part.elements.tet10[:1]
    nodes = part.nodes + 0.05 * rng.standard_normal(part.nodes.shape)
    g, w = np.polynomial.legendre.leggauss(6)
    g, w = (g + 1) / 2, w / 2
    total = 0.0
    for u, wu in zip(g, w, strict=True):
        for v, wv in zip(g, w, strict=True):
            for t, wt in zip(g, w, strict=True):
                a, b, c = u, v * (1 - u), t * (1 - u) * (1 - v)
                jacobian = nodes[row[0] - 1].T @ tet10_gradients((a, b, c))
                total += wu * wv * wt * (1 - u) ** 2 * (1 - v) * np.linalg.det(jacobian)
    volume = element_volumes(nodes, Elements.from_tables(tet10=row))[0]
    assert volume == pytest.approx(total, rel=1e-12)


def test_an_inverted_hexahedron_has_a_negative_volume():
    part = box("hex8", (1, 1, 1))
    turned = part.elements.hex8[:, [4, 5, 6, 7, 0, 1, 2, 3]]
    assert element_volumes(part.nodes, Elements.from_tables(hex8=turned))[0] == pytest.approx(-1)


def test_nodes_are_selected_by_value_and_range():
    nodes = np.array([[0, 0, 0], [1, 0, 0], [2, 5, 0], [3, 5, 0]], float)
    assert select_nodes(nodes, x=(1, 2)).tolist() == [2, 3]
    assert select_nodes(nodes, x=(1, 3), y=5).tolist() == [3, 4]
    assert select_nodes(nodes, z=1).tolist() == []
