"""The cantilever and the command line around it."""

import numpy as np
import pytest

from vkctl.prepare import cantilever
from vkctl.shapes.measures import element_volumes


def test_the_cantilever_has_about_100000_equations_and_one_pattern():
    model, part = cantilever.cantilever()
    clamped = len(part.face("x-"))
    assert 95_000 < 3 * (len(part.nodes) - clamped) < 105_000
    assert [case.pattern for case in model.load_cases] == [1, 1]
    assert model.node_tp_index is not None
    assert model.node_tp_index.min() == 1
    volumes = element_volumes(model.nodes, model.elements)
    assert volumes.min() > 0
    assert volumes.sum() == pytest.approx(cantilever.LENGTH * cantilever.WIDTH**2)


def test_the_cantilever_carries_the_force_and_the_moment_it_claims():
    model, _ = cantilever.cantilever()
    bending, twisting = (case.forces2 for case in model.load_cases)
    assert np.allclose(bending["Force"].sum(axis=0, dtype=float), (0, 0, -20000.0), atol=1e-2)
    arms = model.nodes[twisting["Node"] - 1] - (0, cantilever.WIDTH / 2, cantilever.WIDTH / 2)
    moment = np.cross(arms, twisting["Force"].astype(float)).sum(axis=0)
    assert moment[0] == pytest.approx(cantilever.TWISTING_MOMENT, rel=1e-5)
