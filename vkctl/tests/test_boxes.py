"""Boxes: orientation, volumes, node order, faces, consistent loads."""

from collections import Counter
from itertools import combinations

import numpy as np
import pytest

from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import boundary_faces, face_triangles, faces_within
from vkctl.shapes.forces import consistent_forces
from vkctl.shapes.functions import hex8_gradients, tet10_gradients
from vkctl.shapes.measures import element_volumes, select_nodes
from vkctl.shapes.topology import HEX8, TET4, TET10

KINDS = ["tet4", "hex8", "tet10", "mixed"]
SIDES = ["x-", "x+", "y-", "y+", "z-", "z+"]
OUTWARD = {s: np.eye(3)["xyz".index(s[0])] * (1 if s[1] == "+" else -1) for s in SIDES}


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


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_neighbouring_elements_share_whole_faces(kind):
    part = box(kind, (3, 2, 2), distortion=0.1)
    code = {"tet4": TET4, "hex8": HEX8, "tet10": TET10}[kind]
    count = Counter()
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


@pytest.mark.parametrize("kind", KINDS)
def test_faces_edges_and_corners_are_found_by_name_on_a_mapped_box(kind):
    part = box(kind, (3, 2, 2), (3.0, 1.0, 2.0), mapping=lambda p: p[:, [1, 2, 0]] * 2)
    plain = box(kind, (3, 2, 2), (3.0, 1.0, 2.0))
    assert np.array_equal(part.face("x+"), plain.select(x=3.0))
    assert np.array_equal(part.edge("y-", "z+"), plain.select(y=0.0, z=2.0))
    corner = part.corner("x+", "y+", "z-")
    assert plain.nodes[corner - 1].tolist() == [3.0, 1.0, 0.0]


def test_nodes_are_selected_by_value_and_range():
    nodes = np.array([[0, 0, 0], [1, 0, 0], [2, 5, 0], [3, 5, 0]], float)
    assert select_nodes(nodes, x=(1, 2)).tolist() == [2, 3]
    assert select_nodes(nodes, x=(1, 3), y=5).tolist() == [3, 4]
    assert select_nodes(nodes, z=1).tolist() == []


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("side", SIDES)
def test_uniform_traction_has_the_exact_resultant_and_moment(kind, side):
    size = np.array((2.0, 3.0, 1.5))
    part = box(kind, (4, 3, 2), tuple(size), distortion=0.1)
    traction = np.array((1.0, -2.0, 0.5))
    numbers, loads = part.traction(side, traction)
    axis = "xyz".index(side[0])
    area = size.prod() / size[axis]
    centre = size / 2
    centre[axis] = size[axis] if side[1] == "+" else 0.0
    assert np.array_equal(numbers, np.unique(numbers))
    assert np.allclose(loads.sum(axis=0), area * traction, rtol=1e-12)
    moment = np.cross(part.nodes[numbers - 1], loads).sum(axis=0)
    assert np.allclose(moment, np.cross(centre, area * traction), rtol=1e-12, atol=1e-12)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("side", SIDES)
def test_pressure_pushes_inwards(kind, side):
    part = box(kind, (3, 2, 2))
    loads = part.traction(side, 4.0)[1]
    assert np.allclose(loads.sum(axis=0), -4.0 * OUTWARD[side], atol=1e-14)


def test_loads_of_single_faces_by_hand():
    square = box("hex8", (1, 1, 1))
    assert np.allclose(square.traction("z+", (0, 0, 8.0))[1][:, 2], 2.0)
    triangle = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0.5, 0, 0], [0.5, 0.5, 0], [0, 0.5, 0]])
    six = consistent_forces(triangle, [np.array([[1, 2, 3, 4, 5, 6]])], (0.0, 0.0, 6.0))[1]
    assert np.allclose(six[:, 2], [0, 0, 0, 1, 1, 1])
    three = consistent_forces(triangle, [np.array([[1, 2, 3]])], (0.0, 0.0, 6.0))[1]
    assert np.allclose(three[:, 2], 1.0)


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_constant_pressure_on_all_sides_has_no_resultant(kind):
    part = box(kind, (3, 2, 2), mapping=lambda p: p + np.sin(3 * p[:, [1, 2, 0]]) / 9, curved=True)
    total = np.zeros(3)
    for side in SIDES:
        total += part.traction(side, 1.0)[1].sum(axis=0)
    assert np.abs(total).max() < 1e-13


def test_a_varying_traction_is_integrated_exactly():
    part = box("tet10", (2, 2, 2))
    loads = part.traction("z+", lambda p: np.column_stack((p[:, 0] ** 2, p[:, 1], 1 + 0 * p[:, 0])))
    assert np.allclose(loads[1].sum(axis=0), (1 / 3, 1 / 2, 1.0))


def test_faces_within_leaves_out_elements_that_only_touch():
    part = box("tet4", (2, 2, 2))
    (faces,) = faces_within(part.elements, part.face("x-"))
    assert len(faces) == 8
    assert np.all(np.isin(faces, part.face("x-")))


def test_impossible_boxes_are_refused():
    with pytest.raises(ValueError, match="cells"):
        box("tet4", (0, 1, 1))
    with pytest.raises(ValueError, match="cells"):
        box("mixed", (2, 1, 1))
    with pytest.raises(ValueError, match="distortion"):
        box("tet4", (2, 2, 2), distortion=0.2)
