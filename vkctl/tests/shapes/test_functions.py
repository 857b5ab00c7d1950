"""Boxes: orientation, volumes, node order, faces, consistent loads."""

import numpy as np
import pytest

from vkctl.shapes.boxes import box
from vkctl.shapes.functions import hex8_gradients, tet10_gradients
from vkctl.shapes.topology import HEX8, TET10


@pytest.mark.parametrize(
    ("gradients", "count", "edge"),
    [(tet10_gradients, 10, (0.2, 0.3, 0.1)), (hex8_gradients, 8, (0.2, -0.3, 0.6))],
)
def test_gradients_reproduce_a_linear_field(gradients, count, edge):
    part = box("tet10" if count == 10 else "hex8", (1, 1, 1), (2.0, 1.0, 3.0))
    row = part.elements.table(TET10 if count == 10 else HEX8)[0]
    slope = gradients(edge)
    assert np.abs(slope.sum(axis=0)).max() < 1e-14
    jacobian = part.nodes[row - 1].T @ slope
    field = part.nodes[row - 1] @ (1.0, -2.0, 0.5)
    assert np.allclose(np.linalg.solve(jacobian.T, slope.T @ field), (1.0, -2.0, 0.5))
