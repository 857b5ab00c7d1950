"""The suite's own meshes and arithmetic, checked against what is known of them."""

from __future__ import annotations

import math
import sys
from pathlib import Path

import numpy as np
import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent), str(HERE.parents[1] / "vkctl/src")]

from support import fem, page  # noqa: E402
from support.figures import Figure, Picture  # noqa: E402
from support.mesh import TYPES, block, boundary, faces_where, merge, shake, straighten  # noqa: E402

from vkctl.basics.types import Array  # noqa: E402
from vkctl.shapes.topology import HEX8, TET4, TET10  # noqa: E402


def twisted(grid: Array) -> Array:
    turn = 0.4 * grid[:, 2]
    x, y = grid[:, 0] + 0.2 * grid[:, 1], grid[:, 1]
    return np.column_stack(
        (x * np.cos(turn) - y * np.sin(turn), x * np.sin(turn) + y * np.cos(turn), 2 * grid[:, 2])
    )


@pytest.mark.parametrize("code", TYPES)
def test_all_elements_of_a_mapped_block_have_positive_volume(code: int) -> None:
    for q in fem.quadrature(block(code, (2, 3, 4), twisted)):
        assert q.volume.min() > 0.0


@pytest.mark.parametrize("code", TYPES)
def test_a_mirrored_block_is_turned_to_positive_volume(code: int) -> None:
    mesh = block(code, (2, 2, 2), lambda g: g * [-1.0, 1.0, 1.0])
    assert fem.volume(mesh) == pytest.approx(1.0, rel=1e-6)
    assert min(q.volume.min() for q in fem.quadrature(mesh)) > 0.0


@pytest.mark.parametrize("code", TYPES)
def test_boundary_faces_of_a_block_have_its_surface_and_point_outwards(code: int) -> None:
    mesh = block(code, (2, 3, 2))
    load = fem.face_load(mesh, boundary(*mesh.only()), lambda p, n: (p * n).sum(-1)[..., None] * n)
    # The integral of (x . n) n: the faces at 1 have x . n = 1, the others 0.
    assert load.sum(axis=0) == pytest.approx([1.0, 1.0, 1.0], rel=1e-6)


@pytest.mark.parametrize("code", TYPES)
def test_merged_blocks_share_the_faces_between_them(code: int) -> None:
    parts = block(code, (2, 2, 2)), block(code, (2, 2, 2), lambda g: g + [1, 0, 0])
    mesh, whole = merge(list(parts)), block(code, (4, 2, 2), lambda g: g * [2, 1, 1])
    assert len(mesh.nodes) == len(whole.nodes)
    assert len(boundary(*mesh.only())) == len(boundary(*whole.only()))


@pytest.mark.parametrize("code", TYPES)
def test_shaking_moves_inner_nodes_only_and_keeps_the_volume(code: int) -> None:
    still = block(code, (3, 3, 3))
    moved = shake(still, 0.08)
    outer = np.unique(boundary(*still.only()))
    shift = np.abs(moved.nodes - still.nodes).max(axis=1)
    assert shift[outer].max() < 1e-6
    assert np.delete(shift, outer).max() > 0.03
    assert fem.volume(moved) == pytest.approx(1.0, rel=1e-6)


def test_straightened_tetrahedra_have_their_mid_edge_nodes_in_the_middle() -> None:
    mesh = straighten(block(TET10, (1, 1, 1), twisted))
    _, table = mesh.only()
    middle = 0.5 * (mesh.nodes[table[:, 0]] + mesh.nodes[table[:, 1]])
    assert np.abs(mesh.nodes[table[:, 4]] - middle).max() < 1e-6


@pytest.mark.parametrize("code", TYPES)
def test_shapes_sum_to_one_and_give_back_their_nodes_positions(code: int) -> None:
    q = fem.quadrature(block(code, (1, 1, 1), twisted))[0]
    assert q.shape.sum(axis=1) == pytest.approx(np.ones(len(q.shape)))
    assert np.abs(q.gradient.sum(axis=2)).max() < 1e-10


@pytest.mark.parametrize(("a", "b", "c"), [(0, 0, 0), (1, 2, 1), (3, 0, 2), (2, 2, 3)])
def test_the_simplex_rule_integrates_monomials_exactly(a: int, b: int, c: int) -> None:
    points, weights = fem.gauss_simplex(4)
    f = math.factorial
    exact = f(a) * f(b) * f(c) / f(a + b + c + 3)
    assert (points ** [a, b, c]).prod(axis=1) @ weights == pytest.approx(exact)


def largest_error(points: Array, weights: Array, degree: int) -> float:
    """Of the integrals of all monomials x^a y^b z^c of a degree over the unit simplex."""
    f, errors = math.factorial, []
    for a in range(degree + 1):
        for b in range(degree + 1 - a):
            c = degree - a - b
            exact = f(a) * f(b) * f(c) / f(degree + 3)
            errors.append(abs((points ** [a, b, c]).prod(axis=1) @ weights / exact - 1))
    return float(max(errors))


@pytest.mark.parametrize("order", [2, 3])
def test_the_tetrahedron_rules_are_exact_to_the_degree_of_their_order_and_not_beyond(
    order: int,
) -> None:
    rule = fem.solver_rule(TET4, order)
    assert all(largest_error(*rule, degree) < 1e-12 for degree in range(order + 1))
    assert largest_error(*rule, order + 1) > 1e-3


@pytest.mark.parametrize("code", TYPES)
def test_a_pressure_on_a_closed_surface_has_no_resultant(code: int) -> None:
    mesh = block(code, (2, 2, 2), twisted)
    load = fem.face_load(mesh, boundary(*mesh.only()), fem.pressure(3.0))
    assert np.abs(load.sum(axis=0)).max() < 1e-6 * np.abs(load).max()


def test_a_pressure_pushes_against_the_outward_normal() -> None:
    mesh = block(HEX8, (2, 2, 2))
    top = faces_where(mesh, lambda x, y, z: z > 1 - 1e-5)
    load = fem.face_load(mesh, top, fem.pressure(3.0))
    assert load.sum(axis=0) == pytest.approx([0.0, 0.0, -3.0])


@pytest.mark.parametrize("code", TYPES)
def test_rigid_motions_have_no_forces_and_the_matrix_is_symmetric(code: int) -> None:
    mesh = block(code, (1, 1, 1), twisted)
    q = fem.quadrature(mesh)[0]
    matrix = fem.stiffness(q, fem.isotropic(1000.0, 0.3))
    turn = np.cross([0.3, -0.2, 0.5], mesh.nodes[q.table]) + [1.0, 2.0, 3.0]
    force = np.einsum("eij,ej->ei", matrix, turn.reshape(len(turn), -1))
    assert np.abs(force).max() < 1e-9 * np.abs(matrix).max()
    assert np.abs(matrix - matrix.transpose(0, 2, 1)).max() < 1e-12 * np.abs(matrix).max()


@pytest.mark.parametrize("code", (HEX8, TET10))
def test_both_recoveries_give_a_linear_stress_field_of_quadratic_elements(code: int) -> None:
    mesh = block(code, (4, 4, 4))
    x = mesh.nodes
    u = np.column_stack((x[:, 0] ** 2, np.zeros(len(x)), np.zeros(len(x))))
    law, node = fem.isotropic(1.0, 0.0), mesh.at((1, 0, 0))
    rings = 3 if code == HEX8 else 2
    assert fem.patch_fit(mesh, u, law, node, None, rings)[0] == pytest.approx(2.0, rel=1e-5)
    if code == TET10:
        assert fem.nodal_average(mesh, u, law, node)[0] == pytest.approx(2.0, rel=1e-5)


def test_a_comparison_with_not_a_number_fails() -> None:
    assert not page.Check("", math.nan, 1.0).passed
    assert not page.compare("", math.inf, 1.0, 1.0).passed
    assert page.compare("", 1.01, 1.0, 0.02).passed
    assert not page.compare("", 1.03, 1.0, 0.02).passed


def found(value: float = 2.0, error: float = 0.03, name: str = "deflection") -> list[page.Result]:
    """One case of a relative, an absolute and a nodal comparison."""
    checks = [
        page.Check(name, error, 0.05, value, value / (1 + error)),
        page.near("order", 1.98, 2.0, 0.1),
        page.Check("largest nodal error", 3e-7, 2e-6),
    ]
    table = page.Table(["step", "residual"], [["1", "2.5e-06"]])
    return [page.Result("A bar", "A bar of length 2.", checks, [table])]


FROM = "`0123456789ab`.\nSolver: vk_rund."


def test_a_page_agrees_with_what_it_was_written_from(tmp_path: Path) -> None:
    page.write(found(), "# Page", FROM, tmp_path)
    assert page.differences(found(), "# Page", tmp_path) == []


def test_round_off_of_another_machine_is_no_difference(tmp_path: Path) -> None:
    page.write(found(), "# Page", FROM, tmp_path)
    text = (tmp_path / page.PAGE).read_text()
    for old, new in (
        ("| below 1e-6 |", "| 1.4e-06 |"),
        ("2.5e-06", "3.1e-06"),
        ("| 2 |", "| 2.0001 |"),
    ):
        assert old in text
        text = text.replace(old, new)
    (tmp_path / page.PAGE).write_text(text)
    assert page.differences(found(), "# Page", tmp_path) == []


@pytest.mark.parametrize(
    ("old", "new", "words"),
    [
        ("deflection | 2 |", "deflection | 2.2 |", "value 2.2, but now 2"),
        ("order | 1.98 |", "order | 1.7 |", "value 1.7, but now 1.98"),
        ("| 1.9417 |", "| 1.9437 |", "reference 1.9437, but now 1.9417"),
        ("| 3.0e-02 | 0.05 |", "| 3.0e-02 | 0.04 |", "bound 0.04, but now 0.05"),
        ("| 3.0e-02 |", "| 7.0e-02 |", "error 7.0e-02 beyond its bound 0.05"),
        ("| order |", "| degree |", "'| degree | 1.98 | 2 | 2.0e-02 | 0.1 | passed |', but now"),
        ("A bar of length", "A rod of length", "'A rod of length 2.'"),
        ("| largest nodal error |  |  | below 1e-6 | 2e-06 | passed |\n", "", "lines, but now"),
        ("2e-06 | passed", "2e-06 | **FAILED**", "FAILED"),
    ],
)
def test_a_page_that_tells_something_else_is_found(
    tmp_path: Path, old: str, new: str, words: str
) -> None:
    page.write(found(), "# Page", FROM, tmp_path)
    text = (tmp_path / page.PAGE).read_text()
    assert text.count(old) == 1
    (tmp_path / page.PAGE).write_text(text.replace(old, new))
    assert any(words in sentence for sentence in page.differences(found(), "# Page", tmp_path))


def test_the_page_is_compared_without_the_cases_that_were_left_out(tmp_path: Path) -> None:
    other = page.Result("Another solver", "Text.", [page.compare("displacement", 1.0, 1.0, 1e-3)])
    page.write([*found(), other], "# Page", FROM, tmp_path)
    assert page.differences(found(), "# Page", tmp_path, [other.title]) == []
    assert page.differences(found(), "# Page", tmp_path) != []


def test_a_page_made_from_another_commit_on_another_solver_is_no_difference(tmp_path: Path) -> None:
    page.write(found(), "# Page\n\nWhat it is.", FROM, tmp_path)
    text = (tmp_path / page.PAGE).read_text()
    assert text.startswith("# Page\n\nMade from commit `0123456789ab`.\nSolver: vk_rund.\n\nWhat")
    assert page.differences(found(), "# Page\n\nWhat it is.", tmp_path) == []


def test_pictures_that_no_case_shows_any_more_are_cleared_away(tmp_path: Path) -> None:
    old = page.Result("Old", "", [], [], [Figure("old", "x", "y", {"a": ([1], [2])}, "Curve")])
    page.write([*found(), old], "# Page", FROM, tmp_path)
    assert (tmp_path / "verification" / "old.png").exists()
    page.write(found(), "# Page", FROM, tmp_path)
    assert not (tmp_path / "verification" / "old.png").exists()


def test_a_picture_that_is_missing_is_a_difference(tmp_path: Path) -> None:
    shown = found()
    shown[0].pictures.append(Picture("bar", "A bar", lambda: np.zeros((4, 4, 3), np.uint8)))
    page.write(shown, "# Page", FROM, tmp_path)
    assert page.differences(shown, "# Page", tmp_path) == []
    (tmp_path / "verification" / "bar.png").unlink()
    assert page.differences(shown, "# Page", tmp_path) == ["no picture bar.png"]


def test_a_case_that_is_published_alone_changes_nothing_else(tmp_path: Path) -> None:
    other = page.Result("Another", "Text.", [page.compare("displacement", 1.0, 1.0, 1e-3)])
    page.write([*found(), other], "# Page\n\nWhat it is.", FROM, tmp_path)
    before = (tmp_path / page.PAGE).read_text()
    titles = ["A bar", "Between", "Another"]
    page.replace([other], titles, "`fedcba`.", tmp_path)
    after = (tmp_path / page.PAGE).read_text()
    assert after == before.replace(FROM, f"{FROM}\nAnother: from commit `fedcba`.")
    between = page.Result("Between", "Text.", [page.compare("length", 2.0, 2.0, 1e-3)])
    page.replace([between], titles, "`fedcba`.", tmp_path)
    assert page.differences([*found(), between, other], "# Page\n\nWhat it is.", tmp_path) == []
