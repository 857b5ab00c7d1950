"""Safety factors against yield stresses."""

from __future__ import annotations

import json
import re
from pathlib import Path

import numpy as np
import pytest
from results_on_disk import write_results
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.model import Material, Model, write
from vkctl.shapes.boxes import box
from vkctl.stress import nodal_stress, safety
from vkctl.stress.safety import safety_field

from .states import WOOD, given, model_of


def bent_bar() -> tuple[Model, np.ndarray]:
    """A bar whose stress xx = 10 z of modulus 1000, largest at its top, z = 2."""
    part = box("tet10", (4, 3, 3), (4.0, 2.0, 2.0))
    steel = Material.isotropic(1000.0, 0.0, name="steel")
    steel.yield_stress = 50.0
    x, _, z = part.nodes.T
    shift = 0.01 * np.column_stack((x * z, np.zeros_like(x), -x * x / 2))
    return model_of(part, steel), shift


def test_the_least_factor_stands_where_the_stress_is_largest() -> None:
    model, shift = bent_bar()
    (least,) = safety(model, nodal_stress(given(model, shift)))
    assert (least.material, least.name) == (1, "steel")
    assert least.factor == pytest.approx(2.5, rel=1e-6)
    assert least.place == tuple(model.nodes[least.node - 1]) and least.place[2] == 2.0


def test_a_set_of_nodes_has_a_factor_of_its_own() -> None:
    model, shift = bent_bar()
    middle = np.flatnonzero(np.isclose(model.nodes[:, 2], 1.0)) + 1
    found = nodal_stress(given(model, shift))
    (least,) = safety(model, found, middle)
    assert least.factor == pytest.approx(5.0, rel=1e-6) and least.node in middle
    assert safety(model, found, []) == []


def test_nodes_beyond_the_surface_do_not_count() -> None:
    model, shift = bent_bar()
    model.set_level(1.5 - model.nodes[:, 2])
    (least,) = safety(model, nodal_stress(given(model, shift)))
    # The highest nodes inside; mid-edge nodes have the level of their edge's middle.
    assert least.place[2] == pytest.approx(4 / 3, abs=1e-6)
    assert least.factor == pytest.approx(50 / 10 / (4 / 3), rel=1e-5)


def test_materials_without_strength_and_orthotropic_ones_have_no_factor() -> None:
    model, shift = bent_bar()
    model.materials[0].yield_stress = 0.0
    assert safety(model, nodal_stress(given(model, shift))) == []
    model.materials = [Material(**{**vars(WOOD), "yield_stress": 5.0})]
    assert safety(model, nodal_stress(given(model, shift))) == []


def test_a_part_without_stress_is_infinitely_safe() -> None:
    model, shift = bent_bar()
    (least,) = safety(model, nodal_stress(given(model, 0.0 * shift)))
    assert least.factor == float("inf")


def test_limits_replace_yield_stresses_by_name_or_for_all() -> None:
    model, shift = bent_bar()
    found = nodal_stress(given(model, shift))
    (plain,) = safety(model, found)
    (named,) = safety(model, found, limits={"steel": 2 * plain.yield_stress})
    assert named.factor == pytest.approx(2 * plain.factor)
    model.materials[0].yield_stress = 0.0
    (limited,) = safety(model, found, limits={"": plain.yield_stress})
    assert limited == plain
    with pytest.raises(ValueError, match="no isotropic material 'stel' to limit: .*'steel'"):
        safety(model, found, limits={"stel": 3.0})


def test_the_field_of_safety_has_its_least_value_where_the_stress_is_largest() -> None:
    model, shift = bent_bar()
    found = nodal_stress(given(model, shift))
    factors = safety_field(model, found)
    (least,) = safety(model, found)
    assert np.nanargmin(factors) == least.node - 1
    assert np.nanmin(factors) == pytest.approx(least.factor)
    assert np.isinf(safety_field(model, nodal_stress(given(model, 0.0 * shift)))).all()
    model.materials[0].yield_stress = 0.0
    assert np.isnan(safety_field(model, found)).all()


def test_the_summary_tells_factor_and_place_of_each_load_case(tmp_path: Path) -> None:
    model, shift = bent_bar()
    count = len(model.nodes)
    model.labels = formats.Labels(np.arange(count) + 1000, np.arange(len(model.elements)))
    write_results(model, tmp_path, (1, 2))
    for number in (1, 2):
        formats.write_displacements(tmp_path, number, number * shift)
    (tmp_path / formats.LOG_FILE).write_text("Info<Msg:Tool.vk_rund.End >\n")
    told = CliRunner().invoke(app, ["summary", str(tmp_path), "--safety"])
    assert told.exit_code == 0, told.output
    lines = [line for line in told.output.splitlines() if "safety factor" in line]
    assert [line[:40] for line in lines] == [
        "load case 1, steel: safety factor 2.5, v",
        "load case 2, steel: safety factor 1.25, ",
    ]
    place = re.search(r"at node ([0-9]+) [(]([0-9]+) in the mesh[)], [(].*, 2[)]$", lines[0])
    assert place is not None and int(place[2]) == int(place[1]) + 999
    asked = CliRunner().invoke(app, ["summary", str(tmp_path), "--safety", "--json"])
    factors = [least["factor"] for least in json.loads(asked.output)["safety"]]
    assert factors == pytest.approx([2.5, 1.25], rel=0.01)
    model.sets = [formats.NamedSet("start", "node", np.flatnonzero(model.nodes[:, 0] == 0) + 1)]
    write(model, tmp_path)
    words = ["summary", str(tmp_path), "--safety", "--limit", "steel=20", "--set", "start"]
    told = CliRunner().invoke(app, words)
    assert "load case 1, set start, steel: safety factor 1, von Mises stress 20 of" in told.output
    asked = json.loads(CliRunner().invoke(app, [*words, "--json"]).output)["safety"]
    assert [one["set"] for one in asked] == ["start", "start"]
    assert [one["yield_stress"] for one in asked] == [20.0, 20.0]
    model.materials[0].yield_stress = 0.0
    write(model, tmp_path)
    told = CliRunner().invoke(app, ["summary", str(tmp_path), "--safety"])
    assert "no isotropic material has a yield_stress" in told.output
