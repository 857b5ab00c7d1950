"""Boxes: orientation, volumes, node order, faces, consistent loads."""

from collections import Counter

import numpy as np
import pytest

from vkctl.shapes.boxes import box
from vkctl.shapes.topology import HEX8, TET4, TET10

KINDS = ["tet4", "hex8", "tet10", "mixed"]


def test_counts_of_nodes_and_elements():
    assert [len(box(k, (2, 3, 4)).nodes) for k in ("tet4", "hex8", "tet10")] == [60, 60, 315]
    assert [len(box(k, (2, 3, 4)).elements) for k in ("tet4", "hex8", "tet10")] == [144, 24, 144]
    codes = Counter(box("mixed", (3, 2, 2)).elements.type_codes.tolist())
    assert codes == {HEX8: 4, TET4: 24, TET10: 24}


def test_node_numbers_run_along_x_first():
    part = box("hex8", (2, 1, 1), (2.0, 1.0, 1.0))
    assert part.nodes[:4].tolist() == [[0, 0, 0], [1, 0, 0], [2, 0, 0], [0, 1, 0]]
    assert part.elements.hex8[0].tolist() == [1, 2, 5, 4, 7, 8, 11, 10]


def test_every_node_of_a_mixed_box_is_used():
    part = box("mixed", (4, 2, 2))
    used = np.unique(np.concatenate([t.ravel() for t in part.elements.used_tables()]))
    assert np.array_equal(used, np.arange(1, len(part.nodes) + 1))


@pytest.mark.parametrize("distortion", [0.0, 0.1])
def test_mid_nodes_of_tet10_stand_between_their_corners(distortion):
    part = box("tet10", (2, 2, 2), distortion=distortion)
    between = {5: (1, 2), 6: (2, 3), 7: (1, 3), 8: (1, 4), 9: (2, 4), 10: (3, 4)}
    corner = part.nodes[part.elements.tet10 - 1]
    for mid, (i, j) in between.items():
        halfway = (corner[:, i - 1] + corner[:, j - 1]) / 2
        assert np.abs(corner[:, mid - 1] - halfway).max() < 1e-15


@pytest.mark.parametrize("kind", KINDS)
def test_faces_edges_and_corners_are_found_by_name_on_a_mapped_box(kind):
    part = box(kind, (3, 2, 2), (3.0, 1.0, 2.0), mapping=lambda p: p[:, [1, 2, 0]] * 2)
    plain = box(kind, (3, 2, 2), (3.0, 1.0, 2.0))
    assert np.array_equal(part.face("x+"), plain.select(x=3.0))
    assert np.array_equal(part.edge("y-", "z+"), plain.select(y=0.0, z=2.0))
    corner = part.corner("x+", "y+", "z-")
    assert plain.nodes[corner - 1].tolist() == [3.0, 1.0, 0.0]


def test_impossible_boxes_are_refused():
    with pytest.raises(ValueError, match="cells"):
        box("tet4", (0, 1, 1))
    with pytest.raises(ValueError, match="cells"):
        box("mixed", (2, 1, 1))
    with pytest.raises(ValueError, match="distortion"):
        box("tet4", (2, 2, 2), distortion=0.2)
