"""Boxes: orientation, volumes, node order, faces, consistent loads."""

from __future__ import annotations

from typing import get_args

import numpy as np
import pytest

from vkctl.prepare import Expression
from vkctl.prepare.conditions import traction_forces
from vkctl.shapes import boxes
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import boundary_faces, faces_within
from vkctl.shapes.forces import (
    area_shares,
    consistent_forces,
    lumped_areas,
    nodal_masses,
    spread_force,
)
from vkctl.shapes.functions import tet10_gradients
from vkctl.shapes.measures import element_centroids, element_volumes
from vkctl.shapes.topology import TET10_EDGES

KINDS = ["tet4", "hex8", "tet10", "mixed"]
SIDES = ["x-", "x+", "y-", "y+", "z-", "z+"]
OUTWARD = {s: np.eye(3)["xyz".index(s[0])] * (1 if s[1] == "+" else -1) for s in SIDES}


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
    for side in get_args(boxes.Side):
        total += part.traction(side, 1.0)[1].sum(axis=0)
    assert np.abs(total).max() < 1e-13


def test_a_varying_traction_is_integrated_exactly():
    part = box("tet10", (2, 2, 2))
    loads = part.traction("z+", lambda p: np.column_stack((p[:, 0] ** 2, p[:, 1], 1 + 0 * p[:, 0])))
    assert np.allclose(loads[1].sum(axis=0), (1 / 3, 1 / 2, 1.0))


def bent(points: np.ndarray) -> np.ndarray:
    """Turns a block into a piece of a curved one, so that faces aren't plane."""
    x, y, z = points.T
    return np.column_stack((x + 0.1 * y * y, y + 0.1 * x * z, z + 0.1 * x * y + 0.05 * x * x))


def block(kind: str, curved: bool) -> tuple[np.ndarray, Elements]:
    made = boxes.box(
        kind,  # type: ignore[arg-type]
        (3, 2, 2),
        (3.0, 2.0, 1.0),
        distortion=0.1,
        mapping=bent if curved else None,
        curved=curved,
    )
    return made.nodes, made.elements


def moment(nodes: np.ndarray, numbers: np.ndarray, vectors: np.ndarray) -> np.ndarray:
    return np.asarray(np.cross(nodes[numbers - 1], vectors).sum(axis=0))


@pytest.mark.parametrize("curved", [False, True])
@pytest.mark.parametrize("kind", KINDS[:3])
def test_pressure_that_grows_with_height_lifts_by_the_volume(kind: str, curved: bool) -> None:
    # Gauss: the integral of z n over a closed surface is the volume in z, and that of
    # z (r x n) is the volume times (-y, x, 0) of its centroid, with the sign of the cross product.
    nodes, elements = block(kind, curved)
    faces = boundary_faces(elements)
    numbers, vectors = traction_forces(nodes, faces, (Expression("z"),))
    volumes = element_volumes(nodes, elements)
    np.testing.assert_allclose(vectors.sum(axis=0), (0, 0, -volumes.sum()), atol=1e-12)
    masses = nodal_masses(nodes, elements, np.ones(len(elements)))
    first = (masses[:, None] * nodes).sum(axis=0)
    # On curved triangles the integrand of the moment has a higher degree than the rule.
    tolerance = 2e-3 if curved and kind == "tet10" else 1e-12
    expected = (-first[1], first[0], 0)
    np.testing.assert_allclose(moment(nodes, numbers, vectors), expected, atol=tolerance)


@pytest.mark.parametrize("curved", [False, True])
@pytest.mark.parametrize("kind", KINDS[:3])
def test_uniform_pressure_on_a_closed_surface_is_in_balance(kind: str, curved: bool) -> None:
    nodes, elements = block(kind, curved)
    numbers, vectors = traction_forces(nodes, boundary_faces(elements), (3.5,))
    np.testing.assert_allclose(vectors.sum(axis=0), 0, atol=1e-12)
    np.testing.assert_allclose(moment(nodes, numbers, vectors), 0, atol=1e-12)


@pytest.mark.parametrize("kind", KINDS[:3])
def test_linear_traction_on_a_plane_face_has_exact_force_and_moment(kind: str) -> None:
    made = boxes.box(kind, (3, 2, 2), (3.0, 2.0, 1.0), distortion=0.1)  # type: ignore[arg-type]
    faces = faces_within(made.elements, made.face("x+"))
    values = (Expression("2 + y"), Expression("z - 1"), Expression("3 * y"))
    numbers, vectors = traction_forces(made.nodes, faces, values)
    # Integrals over 0 < y < 2, 0 < z < 1 at x = 3.
    np.testing.assert_allclose(vectors.sum(axis=0), (6, -1, 6), atol=1e-12)
    y_tz, z_ty = 3 * 8 / 3, (1 / 3 - 1 / 2) * 2
    z_tx, x_tz = 6 / 2, 3 * 6
    x_ty, y_tx = 3 * -1, 2 * 2 + 8 / 3
    expected = (y_tz - z_ty, z_tx - x_tz, x_ty - y_tx)
    np.testing.assert_allclose(moment(made.nodes, numbers, vectors), expected, atol=1e-12)


def test_corners_of_plane_6_node_triangles_get_no_share() -> None:
    nodes = np.array(((0, 0, 0), (1, 0, 0), (0, 1, 0), (0.5, 0, 0), (0.5, 0.5, 0), (0, 0.5, 0)))
    numbers, vectors = traction_forces(nodes, [np.arange(1, 7)[None]], (0.0, 0.0, 6.0))
    np.testing.assert_allclose(vectors[:, 2], (0, 0, 0, 1, 1, 1), atol=1e-14)
    _, areas = lumped_areas(nodes, [np.arange(1, 7)[None]])
    assert areas.min() > 0 and areas.sum() == pytest.approx(0.5)


def test_a_skew_quadrangle_is_loaded_as_its_shape_functions_say() -> None:
    nodes = np.array(((0, 0, 0), (2, 0, 0), (1, 1, 0), (0, 1, 0)), float)
    _, areas = area_shares(nodes, [np.array([[1, 2, 3, 4]])])
    # The Jacobian is (3 - eta) / 8, linear: shares by hand.
    np.testing.assert_allclose(areas, (5 / 12, 5 / 12, 1 / 3, 1 / 3), atol=1e-14)
    _, vectors = spread_force(nodes, [np.array([[1, 2, 3, 4]])], np.array((0, 0, 9.0)))
    np.testing.assert_allclose(vectors[:, 2], areas * 6, atol=1e-14)


@pytest.mark.parametrize("curved", [False, True])
@pytest.mark.parametrize("kind", KINDS[:3])
def test_masses_have_the_mass_and_the_centre_of_the_part(kind: str, curved: bool) -> None:
    nodes, elements = block(kind, curved)
    densities = np.linspace(1.0, 2.0, len(elements))
    masses = nodal_masses(nodes, elements, densities)
    assert masses.sum() == pytest.approx((densities * element_volumes(nodes, elements)).sum())
    if kind == "tet4" or (kind == "tet10" and not curved):
        first = densities * element_volumes(nodes, elements)
        centre = (first[:, None] * element_centroids(nodes, elements)).sum(axis=0)
        np.testing.assert_allclose((masses[:, None] * nodes).sum(axis=0), centre, rtol=1e-12)


def test_the_centre_of_a_box_of_skew_hexahedra_is_its_middle() -> None:
    nodes, elements = block("hex8", False)
    masses = nodal_masses(nodes, elements, np.full(len(elements), 2.0))
    np.testing.assert_allclose((masses[:, None] * nodes).sum(axis=0), (18, 12, 6), rtol=1e-12)


def test_body_force_of_a_curved_tetrahedron_agrees_with_fine_quadrature() -> None:
    rng = np.random.default_rng(5)
    corners = np.array(((0.0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)))
    nodes = np.concatenate((corners, corners[TET10_EDGES].mean(axis=1) + 0.05 * rng.random((6, 3))))
    elements = Elements.from_tables(tet10=np.arange(1, 11)[None])
    masses = nodal_masses(nodes, elements, np.ones(1))
    x, w = np.polynomial.legendre.leggauss(12)
    x, w = (x + 1) / 2, w / 2
    expected = np.zeros(10)
    for i in range(12):
        for j in range(12):
            for k in range(12):
                a, b, c = x[i], x[j] * (1 - x[i]), x[k] * (1 - x[i]) * (1 - x[j])
                weight = w[i] * w[j] * w[k] * (1 - x[i]) ** 2 * (1 - x[j])
                bary = np.array((1 - a - b - c, a, b, c))
                p, q = TET10_EDGES.T
                shape = np.concatenate((bary * (2 * bary - 1), 4 * bary[p] * bary[q]))
                expected += weight * np.linalg.det(nodes.T @ tet10_gradients((a, b, c))) * shape
    np.testing.assert_allclose(masses, expected, atol=1e-13)
