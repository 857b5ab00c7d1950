"""Pieces of a level field: what hangs together, what carries, what has fallen apart; its teeth."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import NOBODY, TWO_CASES, VK_RUND, write_small

from vkctl.directory.model import LoadCase, Material, Model, read
from vkctl.optimise import StepShown, optimise
from vkctl.optimise.design import Design, make_design
from vkctl.optimise.pieces import find_pieces
from vkctl.optimise.teeth import cut_share, uneven_nodes
from vkctl.shapes.boxes import box
from vkctl.shapes.measures import select_nodes
from vkctl.view.grid import part_surface


def bar(kind: str, kept: np.ndarray = NOBODY) -> tuple[Model, Design]:
    """Held at x = 0, loaded at x = 12 in one load case and at x = 6 in the other."""
    part = box(kind, (12, 3, 3), (12.0, 3.0, 3.0))  # type: ignore[arg-type]
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [])
    for x in (12.0, 6.0):
        case = LoadCase()
        case.support(select_nodes(part.nodes, x=0.0))
        case.load(select_nodes(part.nodes, x=x), (0.0, 0.0, 1.0))
        model.load_cases.append(case)
    model.set_level(1.0)
    return model, make_design(model, 1.0, kept)


def bodies(model: Model, levels: np.ndarray) -> int:
    model.tp = levels.astype(np.float32)
    surface = part_surface(model)
    return len(np.unique(surface.connectivity().point_data["RegionId"]))


KINDS = pytest.mark.parametrize("kind", ["tet4", "tet10", "hex8", "mixed"])


@KINDS
def test_pieces_are_the_bodies_that_the_surface_encloses(kind: str) -> None:
    model, design = bar(kind)
    x, y, _ = model.nodes.T
    for levels in (np.sin(1.1 * x) * np.cos(1.3 * y) + 0.15, np.sin(2.3 * x + y), y - 1.4):
        found = find_pieces(design.joints, levels).count
        assert found == bodies(model, levels) > 0


@KINDS
def test_a_load_that_nothing_joins_to_a_support_is_told_with_its_place(kind: str) -> None:
    model, design = bar(kind)
    x = model.nodes[:, 0]
    whole = find_pieces(design.joints, np.ones(len(x)))
    assert (whole.count, whole.broken) == (1, ())
    apart = find_pieces(design.joints, np.abs(x - 9.0) - 0.7)
    assert apart.count == 2 and apart.carrying.tolist().count(True) == 1
    assert apart.broken == (
        "the design has fallen apart: nothing joins the load at (12, 1.5, 1.5) of load case 1 "
        "to a support",
    )


def upper_part(model: Model) -> np.ndarray:
    """A criterion that grows upwards, more with every layer of nodes."""
    return np.asarray(np.exp(2.0 * model.nodes[:, 2]))


@KINDS
def test_what_carries_nothing_goes_at_once_and_its_volume_to_the_rest(kind: str) -> None:
    model, design = bar(kind)
    lone = np.linalg.norm(model.nodes - (9.0, 0.0, 0.0), axis=1) < 1.2
    criterion = np.where(lone, 400.0, upper_part(model))
    void = np.full(len(criterion), -0.01)
    following, _ = design.next_levels(void, criterion, 0.3, 1.0)
    pieces = find_pieces(design.joints, following)
    assert pieces.count == 1
    corners = ~np.isin(np.arange(len(lone)), design.joints.middles[:, 0])
    assert (pieces.of_node[lone & corners] == -1).all()
    assert design.volume(following) == pytest.approx(0.3, abs=1e-5)


@KINDS
def test_a_piece_to_keep_stays(kind: str) -> None:
    model, _ = bar(kind)
    far = int(np.argmin(np.linalg.norm(model.nodes - (9.0, 0.0, 0.0), axis=1)))
    model, design = bar(kind, np.array([far + 1]))
    criterion = upper_part(model)
    following, _ = design.next_levels(np.full(len(criterion), -0.01), criterion, 0.3, 1.0)
    assert following[far] == 1.0
    assert find_pieces(design.joints, following).carrying.tolist() in ([True, False], [False, True])


@KINDS
def test_where_a_load_has_lost_its_support_both_ends_stay(kind: str) -> None:
    model, design = bar(kind)
    gap = np.abs(model.nodes[:, 0] - 9.0) < 1.6
    criterion = np.where(gap, 1e-3, upper_part(model))
    following, _ = design.next_levels(np.full(len(criterion), -0.01), criterion, 0.3, 1.0)
    pieces = find_pieces(design.joints, following)
    assert pieces.count == 2 and len(pieces.broken) == 1


def test_the_loop_leaves_one_piece(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "volume = 0.8\nsteps = 3\nreduction = 0.1\n", TWO_CASES)
    shown: list[StepShown] = []
    done = optimise(cases, tmp_path / "d", vk_rund=VK_RUND, on_step=shown.append)
    assert [step.broken for step in shown] == [()] * 3
    assert done.pieces.count == 1 == bodies(read(tmp_path / "d"), done.levels)


@KINDS
def test_nodes_are_teeth_or_dents_where_nearly_all_around_them_is_otherwise(kind: str) -> None:
    model, design = bar(kind)
    y, inner = model.nodes[:, 1], np.abs(model.nodes - (4.0, 3.0, 1.0)).max(axis=1) < 0.1
    assert inner.sum() == 1
    above = y - 1.4
    assert not uneven_nodes(design.space, above).any()
    assert not uneven_nodes(design.space, -above).any()
    dented, dotted = np.where(inner, -0.01, above), np.where(inner, 0.01, -above)
    assert uneven_nodes(design.space, dented)[inner].all()
    assert np.flatnonzero(uneven_nodes(design.space, dotted)).tolist() == [inner.argmax()]
    assert cut_share(design.space, y + 0.1) == 0.0 < cut_share(design.space, above) < 0.5


def test_a_step_levels_teeth_and_meets_its_volume_all_the_same() -> None:
    model, design = bar("hex8")
    inner = np.abs(model.nodes - (4.0, 0.0, 1.0)).max(axis=1) < 0.1
    criterion = np.where(inner, 25.0, upper_part(model))
    following, _ = design.next_levels(np.full(len(inner), -0.01), criterion, 0.3, 1.0)
    assert following[inner] < 0
    assert not uneven_nodes(design.space, design.levels_of_nodes(following)).any()
    assert design.volume(following) == pytest.approx(0.3, abs=1e-5)
