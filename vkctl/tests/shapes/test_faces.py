"""Boxes: orientation, volumes, node order, faces, consistent loads."""

from collections import Counter
from itertools import combinations

import numpy as np
import pytest

from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import boundary_faces, face_triangles, faces_within
from vkctl.shapes.topology import HEX8, TET4, TET10


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_neighbouring_elements_share_whole_faces(kind):
    part = box(kind, (3, 2, 2), distortion=0.1)
    code = {"tet4": TET4, "hex8": HEX8, "tet10": TET10}[kind]
    count: Counter[frozenset[int]] = Counter()
    corners = 4 if code == HEX8 else 3
    for row in part.elements.table(code):
        for face in combinations(row[: 8 if code == HEX8 else 4], corners):
            count[frozenset(face)] += 1
    if kind != "hex8":
        assert set(count.values()) == {1, 2}
    cell_faces = 2 * (3 * 2 + 3 * 2 + 2 * 2)
    found = boundary_faces(part.elements)
    assert sum(map(len, found)) == cell_faces * (1 if kind == "hex8" else 2)
    for face in np.concatenate(found)[:, :corners]:
        assert count[frozenset(face.tolist())] == 1


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_boundary_triangles_enclose_the_volume_from_outside(kind):
    part = box(kind, (2, 3, 2), (2.0, 1.0, 1.0), distortion=0.1)
    p, q, r = (part.nodes[c - 1] for c in face_triangles(boundary_faces(part.elements)).T)
    enclosed = np.einsum("ij,ij->", p, np.cross(q, r)) / 6
    assert enclosed == pytest.approx(2.0, rel=1e-12)


def test_boundary_faces_of_large_node_numbers():
    elements = Elements.from_tables(tet4=np.array([[1, 2, 3, 4], [2, 3, 4, 5]]) + 3_000_000)
    found = boundary_faces(elements)
    shared = {3_000_002, 3_000_003, 3_000_004}
    assert len(found[0]) == 6
    assert all(set(face.tolist()) != shared for face in found[0])


def test_faces_within_leaves_out_elements_that_only_touch():
    part = box("tet4", (2, 2, 2))
    (faces,) = faces_within(part.elements, part.face("x-"))
    assert len(faces) == 8
    assert np.all(np.isin(faces, part.face("x-")))
