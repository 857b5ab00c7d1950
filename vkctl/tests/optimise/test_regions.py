"""Regions to keep and to leave void, with and without a thickness."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, write_small

from vkctl.directory.model import read
from vkctl.optimise import history, optimise
from vkctl.optimise.wishes.regions import within


def test_a_set_to_leave_void_stays_void_and_the_volume_is_met(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 6\nvolume = 0.5\nvoid = ['wall_middle']\n")
    hole = "\n[node_sets.wall_middle]\nwhere = 'hypot(x - 5, y - 3) < 1.5'\n"
    cases.write_text(cases.read_text().replace("\n[supports.wall]", hole + "\n[supports.wall]"))
    done = optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    nodes = read(tmp_path / "d").nodes
    hole_nodes = np.hypot(nodes[:, 0] - 5, nodes[:, 1] - 3) < 1.5
    assert hole_nodes.sum() == 18
    for step in range(1, 7):
        levels = history.load_array(history.levels_file(tmp_path / "d", step))
        assert (levels[hole_nodes] == -1.0).all()
    assert done.rows[0].volume < 0.95
    assert done.rows[-1].volume == pytest.approx(done.rows[-1].target, abs=1e-4)


def test_regions_of_a_thickness_reach_that_far_around_faces_and_nodes(tmp_path: Path) -> None:
    settings = "steps = 1\nkeep = ['end', 'tip']\nvoid = ['far']\n"
    thick = "[optimise.thickness]\nend = 2.0\ntip = 3.0\nfar = 1.0\n"
    cases = write_small(tmp_path, settings + thick)
    faces = "\n[face_sets.end]\nwhere = 'x < 0.01'\n"
    cases.write_text(cases.read_text().replace("\n[supports.wall]", faces + "\n[supports.wall]"))
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    state = history.read_state(tmp_path / "d")
    assert state is not None
    x, y, _ = (nodes := read(tmp_path / "d").nodes).T
    tip = np.abs(nodes[:, None] - [[12, 0, 0], [12, 0, 1]])
    near_tip = np.linalg.norm(tip, axis=2).min(axis=1) <= 3.001
    kept = (x < 2.001) | near_tip
    assert (np.flatnonzero(kept) + 1).tolist() == state.kept
    box_away = np.hypot(np.maximum(10 - x, 0), np.maximum(4 - y, 0))
    assert (np.flatnonzero(box_away <= 1.001) + 1).tolist() == state.void
    levels = history.load_array(history.levels_file(tmp_path / "d", 1))
    assert (levels[kept] == 1).all() and (levels[(box_away <= 1.001) & ~kept] == -1).all()


def test_points_are_near_a_triangle_by_its_inside_its_edges_and_its_corners() -> None:
    triangle = np.array([[[0.0, 0, 0], [4, 0, 0], [0, 4, 0]]])
    places = np.array(
        [[1, 1, 0.9], [1, 1, 1.1], [2, -0.9, 0], [2, -1.1, 0], [2.8, 2.8, 0], [2.6, 2.6, 0]]
        + [[-0.7, -0.7, 0], [-0.8, -0.8, 0], [4.9, 0, 0], [5.1, 0, 0]]
    )
    wanted = [True, False, True, False, False, True, True, False, True, False]
    assert within(places, triangle, 1.0).tolist() == wanted
