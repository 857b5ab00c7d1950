"""What of an energy lies away from single nodes that something acts on."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND

from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.results import read_results
from vkctl.optimise.away import energy_away, single_places
from vkctl.running.run import run
from vkctl.shapes.boxes import box


def bar(load: LoadCase) -> Model:
    part = box("hex8", (24, 2, 2), (24.0, 1.0, 1.0))
    options = {"Sys.MaxNumCompThreads": 1.0}
    return Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.0)], [load], options=options)


def test_the_energy_of_a_stretched_bar_goes_with_the_length_that_is_away(tmp_path: Path) -> None:
    x = box("hex8", (24, 2, 2), (24.0, 1.0, 1.0)).nodes[:, 0]
    held, moved = (np.flatnonzero(np.isclose(x, end)) + 1 for end in (0.0, 24.0))
    case = LoadCase().prescribe(held).prescribe(moved, "xyz", (0.1, 0, 0))
    model = bar(case)
    write(model, tmp_path)
    assert run(tmp_path, vk_rund=VK_RUND, mode="direct").ok
    results = read_results(tmp_path, 1)
    middle = np.array([[0.0, 0.5, 0.5]])
    assert energy_away(model, results, middle + 1e3, 1.0) == pytest.approx(results.strain_energy)
    quarter = energy_away(model, results, middle, 18.0) / results.strain_energy
    assert quarter == pytest.approx(0.25, abs=0.005)


def test_nodes_of_a_face_are_not_single_ones_and_those_of_a_line_are() -> None:
    part = box("hex8", (24, 2, 2), (24.0, 1.0, 1.0))
    x, y, _ = part.nodes.T
    wall = np.flatnonzero(x < 0.01) + 1
    edge = np.flatnonzero((x > 23.99) & (y < 0.01)) + 1
    end = np.flatnonzero(x > 23.99) + 1
    on_face = bar(LoadCase().prescribe(wall).load(end, (0, -1.0, 0)))
    assert len(single_places(on_face, 1)) == 0
    on_line = bar(LoadCase().prescribe(wall).load(edge, (0, -1.0, 0)))
    assert single_places(on_line, 1) == pytest.approx(part.nodes[edge - 1])
    on_both = bar(LoadCase().prescribe(edge).load(end, (0, -1.0, 0)))
    assert single_places(on_both, 1) == pytest.approx(part.nodes[edge - 1])
