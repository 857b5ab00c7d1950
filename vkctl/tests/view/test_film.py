"""Frames of a part that changes."""

from __future__ import annotations

from dataclasses import replace

import numpy as np
import pytest
from closed_surfaces import open_edges
from results_on_disk import make_model, with_hole

from vkctl.directory.model import Model
from vkctl.view import grid
from vkctl.view.film import as_mesh, cut_out, film, frame
from vkctl.view.plot import View

KINDS = ("tet4", "hex8", "tet10")
SMALL = View(field="level", size=(320, 240), marks=False)


def half(model: Model, right: bool) -> Model:
    """The model with material left or right of its middle."""
    middle = model.nodes[:, 0].mean() + 0.01
    other = replace(model, tp=model.tp.copy())
    other.set_level((model.nodes[:, 0] - middle) * (1 if right else -1))
    return other


@pytest.mark.parametrize("kind", KINDS)
def test_the_surface_of_a_frame_is_that_of_the_part(kind: str) -> None:
    model = with_hole(make_model(kind, (16, 2, 8)))
    with film(model, SMALL) as opened:
        mesh = as_mesh(cut_out(opened, model))
    expected = grid.part_surface(model)
    assert open_edges(mesh) == 0
    assert mesh.volume == pytest.approx(expected.volume, rel=1e-6)
    assert mesh.area == pytest.approx(expected.area, rel=1e-6)


def test_a_frame_shows_its_own_part_in_its_place_and_nothing_of_those_before() -> None:
    left, right = (half(make_model(), of_right) for of_right in (False, True))
    with film(left, SMALL) as opened:
        pictures = [
            frame(opened, as_mesh(cut_out(opened, model)), "a title").astype(int)
            for model in (left, right, left)
        ]
    np.testing.assert_array_equal(pictures[0], pictures[2])
    coloured = [np.ptp(picture, axis=2)[:, :200] > 20 for picture in pictures]  # left of the scale
    assert coloured[0].sum() > 1000 and coloured[1].sum() > 1000
    middles = [np.flatnonzero(mask.any(axis=0)).mean() for mask in coloured]
    assert middles[0] < middles[1] - 20


def test_a_frame_without_material_is_refused() -> None:
    model = make_model()
    with film(model, SMALL) as opened:
        model.set_level(-1.0)
        with pytest.raises(ValueError, match="no material"):
            cut_out(opened, model)
