"""The smallest member and the smallest hole, measured on a part."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.optimise import measured_sizes
from vkctl.shapes.boxes import box


def plate(field: Callable[[Array, Array], Array]) -> Model:
    """24 x 24 x 1 cells of size 1, with a level of x and y."""
    part = box("hex8", (24, 24, 1), (24.0, 24.0, 1.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    x, y, _ = part.nodes.T
    model.tp = np.asarray(field(x, y), np.float32)
    return model


def test_the_smallest_member_and_the_smallest_hole_are_measured() -> None:
    """To a third of an edge, below and above, as the grid is."""
    third = 0.35
    cross = plate(lambda x, y: np.maximum(2.5 - np.abs(y - 12), 3.5 - np.abs(x - 12)))
    assert measured_sizes(cross).member == pytest.approx(5.0, abs=third)
    ring = plate(lambda x, y: 2.0 - np.abs(np.hypot(x - 12, y - 12) - 8))
    assert measured_sizes(ring).member == pytest.approx(4.0, abs=2 * third)
    holes = plate(
        lambda x, y: np.minimum(np.hypot(x - 7, y - 7) - 2.0, np.hypot(x - 16, y - 16) - 4.5)
    )
    assert measured_sizes(holes).hole == pytest.approx(4.0, abs=2 * third)
    slot = plate(lambda x, y: np.abs(y - 12) - 1.5)
    sizes = measured_sizes(slot)
    assert sizes.hole == pytest.approx(3.0, abs=third)
    assert sizes.member is not None and sizes.member > 10.0
    full = measured_sizes(plate(lambda x, y: np.ones_like(x)))
    assert full.hole is None and full.member is not None
