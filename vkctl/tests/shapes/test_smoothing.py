"""Surfaces of triangles: closed or not, how many bodies, how much within; made smooth."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.shapes import shells, smoothing
from vkctl.shapes.boxes import box
from vkctl.shapes.crossing import crossing
from vkctl.shapes.cutting import Surface, body, surface
from vkctl.shapes.simplices import at_points, tetrahedra
from vkctl.shapes.smoothing import smoothed
from vkctl.shapes.topology import HEX8, TET4, TET10


def cut(kind: str, level) -> Surface:
    """A box of 12 x 8 x 2 where a level over (x, y, z) is positive."""
    part = box(kind, (12, 8, 2), (12.0, 8.0, 2.0))  # type: ignore[arg-type]
    rows = {code: part.elements.of_type(code)[1].astype(np.int64) - 1 for code in (TET4, TET10)}
    rows[HEX8] = part.elements.of_type(HEX8)[1].astype(np.int64) - 1
    tets, points, _ = tetrahedra(part.nodes, rows, {})
    return surface(body(points, tets), at_points(level(*part.nodes.T), rows, of_corners=True))


def jagged(x: np.ndarray, y: np.ndarray, z: np.ndarray) -> np.ndarray:
    """Above an arch whose level jumps from node to node."""
    arch = y - 3.313 + 0.05 * (x - 6.0) ** 2
    return np.asarray(np.where((x + y + z) % 2 > 0.5, arch, 4.0 * arch))


KINDS = pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8"])


@KINDS
def test_smoothing_keeps_the_volume_and_makes_normals_turn_less(kind: str) -> None:
    rough = cut(kind, jagged)
    points, overlapping = smoothed(rough, np.zeros(len(rough.points), np.bool_))
    assert not overlapping
    assert shells.open_edges(rough.triangles) == 0
    before = shells.enclosed(rough.points, rough.triangles)
    assert shells.enclosed(points, rough.triangles) == pytest.approx(before, rel=1e-6)
    assert turning(points, rough) < 0.5 * turning(rough.points, rough)
    finest = shells.qualities(rough.points, rough.triangles).min()
    assert shells.qualities(points, rough.triangles).min() > finest


def turning(points: np.ndarray, part: Surface) -> float:
    """Mean of the squared angles between the normals of neighbours on the cut surface."""
    across = shells.areas(points, part.triangles)
    normals = across / np.linalg.norm(across, axis=1, keepdims=True)
    _, edge = shells.edges_of(part.triangles)
    sides = np.repeat(np.arange(len(normals)), 3)[np.argsort(edge, kind="stable")].reshape(-1, 2)
    free = (part.levels[part.triangles] == 0).all(axis=1)
    first, second = sides[free[sides].all(axis=1)].T
    return float(np.mean(1.0 - (normals[first] * normals[second]).sum(axis=1)))


@KINDS
def test_faces_and_edges_of_the_mesh_and_fixed_points_stay(kind: str) -> None:
    rough = cut(kind, jagged)
    fixed = np.linalg.norm(rough.points - (6.0, 8.0, 2.0), axis=1) < 2.5
    points, _ = smoothed(rough, fixed)
    assert fixed.any() and np.array_equal(points[fixed], rough.points[fixed])
    for axis, end in ((0, 12.0), (1, 8.0), (2, 2.0)):
        for plane in (0.0, end):
            there = rough.points[:, axis] == plane
            assert np.abs(points[there, axis] - plane).max(initial=0.0) < 1e-9
    assert np.abs(points - rough.points).max() > 0.05


def test_bodies_are_counted_without_the_walls_of_cavities() -> None:
    def ball(at: float, sign: float):
        return lambda x, y, z: sign * (0.9 - np.hypot(np.hypot(x - at, y - 4.0), z - 1.0))

    hollow = cut("hex8", ball(6.0, -1.0))
    assert shells.bodies(hollow.points, hollow.triangles) == 1
    assert shells.enclosed(hollow.points, hollow.triangles) < 12 * 8 * 2
    two = cut("hex8", lambda x, y, z: np.abs(x - 6.2) - 0.7)
    assert shells.bodies(two.points, two.triangles) == 2
    assert shells.open_edges(two.triangles[1:]) == 3


def touched(points: np.ndarray, part: Surface) -> int:
    return int(crossing(points, part.triangles, np.ones(len(part.triangles), np.bool_)).sum())


@pytest.mark.parametrize("seed", [4, 7])
def test_beads_and_threads_dont_cut_through_themselves_when_made_smooth(monkeypatch, seed) -> None:
    rng = np.random.default_rng(seed)
    scattered = rng.uniform(-1.0, 0.6, (13, 9, 3))

    def level(x: np.ndarray, y: np.ndarray, z: np.ndarray) -> np.ndarray:
        found = scattered[tuple(np.rint(c).astype(int) for c in (x, y, z))]
        return np.asarray(np.where(np.abs(found) < 0.05, 0.05, found))

    rough = cut("hex8", level)
    nothing = np.zeros(len(rough.points), np.bool_)
    assert touched(rough.points, rough) == 0
    monkeypatch.setattr(smoothing, "_TRIALS", 1)
    wrong, told = smoothed(rough, nothing)
    assert touched(wrong, rough) > 0 and told >= touched(wrong, rough)
    monkeypatch.undo()
    points, left = smoothed(rough, nothing)
    assert left == 0 and touched(points, rough) == 0
    before = shells.enclosed(rough.points, rough.triangles)
    assert shells.enclosed(points, rough.triangles) == pytest.approx(before, rel=1e-6)
    assert np.abs(points - rough.points).max() > 0.1


@KINDS
@pytest.mark.parametrize("depth", [1e-3, 0.1, 1.0])
@pytest.mark.parametrize("height", [0.0, 1.0])
def test_a_pocket_that_smoothing_would_close_sends_nothing_far_away(
    kind: str, depth: float, height: float
) -> None:
    def level(x: np.ndarray, y: np.ndarray, z: np.ndarray) -> np.ndarray:
        return np.where(abs(x - 6) + abs(y - 3) + abs(z - height) < 0.1, -depth, 1.0)

    part = cut(kind, level)
    with np.errstate(over="raise", invalid="raise"):
        points, overlapping = smoothed(part, np.zeros(len(part.points), np.bool_))
    assert not overlapping and np.abs(points - part.points).max() < 1.0
