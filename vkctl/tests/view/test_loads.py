"""Pictures of what is prepared: loads and supports, shapes of elements."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import faces_within
from vkctl.view import loads, quality
from vkctl.view import sets as view_sets
from vkctl.view.outer import active_part, outer
from vkctl.view.plot import View

runner = CliRunner()
SMALL = View(size=(500, 400))


def bar() -> Model:
    """A bar of 8 x 2 x 2 with a load case of everything."""
    part = box("tet10", (8, 2, 2), (8.0, 2.0, 2.0))
    case = LoadCase(reserved=b"all of it").prescribe(part.face("x-"))
    case.prescribe(part.face("z-")[-4:], "xz").prescribe(part.face("y+")[-2:], "y", (0, 0.25, 0))
    case.support(part.face("y-")[20:30])
    case.load(*part.traction("z+", (0, 0, -2.0))).load(1 + np.arange(9), (0, 0, -1.0), 3)
    case.heat(part.face("y+"), np.linspace(20, 80, len(part.face("y+"))))
    return Model(part.nodes, part.elements, [Material.isotropic(1e3, 0.3)], [case])


def texts(model: Model) -> list[str]:
    shape = outer(model, active_part(model))
    return [one.text for one in loads.symbols(model, model.load_cases[0], shape)]


def test_everything_that_acts_is_told_with_its_kind_and_sum() -> None:
    found = texts(bar())
    assert found[0] == "forces: 85 nodes\nsum (0, 0, -32)"
    assert found[1] == "body forces\nsum (0, 0, -9)"
    assert found[2] == "held in x, y and z:\n25 nodes"
    assert found[3] == "held in x and z:\n4 nodes"
    assert found[4] == "moved: 2 nodes\nby up to 0.25"
    assert found[5] == "springs: 10 nodes"
    assert found[6] == "temperatures: 85 nodes\n20 to 80"


def test_the_arrows_of_forces_have_their_sum_and_stand_outside() -> None:
    model = bar()
    shape = outer(model, active_part(model))
    records = model.load_cases[0].forces2
    cells = loads._cells(model.nodes[records["Node"] - 1], 8.0)
    sums = loads._summed(cells, records["Force"].astype(float))
    assert sums.sum(axis=0) == pytest.approx((0, 0, -32), abs=1e-5)
    arrows = loads._forces(model, records, shape, 8.0)[0].mesh
    assert arrows is not None
    z = arrows.points[:, 2]
    assert z.min() > 2 - 1e-6 and z.max() <= 2 + loads._ARROW * 8.0 + 1e-6


def test_forces_close_together_are_added_and_said_to_be() -> None:
    part = box("hex8", (8, 60, 1), (8.0, 2.0, 2.0))
    case = LoadCase().load(part.face("x+"), (1.0, 0, 0))
    model = Model(part.nodes, part.elements, [], [case])
    assert texts(model) == [
        "forces: 122 nodes\nsum (122, 0, 0)\ndrawn as 16 arrows, near ones added"
    ]


def test_forces_that_pull_stand_outside_as_well() -> None:
    model = bar()
    case = LoadCase().load(np.flatnonzero(model.nodes[:, 2] == 2.0) + 1, (0, 0, 1.0))
    shape = outer(model, active_part(model))
    arrows = loads._forces(model, case.forces2, shape, 8.0)[0].mesh
    assert arrows is not None and arrows.points[:, 2].min() > 2 - 1e-6


def test_a_support_shows_the_directions_that_it_holds() -> None:
    model = bar()
    model.load_cases[0] = LoadCase().prescribe([1, 5], "x").prescribe([1], "y")
    assert texts(model) == ["held in x:\n1 node", "held in x and y:\n1 node"]
    model.load_cases[0] = LoadCase()
    assert texts(model) == ["nothing acts"]


def test_normals_point_out_of_the_part() -> None:
    model = bar()
    found = outer(model, active_part(model))
    at = np.flatnonzero((model.nodes == (4, 1, 2)).all(axis=1))[0]
    assert found.normals[at] == pytest.approx((0, 0, 1))
    assert found.surface.area == pytest.approx(2 * (16 + 16 + 4))


def count_of(picture: Path, colour: tuple[int, int, int]) -> int:
    from PIL import Image

    return int((np.asarray(Image.open(picture)) == colour).all(axis=2).sum())


def test_loads_are_drawn_without_a_run(tmp_path: Path) -> None:
    write(bar(), tmp_path / "d")
    shown = runner.invoke(app, ["plot", str(tmp_path / "d"), "--loads", "-o", f"{tmp_path}/x.png"])
    assert shown.exit_code == 0, shown.output
    for colour in (loads._FORCE, loads._HELD, loads._SPRING, loads._WARM, loads._MOVED):
        assert count_of(tmp_path / "x.png", colour) > 100, colour  # at least in the legend


def test_what_is_inside_shines_through(tmp_path: Path) -> None:
    model = bar()
    model.load_cases = [LoadCase().load([1], (0, 0, -1.0), 3)]
    middle = np.flatnonzero((model.nodes == (4, 1, 1)).all(axis=1))[0] + 1
    plain = loads.drawn_loads(model, 1, SMALL)
    model.load_cases = [LoadCase().load([middle], (0, 0, -1.0), 3)]
    inside = loads.drawn_loads(model, 1, SMALL)
    part = inside[:, :300].astype(int)
    assert (np.abs(part - plain[:, :300]).max(axis=2) > 5).sum() > 20
    assert not (part == loads._BODY).all(axis=2).any()


@pytest.mark.parametrize("number", [0, 2])
def test_a_load_case_that_is_not_there_is_refused(tmp_path: Path, number: int) -> None:
    write(bar(), tmp_path / "d")
    with pytest.raises(ValueError, match=f"no load case {number}"):
        loads.plot_loads(tmp_path / "d", tmp_path / "x.png", number)


def test_a_load_at_a_node_that_is_not_there_is_refused(tmp_path: Path) -> None:
    model = bar()
    model.load_cases[0].forces2["Node"][3] = 9999
    with pytest.raises(ValueError, match="names node 9999 of"):
        loads.drawn_loads(model, 1, SMALL)


# --- sets --------------------------------------------------------------------------------------


def test_sets_are_drawn_without_a_run_each_in_its_colour(tmp_path: Path) -> None:
    part = box("hex8", (8, 2, 2), (8.0, 2.0, 2.0))
    model = Model(part.nodes, part.elements, [], [LoadCase()])
    model.sets = [
        formats.NamedSet("top", "face", faces=tuple(faces_within(part.elements, part.face("z+")))),
        formats.NamedSet("corner", "node", part.face("x-")),
        formats.NamedSet("some", "element", np.array([7, 8])),
        formats.NamedSet("none", "node"),
        formats.NamedSet("all", "element", np.arange(len(part.elements)) + 1),
    ]
    write(model, tmp_path / "d")
    picture = tmp_path / "x.png"
    shown = runner.invoke(app, ["plot", str(tmp_path / "d"), "--sets", "-o", str(picture)])
    assert shown.exit_code == 0, shown.output
    from PIL import Image

    pixels = np.asarray(Image.open(picture)).astype(int)[:, :1000]
    blue, orange, green = pixels[..., 2], pixels[..., 0], pixels[..., 1]
    assert ((blue > pixels[..., 0] + 60) & (blue > green)).sum() > 1000
    assert ((orange > blue + 60) & (orange > green + 20)).sum() > 100
    assert ((green > pixels[..., 0] + 40) & (green > blue + 40)).sum() > 100
    texts = [view_sets._words(one, len(part.elements)) for one in model.sets]
    assert texts[0] == "top:\n16 faces" and texts[3] == "none:\n0 nodes"
    assert texts[4] == "all:\n32 elements, all there are"


def test_a_directory_that_remembers_no_sets_is_told(tmp_path: Path) -> None:
    write(bar(), tmp_path / "d")
    with pytest.raises(ValueError, match="there are no sets to draw"):
        view_sets.plot_sets(tmp_path / "d", tmp_path / "x.png")


# --- shapes of elements ------------------------------------------------------------------------


def test_the_quality_of_elements_is_drawn_without_a_run(tmp_path: Path) -> None:
    write(bar(), tmp_path / "d")
    command = ["plot", str(tmp_path / "d"), "--quality", "-o", f"{tmp_path}/x.png"]
    assert runner.invoke(app, command).exit_code == 0
    assert (tmp_path / "x.png").exists()


def test_a_regular_element_has_quality_one_and_a_spoilt_one_none() -> None:
    nodes = np.array([(1, 1, 1), (-1, -1, 1), (-1, 1, -1), (1, -1, -1), (0.0, 0, 0)])
    rows = [(1, 2, 3, 4), (1, 3, 2, 4), (1, 2, 3, 3), (1, 2, 3, 5)]
    table = rows if np.linalg.det(nodes[1:4] - nodes[0]) > 0 else [rows[1], rows[0], *rows[2:]]
    model = Model(nodes, Elements.from_tables(tet4=table), [])
    found = quality.element_quality(model)
    assert found[0] == pytest.approx(1.0) and found[1] == 0.0 and found[2] == 0.0
    assert 0 < found[3] < 1


def test_elements_left_out_do_not_count(monkeypatch: pytest.MonkeyPatch) -> None:
    model = bar()
    said = []
    monkeypatch.setattr(quality, "put_title", lambda canvas, title: said.append(title))
    quality.drawn_quality(model, SMALL)
    model.exclude_elements([1, 2])
    quality.drawn_quality(model, SMALL)
    count = len(model.elements)
    assert said == [f"quality of {count} elements", f"quality of {count - 2} elements"]
    model.exclude_elements(np.arange(count) + 1)
    for draw in (quality.drawn_quality, lambda m, view: loads.drawn_loads(m, 1, view)):
        with pytest.raises(ValueError, match="no elements to draw"):
            draw(model, SMALL)


def test_only_one_kind_of_picture_can_be_asked_for(tmp_path: Path) -> None:
    write(bar(), tmp_path / "d")
    command = ["plot", str(tmp_path / "d"), "--quality", "--loads", "-o", f"{tmp_path}/x.png"]
    shown = runner.invoke(app, command)
    assert (
        shown.exit_code == 2
        and "Give one of --field, --loads, --sets and --quality." in shown.stderr
    )


def test_labels_of_elements_are_told(monkeypatch: pytest.MonkeyPatch) -> None:
    model = bar()
    model.labels = formats.Labels(
        np.arange(len(model.nodes)) + 1, np.arange(len(model.elements)) + 501
    )
    said = []
    monkeypatch.setattr(quality, "put_marks", lambda canvas, marks: said.extend(marks))
    quality.drawn_quality(model, SMALL)
    number = int(quality.element_quality(model).argmin()) + 1
    assert said[0].lines[1] == f"element {number} ({number + 500} in the mesh)"
