"""Material that is added where a part breaks its limits."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import NOBODY

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.optimise.design import Design, make_design
from vkctl.optimise.growth import added, grown
from vkctl.optimise.wishes.entries import Wishes
from vkctl.optimise.wishes.read import read_wishes
from vkctl.prepare.case_file.mistakes import Mistakes
from vkctl.prepare.case_file.toml_table import Table
from vkctl.shapes.boxes import box
from vkctl.shapes.measures import select_nodes


def block(void: Array = NOBODY, **wishes: object) -> Design:
    """12 x 8 x 2 hexahedra with edges of 1."""
    part = box("hex8", (12, 8, 2), (12.0, 8.0, 2.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.load_cases[0].support(select_nodes(part.nodes, x=0.0))
    model.load_cases[0].load(select_nodes(part.nodes, x=12.0, y=0.0), [(0.0, -1.0, 0.0)] * 3)
    model.set_level(1.0)
    mistakes = Mistakes(Path("cases.toml"))
    wished = read_wishes(Table(dict(wishes), (), mistakes), ()) if wishes else Wishes()
    mistakes.finish()
    return make_design(model, 1.0, NOBODY, void, wished, evened=False)


def bar(design: Design, top: float) -> Array:
    """Material from y = 0 up to `top`."""
    return np.clip(top - design.points[:, 1], -1.0, 1.0)


def raised(design: Design, levels: Array, place: tuple[float, float, float], ratio: float) -> Array:
    return added(design, levels, np.array([place]), np.array([ratio]), 1.0)


def test_a_stress_well_below_its_limit_adds_nothing() -> None:
    design = block()
    levels = bar(design, 3.5)
    assert not raised(design, levels, (6.0, 3.5, 1.0), 0.8).any()
    assert raised(design, levels, (6.0, 3.5, 1.0), 0.99).any()


def test_the_higher_a_stress_the_more_is_added_and_at_most_half_an_edge() -> None:
    design = block()
    levels = bar(design, 3.5)
    most = [raised(design, levels, (6.0, 3.5, 1.0), ratio).max() for ratio in (1.0, 1.2, 9.0)]
    assert 0 < most[0] < most[1] < most[2] <= 0.5


def test_material_is_added_beside_the_place_only() -> None:
    design = block()
    found = raised(design, bar(design, 3.5), (6.0, 3.5, 1.0), 1.5)
    distance = np.linalg.norm(design.points - (6.0, 3.5, 1.0), axis=1)
    assert found[distance > 2.5].max() == 0.0
    assert found[(design.points == (6.0, 4.0, 1.0)).all(axis=1)].item() > 0


def test_where_the_design_volume_ends_material_is_added_across_the_member() -> None:
    design = block()
    found = raised(design, bar(design, 3.5), (6.0, 0.0, 1.0), 1.5)
    where = design.points[found > 0]
    assert len(where) and where[:, 1].min() >= 4.0 and np.abs(where[:, 0] - 6.0).max() <= 3.0


def test_nothing_is_added_further_off_than_members_are_thick() -> None:
    design = block()
    assert not raised(design, bar(design, 7.5), (6.0, -3.0, 1.0), 1.5).any()
    assert not raised(design, np.ones(len(design.points)), (6.0, 4.0, 1.0), 1.5).any()


def test_what_is_to_stay_void_has_no_room() -> None:
    part = box("hex8", (12, 8, 2), (12.0, 8.0, 2.0))
    void = np.flatnonzero(part.nodes[:, 1] > 3.9) + 1
    design = block(void)
    levels = design.shape.levels(bar(design, 3.5))
    places, ratios = np.array([[6.0, 3.5, 1.0]]), np.array([2.0])
    following = grown(design, levels, places, ratios, 0.0, 1.0)
    assert (following[design.points[:, 1] > 3.9] == -1.0).all()


def test_a_part_that_is_symmetric_stays_so() -> None:
    design = block(symmetry=[{"point": [6, 4, 1], "normal": [1, 0, 0]}])
    places, ratios = np.array([[2.0, 3.5, 1.0]]), np.array([2.0])
    levels = bar(design, 3.5)
    following = grown(design, levels, places, ratios, 0.0, 1.0)
    x, y, z = design.points.T
    there, back = np.lexsort((x, y, z)), np.lexsort((12 - x, y, z))
    assert following[there] == pytest.approx(following[back], abs=1e-12)
    assert (following - levels).max() == pytest.approx(0.5)


def test_a_plane_of_symmetry_between_the_nodes_takes_nothing_away() -> None:
    design = block(symmetry=[{"point": [6, 4.2, 1], "normal": [0, 1, 0]}])
    levels = design.shape.begun(np.clip(2.6 - np.abs(design.points[:, 1] - 4.2), -1.0, 1.0))
    none = np.empty((0, 3)), np.empty(0)
    assert np.array_equal(grown(design, levels, *none, 0.0, 1.0), levels)
    following = grown(design, levels, np.array([[6.0, 6.5, 1.0]]), np.array([2.0]), 0.0, 1.0)
    assert (following >= levels).all() and (following > levels).any()


def test_a_printed_part_stays_held_from_below() -> None:
    design = block(overhang={"direction": [0, 1, 0], "angle": 45})
    levels = design.shape.levels(bar(design, 3.5))
    following = grown(design, levels, np.array([[6.0, 3.5, 1.0]]), np.array([2.0]), 0.0, 1.0)
    assert np.array_equal(following, design.shape.levels(following))
    assert (following > levels + 0.2).any() and (following >= levels).all()


def test_a_piece_that_would_carry_nothing_is_not_added() -> None:
    design = block()
    levels = bar(design, 2.5)
    apart = np.linalg.norm(design.points - (6.0, 6.0, 1.0), axis=1) < 1.5
    levels[apart] = -0.2  # which a rise makes material
    following = grown(design, levels, np.array([[6.0, 6.0, 1.0]]), np.array([2.0]), 0.0, 1.0)
    assert raised(design, levels, (6.0, 6.0, 1.0), 2.0)[apart].max() > 0.25
    assert (following[apart] <= 0).all()


def test_other_limits_move_the_surface_everywhere() -> None:
    design = block()
    levels = bar(design, 3.5)
    none = np.empty((0, 3)), np.empty(0)
    following = grown(design, levels, *none, 1.05, 1.0)
    volume = design.volume(levels)
    # A plane surface passes a layer of integration points at once.
    assert design.volume(following) == pytest.approx(volume * 1.05 / 0.998, abs=0.01)
    assert (following >= levels).all() and np.ptp(following[design.points[:, 1] == 4.0]) < 1e-12
    assert np.array_equal(grown(design, levels, *none, 0.9, 1.0), levels)
    torn = grown(design, levels, *none, 9.0, 1.0)  # which a tenth more in each step mends as well
    assert volume < design.volume(torn) == pytest.approx(1.1 * volume, abs=0.02)
