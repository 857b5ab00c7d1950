"""Largest and smallest value in a picture: true extremes, at their nodes."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from results_on_disk import make_model, with_hole, write_results

from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Model, write
from vkctl.view import plot
from vkctl.view.canvas import Mark, Scale

SMALL = (500, 400)


@pytest.fixture
def said(monkeypatch: pytest.MonkeyPatch) -> Iterator[dict[str, Any]]:
    """What a picture says: its title, its scale, its marks."""
    found: dict[str, Any] = {}
    for name in ("put_title", "put_scale", "put_marks"):
        monkeypatch.setattr(
            plot, name, lambda canvas, what, name=name: found.__setitem__(name[4:], what)
        )
    yield found


def drawn(model: Model, values: Any, said: dict[str, Any], **how: Any) -> tuple[Scale, list[Mark]]:
    view = plot.View(field="element_mean", size=SMALL, **how)
    plot.drawn(model, {"element_mean": np.asarray(values, np.float32)}, view, "a title")
    return said["scale"], said.get("marks", [])


def test_both_extremes_are_marked_with_value_and_node(said: dict[str, Any]) -> None:
    model = make_model()
    values = np.ones(len(model.nodes))
    corner = int(np.flatnonzero((model.nodes == (0, 0, 4)).all(axis=1))[0])
    values[corner], values[0] = 7.25, -3.5
    scale, marks = drawn(model, values, said)
    assert (scale.low, scale.high) == (-3.5, 7.25)
    assert [mark.lines[:2] for mark in marks] == [
        ["smallest: -3.5", "node 1"],
        ["largest: 7.25", f"node {corner + 1}"],
    ]
    assert not marks[1].hidden


def test_nodes_are_named_as_the_mesh_does_as_well(said: dict[str, Any]) -> None:
    model = make_model()
    count = len(model.nodes)
    model.labels = formats.Labels(np.arange(count) + 1001, np.arange(len(model.elements)) + 1)
    _, marks = drawn(model, np.arange(count), said)
    assert [mark.lines[1] for mark in marks] == [
        "node 1 (1001 in the mesh)",
        f"node {count} ({count + 1000} in the mesh)",
    ]


def test_an_extreme_inside_or_behind_is_said_to_be_there(said: dict[str, Any]) -> None:
    model = make_model()
    middle = np.flatnonzero((model.nodes == (4, 2, 2)).all(axis=1))[0]
    behind = np.flatnonzero((model.nodes == (4, 4, 2)).all(axis=1))[0]
    values = np.zeros(len(model.nodes))
    values[middle], values[behind] = 5.0, -1.0
    scale, marks = drawn(model, values, said)
    assert scale.high == 5.0
    assert [mark.lines[2:] for mark in marks] == [
        ["on a side that isn't seen"],
        ["inside the part"],
    ]


def test_a_node_that_no_element_has_is_no_extreme(said: dict[str, Any]) -> None:
    model = make_model()
    model.nodes = np.vstack((model.nodes, (90.0, 0.0, 0.0)))
    for name in ("node_flags", "node_tp_index"):
        setattr(model, name, np.append(getattr(model, name), 0))
    values = np.linspace(0, 1, len(model.nodes))
    values[-1] = 100.0
    scale, _ = drawn(model, values, said)
    assert scale.high < 1.0


def test_the_extreme_of_a_cut_part_lies_on_its_surface_near_a_node(said: dict[str, Any]) -> None:
    model = make_model()
    model.set_level(6.3 - model.nodes[:, 0])
    scale, marks = drawn(model, model.nodes[:, 0], said)
    assert scale.high == pytest.approx(6.3, abs=1e-5)
    assert "near node" in marks[1].lines[1]


def test_a_constant_field_has_no_marks_and_a_scale_of_one_value(said: dict[str, Any]) -> None:
    model = make_model()
    scale, marks = drawn(model, np.full(len(model.nodes), 3.0), said)
    assert (scale.low, scale.high, marks) == (3.0, 3.0, [])


def test_a_field_without_any_value_is_drawn_grey(said: dict[str, Any]) -> None:
    model = make_model()
    view = plot.View(field="criterion", size=SMALL)
    plot.drawn(model, {"criterion": np.full(len(model.nodes), np.nan)}, view, "")
    assert "scale" not in said and "marks" not in said


def test_a_picture_without_marks_has_none(said: dict[str, Any]) -> None:
    model = make_model()
    assert drawn(model, np.arange(len(model.nodes)), said, marks=False)[1] == []


def test_high_safety_factors_are_drawn_alike_and_said_to_go_on(said: dict[str, Any]) -> None:
    model = make_model()
    values = np.geomspace(0.5, 1e6, len(model.nodes))
    values[-1] = np.inf
    view = plot.View(field="safety", size=SMALL)
    plot.drawn(model, {"safety": values}, view, "")
    assert (said["scale"].low, said["scale"].high, said["scale"].more_above) == (0.5, 10.0, True)
    assert [mark.lines[:2] for mark in said["marks"]] == [["smallest: 0.5", "node 1"]]
    red, blue = said["scale"].colours[[0, -1]].astype(int)
    assert red[0] > 2 * red[2] and blue[2] > 2 * blue[0]
    plot.drawn(model, {"safety": np.linspace(2, 8, len(values))}, view, "")
    assert (said["scale"].high, said["scale"].more_above) == (8.0, False)
    assert len(said["marks"]) == 2


def test_the_scale_tells_the_unit_that_the_case_file_names(said: dict[str, Any]) -> None:
    model = make_model()
    model.notes = formats.CaseNotes(units="mm-N-MPa")
    for field, title in (
        ("element_mean", "signed element mean of von Mises stress in MPa"),
        ("energy_density", "strain energy density in mJ/mm³"),
        ("magnitude", "displacement in mm"),
        ("criterion", "criterion"),
    ):
        view = plot.View(field=field, size=SMALL)  # type: ignore[arg-type]
        plot.drawn(model, {field: np.arange(len(model.nodes))}, view, "")
        assert said["scale"].title == title


def test_white_stands_for_zero_where_both_signs_occur() -> None:
    colours = plot.field_colours(-1.0, 3.0).astype(int)
    spread = colours.max(axis=1) - colours.min(axis=1)
    assert abs(int(spread.argmin()) - 64) <= 2  # a quarter of 256 shades
    assert colours[-1, 0] > colours[-1, 2] and colours[0, 2] > colours[0, 0]


def test_the_title_has_the_load_case_by_its_name(tmp_path: Path, said: dict[str, Any]) -> None:
    model = with_hole(make_model())
    write_results(model, tmp_path / "d", (1, 2))
    model.load_cases = [LoadCase(), LoadCase(reserved="größte Böe".encode())]
    write(model, tmp_path / "d")
    for number, name in ((1, "load case 1,"), (2, "load case 2, größte Böe,")):
        plot.plot(tmp_path / "d", tmp_path / "x.png", number, plot.View(size=SMALL))
        assert said["title"].startswith(name)
