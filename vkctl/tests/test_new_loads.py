"""Consistent nodal forces: resultants and moments are those of the loads."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
import pyvista
from new_parts import brick, case_file, forces, plate, prepared

from vkctl.prepare import Expression, Prepared, build
from vkctl.prepare.conditions import traction_forces
from vkctl.shapes import boxes
from vkctl.shapes.faces import boundary_faces, faces_within
from vkctl.shapes.forces import area_shares, lumped_areas, nodal_masses, spread_force
from vkctl.shapes.functions import tet10_gradients
from vkctl.shapes.measures import element_centroids, element_volumes
from vkctl.shapes.topology import TET10_EDGES

KINDS = ("tet4", "tet10", "hex8")


def bent(points: np.ndarray) -> np.ndarray:
    """Turns a block into a piece of a curved one, so that faces aren't plane."""
    x, y, z = points.T
    return np.column_stack((x + 0.1 * y * y, y + 0.1 * x * z, z + 0.1 * x * y + 0.05 * x * x))


def block(kind: str, curved: bool) -> tuple[np.ndarray, boxes.Elements]:
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
    return np.cross(nodes[numbers - 1], vectors).sum(axis=0)


@pytest.mark.parametrize("curved", [False, True])
@pytest.mark.parametrize("kind", KINDS)
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
@pytest.mark.parametrize("kind", KINDS)
def test_uniform_pressure_on_a_closed_surface_is_in_balance(kind: str, curved: bool) -> None:
    nodes, elements = block(kind, curved)
    numbers, vectors = traction_forces(nodes, boundary_faces(elements), (3.5,))
    np.testing.assert_allclose(vectors.sum(axis=0), 0, atol=1e-12)
    np.testing.assert_allclose(moment(nodes, numbers, vectors), 0, atol=1e-12)


@pytest.mark.parametrize("kind", KINDS)
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
@pytest.mark.parametrize("kind", KINDS)
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
    elements = boxes.Elements.from_tables(tet10=np.arange(1, 11)[None])
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


# --- loads of a case file --------------------------------------------------------------------

SETS = """
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }
[node_sets.right_nodes]
from = "right"
[node_sets.tip]
nearest = [4, 2, 1]
"""


def loaded(part: Path, tmp_path: Path, text: str, sets: str = SETS) -> Prepared:
    """Model of a part whose material has a density."""
    base = "[materials.steel]\nE = 210000.0\nnu = 0.3\ndensity = 0.5\n"
    base += '[supports.clamp]\nset = "left"\n'
    return prepared(part, tmp_path, sets + text, base)


@pytest.fixture(scope="module", params=KINDS)
def part(request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), request.param) / "part.msh"


def test_forces_are_spread_by_area_by_node_or_given_to_each(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.by_area]
    type = "force"
    set = "right"
    value = [10, 0, -4]
    [loads.by_node]
    type = "force"
    set = "right_nodes"
    value = [10, 0, -4]
    [loads.each]
    type = "force"
    set = "right"
    spread = "each"
    value = [1, 0, 0]
    """
    cases = "".join(
        f'[[load_case]]\nname = "{n}"\nloads = ["{n}"]\n' for n in ("by_area", "by_node", "each")
    )
    result = loaded(part, tmp_path, text + cases)
    sums = result.resultants
    np.testing.assert_allclose(sums[0], (10, 0, -4, 1 * -4, 10 / 2 + 16, -10), atol=1e-5)
    np.testing.assert_allclose(sums[1, :3], (10, 0, -4), atol=1e-5)
    equal = result.model.load_cases[1].forces2["Force"]
    assert np.all(equal == equal[0])
    count = len(result.sets.nodes("right", ()))
    assert sums[2, 0] == pytest.approx(count)


def test_gravity_goes_to_the_second_list_and_weighs_what_is_there(
    part: Path, tmp_path: Path
) -> None:
    text = """
    [element_sets.far]
    where = "x > 2"
    [element_sets.end]
    where = "x > 10 / 3"
    [model]
    exclude = "end"
    [loads.weight]
    type = "gravity"
    value = [0, 0, -10]
    [loads.part]
    type = "gravity"
    set = "far"
    value = [0, 0, -10]
    [[load_case]]
    loads = ["weight"]
    [[load_case]]
    loads = { part = 2.0 }
    """
    result = loaded(part, tmp_path, text, "")
    case = result.model.load_cases[0]
    assert len(case.forces2) == 0 and len(case.forces3) > 0
    length = 10 / 3
    np.testing.assert_allclose(result.resultants[0, 2], -10 * 0.5 * length * 2, rtol=1e-5)
    np.testing.assert_allclose(
        result.resultants[0, 4], length / 2 * 10 * 0.5 * length * 2, rtol=1e-5
    )
    np.testing.assert_allclose(result.resultants[1, 2], -2 * 10 * 0.5 * (length - 2) * 2, rtol=1e-5)


def test_loads_of_a_case_add_up_node_by_node_with_their_factors(part: Path, tmp_path: Path) -> None:
    text = """
    [loads.pull]
    type = "traction"
    set = "right"
    value = [3, 0, 0]
    [loads.push]
    type = "pressure"
    set = "right"
    value = 2
    [loads.tip]
    type = "force"
    set = "tip"
    value = [0, 5, 0]
    [[load_case]]
    loads = { pull = 2.0, push = 3.0, tip = -1.0 }
    """
    result = loaded(part, tmp_path, text)
    case = result.model.load_cases[0]
    numbers = case.forces2["Node"]
    assert len(np.unique(numbers)) == len(numbers)
    np.testing.assert_allclose(result.resultants[0, :3], (6 * 2 - 6 * 2, -5, 0), atol=1e-5)
    np.testing.assert_allclose(
        forces(case, result.mesh.nodes).sum(axis=0), result.resultants[0, :3], atol=1e-5
    )


def test_later_temperatures_hold_where_sets_overlap(part: Path, tmp_path: Path) -> None:
    text = """
    [node_sets.hot]
    where = "x > 3"
    [loads.base]
    type = "temperature"
    value = "20 + 10 * z"
    reference = 20
    [loads.end]
    type = "temperature"
    set = "hot"
    value = 100
    [[load_case]]
    loads = ["base", "end"]
    [[load_case]]
    loads = { base = 2.0 }
    """
    result = loaded(part, tmp_path, text)
    first, second = result.model.load_cases
    x, _, z = result.mesh.nodes[first.scalars["Node"] - 1].T
    assert len(first.scalars) == len(result.mesh.nodes)
    np.testing.assert_allclose(first.scalars["Value"], np.where(x > 3, 100, 10 * z), rtol=1e-6)
    np.testing.assert_allclose(second.scalars["Value"], 20 * z, rtol=1e-6)


def test_temperature_and_level_come_from_node_data(tmp_path: Path) -> None:
    brick(tmp_path, "hex8")
    grid = pyvista.read(tmp_path / "part.vtu")
    grid.point_data["T"] = grid.points[:, 0].astype(float)
    grid.point_data["phi"] = 1.0 - grid.points[:, 2]
    grid.save(tmp_path / "part.vtu")
    text = """
    [node_sets.left]
    where = "x < 1e-6"
    [node_sets.design]
    where = "x > 1"
    [loads.heat]
    type = "temperature"
    array = "T"
    [level]
    set = "design"
    array = "phi"
    """
    result = build(tmp_path / "part.vtu", case_file(tmp_path, text))
    nodes = result.mesh.nodes
    np.testing.assert_allclose(result.model.load_cases[0].scalars["Value"], nodes[:, 0], atol=1e-6)
    index = result.model.node_tp_index
    assert index is not None
    np.testing.assert_array_equal(index > 0, nodes[:, 0] > 1)
    design = nodes[index > 0]
    np.testing.assert_allclose(result.model.tp[index[index > 0] - 1], 1 - design[:, 2], atol=1e-6)


def test_pressure_on_a_curved_hole_is_in_balance_and_pushes_outwards(tmp_path: Path) -> None:
    part = plate(tmp_path) / "part.msh"
    text = """
    [face_sets.hole]
    cylinder = { point = [2, 1, 0], axis = [0, 0, 1], radius = 0.5 }
    [face_sets.half_hole]
    from = "hole"
    where = "x >= 1.9999"
    [loads.oil]
    type = "pressure"
    set = "hole"
    value = 7.0
    """
    result = prepared(part, tmp_path, text)
    np.testing.assert_allclose(result.resultants[0], 0, atol=2e-4)
    case = result.model.load_cases[0]
    offset = result.mesh.nodes[case.forces2["Node"] - 1] - (2, 1, 0)
    outward = np.einsum("ij,ij->i", offset[:, :2], case.forces2["Force"][:, :2]).sum() / 0.5
    assert outward == pytest.approx(7.0 * 2 * np.pi * 0.5, rel=2e-3)
