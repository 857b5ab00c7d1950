"""The cantilever and the command line around it."""

import sys

import matplotlib.image
import numpy as np
import pytest
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, read, write
from vkctl.directory.summary import summary
from vkctl.prepare import cantilever
from vkctl.running.run import NotFoundError
from vkctl.shapes.boxes import box
from vkctl.shapes.measures import element_volumes
from vkctl.view.deformed import picture

runner = CliRunner()


def solved_box(directory, deflection=0.01):
    """A small box with the files a run would leave: a parabola of deflections."""
    part = box("hex8", (6, 2, 2), (6.0, 2.0, 2.0))
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0, 0, -1.0)))
    write(Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case]), directory)
    shift = np.zeros_like(part.nodes)
    shift[:, 2] = -deflection * (part.nodes[:, 0] / 6.0) ** 2
    totals = np.zeros(1, formats.TOTALS)[0]
    totals["LoadCase"], totals["Kind"], totals["ARQua"] = 1, 1, 1.0
    totals["MaxDis"], totals["R"] = deflection, (0, 0, -4.0)
    formats.write_totals(directory, 1, totals)
    formats.write_displacements(directory, 1, shift)
    formats.write_magnitude(directory, 1, np.linalg.norm(shift, axis=1))
    formats.write_stress(directory, 1, np.linspace(-2, 3, len(part.nodes)))
    formats.write_criterion(directory, 1, [])
    (directory / formats.LOG_FILE).write_text(
        "Data<Key:LCaseId><Value:1>\nInfo<Msg:IMode: 1>\nInfo<Msg:ICount: 17>\n"
        "Data<Key:ARQua><Value:1.000000E+00>\nInfo<Msg:LCaseTime: 00:00:01.500 >\n"
        "Info<Msg:Total time: 00:00:02.000 >\nInfo<Msg:Tool.vk_rund.End >\n"
    )


def test_the_cantilever_has_about_100000_equations_and_one_pattern():
    model, part = cantilever.cantilever()
    clamped = len(part.face("x-"))
    assert 95_000 < 3 * (len(part.nodes) - clamped) < 105_000
    assert [case.pattern for case in model.load_cases] == [1, 1]
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


def test_summary_tells_log_and_results(tmp_path):
    solved_box(tmp_path)
    text = summary(tmp_path)
    assert text.splitlines() == [
        "load case 1: iterative, 17 iterations, quality 1.000, 1.5 s",
        "results of load case 1:",
        "  largest displacement 0.01",
        "  strain energy        0",
        "  nodal stress         -2 to 3",
        "  sum of loads         (0, 0, -4)",
        "the whole run took 2.0 s",
    ]


def test_summary_of_a_stopped_run_ends_with_the_error(tmp_path):
    solved_box(tmp_path)
    (tmp_path / formats.LOG_FILE).write_text("Error<Msg:Error opening file: mx.mats>\n")
    assert summary(tmp_path).endswith("the run stopped: Error opening file: mx.mats")


def test_the_picture_shows_a_coloured_part(tmp_path):
    solved_box(tmp_path)
    picture(tmp_path, tmp_path / "part.png")
    pixels = matplotlib.image.imread(tmp_path / "part.png")[..., :3]
    coloured = np.ptp(pixels, axis=2) > 0.1
    assert coloured.mean() > 0.05
    colours = np.unique((pixels[coloured] * 16).astype(int), axis=0)
    assert len(colours) > 20


def test_a_picture_needs_a_solved_load_case(tmp_path):
    solved_box(tmp_path)
    (tmp_path / "ws.comval.0001").unlink()
    with pytest.raises(FileNotFoundError, match="no solved load case"):
        picture(tmp_path, tmp_path / "part.png")


def test_command_box_writes_a_directory(tmp_path):
    result = runner.invoke(
        app, ["box", str(tmp_path / "b"), "--kind", "tet10", "--cells", "2", "1", "1"]
    )
    assert result.exit_code == 0, result.output
    assert "45 nodes and 12 elements" in result.output
    model = read(tmp_path / "b")
    assert model.load_cases[0].forces2["Force"].sum(axis=0)[2] == pytest.approx(-16.0)


def test_command_box_refuses_what_it_cannot_make(tmp_path):
    assert runner.invoke(app, ["box", str(tmp_path), "--kind", "tri"]).exit_code == 2
    assert runner.invoke(app, ["box", str(tmp_path), "--cells", "0", "1", "1"]).exit_code == 2


def test_command_summary(tmp_path):
    assert runner.invoke(app, ["summary", str(tmp_path)]).exit_code == 2
    solved_box(tmp_path)
    result = runner.invoke(app, ["summary", str(tmp_path)])
    assert result.exit_code == 0
    assert result.output == summary(tmp_path) + "\n"


@pytest.fixture
def small_cantilever(monkeypatch):
    monkeypatch.setattr(cantilever, "CELLS", (4, 2, 2))


def test_command_demo_solves_and_draws_with_the_solver_that_is_found(tmp_path, small_cantilever):
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0, result.output
    assert "results of load case 2:" in result.stdout
    assert "deformed.png" in result.stdout
    assert matplotlib.image.imread(tmp_path / "deformed.png").ndim == 3


def test_command_demo_without_a_solver_only_writes(tmp_path, small_cantilever, monkeypatch):
    def nothing_found(given=None):
        raise NotFoundError("vk_rund was not found: give its path")

    monkeypatch.setattr("vkctl.commands.demo.find_vk_rund", nothing_found)
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0
    assert "not solved: vk_rund was not found: give its path" in result.stdout
    assert len(read(tmp_path).load_cases) == 2


def test_command_demo_without_matplotlib_says_how_to_get_pictures(
    tmp_path, small_cantilever, monkeypatch
):
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    result = runner.invoke(app, ["demo", str(tmp_path)])
    assert result.exit_code == 0, result.output
    assert "no picture: This needs Matplotlib: pip install 'vkctl[view]'" in result.stdout
    assert "results of load case 2:" in result.stdout


def test_command_demo_tells_a_solver_that_fails_or_is_missing(tmp_path, small_cantilever):
    failing = tmp_path / "failing"
    failing.write_text("#!/bin/sh\nexit 7\n")
    failing.chmod(0o755)
    result = runner.invoke(app, ["demo", str(tmp_path / "d"), "--vk-rund", str(failing)])
    assert result.exit_code == 2
    assert "status 7" in result.stderr
    absent = runner.invoke(app, ["demo", str(tmp_path / "d"), "--vk-rund", "/no/such/vk_rund"])
    assert absent.exit_code == 2
    assert "There is no program /no/such/vk_rund" in absent.stderr
