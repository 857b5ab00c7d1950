"""VTK grids, exported files and pictures."""

from __future__ import annotations

import json
import xml.etree.ElementTree as ElementTree
import zipfile
from pathlib import Path

import numpy as np
import pytest
import pyvista
from closed_surfaces import open_edges
from results_on_disk import make_model, with_hole, write_results
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.model import LoadCase, read, write
from vkctl.view import export
from vkctl.view.part_file import part_of

CORE = "{http://schemas.microsoft.com/3dmanufacturing/core/2015/02}"


def test_the_stl_is_watertight_and_read_back_with_its_volume(tmp_path: Path) -> None:
    write(with_hole(make_model()), tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "part.stl")
    surface = pyvista.read(tmp_path / "part.stl").clean()
    assert open_edges(surface) == 0
    assert surface.volume == pytest.approx(128 - np.pi * 1.3**2 * 4, rel=0.03)


def test_a_3mf_holds_the_part_in_the_units_of_the_directory(tmp_path: Path) -> None:
    model = with_hole(make_model())
    model.notes = formats.CaseNotes(units="m-N-Pa")
    write(model, tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "part.3mf")
    with zipfile.ZipFile(tmp_path / "part.3mf") as package:
        assert set(package.namelist()) == {"[Content_Types].xml", "_rels/.rels", "3D/3dmodel.model"}
        root = ElementTree.fromstring(package.read("3D/3dmodel.model"))
    part = part_of(tmp_path / "dir")
    assert root.get("unit") == "meter"
    vertices = [[float(v.get(k) or "") for k in "xyz"] for v in root.iter(f"{CORE}vertex")]
    triangles = [
        [int(t.get(k) or "") for k in ("v1", "v2", "v3")] for t in root.iter(f"{CORE}triangle")
    ]
    np.testing.assert_allclose(vertices, part.points, rtol=1e-8, atol=1e-8)
    np.testing.assert_array_equal(triangles, part.triangles)


def test_a_smooth_part_keeps_volume_and_nodes_and_is_told_of(tmp_path: Path) -> None:
    model = with_hole(make_model())
    write(model, tmp_path / "dir")
    command = ["export", str(tmp_path / "dir"), str(tmp_path / "part.stl"), "--smooth"]
    said = json.loads(CliRunner().invoke(app, [*command, "--json"]).stdout)["part"]
    assert said["bodies"] == 1 and said["furthest"] > 0
    assert said["volume"] == pytest.approx(said["volume_cut_out"], rel=1e-3)
    read_back = pyvista.read(tmp_path / "part.stl").clean()
    assert open_edges(read_back) == 0
    assert read_back.volume == pytest.approx(said["volume"], rel=1e-4)
    told = CliRunner().invoke(app, command).stdout
    assert "one closed body" in told and "smooth: volume changed by" in told
    refused = CliRunner().invoke(app, [*command[:2], str(tmp_path / "a.vtu"), "--smooth"])
    assert refused.exit_code == 2 and "--smooth is for .stl and .3mf" in refused.output


def test_a_vtu_holds_every_field_of_the_load_case(tmp_path: Path) -> None:
    model = with_hole(make_model())
    write_results(model, tmp_path / "dir", (1, 2))
    formats.write_element_state(tmp_path / "dir", 2, np.arange(1, len(model.elements) + 1))
    export.export(tmp_path / "dir", tmp_path / "out.vtu", case=2)
    read_back = pyvista.read(tmp_path / "out.vtu")
    np.testing.assert_allclose(read_back.point_data["displacement"], 0.02 * model.nodes, rtol=1e-6)
    np.testing.assert_allclose(read_back.point_data["criterion"], model.tp)
    np.testing.assert_array_equal(
        read_back.cell_data["element_state"], read_back.cell_data["element"]
    )
    assert {"magnitude", "element_mean", "level", "node_flags"} <= set(read_back.point_data.keys())
    assert {"material", "element_flags"} <= set(read_back.cell_data.keys())


def test_a_vtu_of_a_model_without_results_holds_the_model(tmp_path: Path) -> None:
    write(make_model(), tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "out.vtu")
    found, model = pyvista.read(tmp_path / "out.vtu"), make_model()
    np.testing.assert_allclose(found.points, model.nodes, atol=1e-6)
    assert found.n_cells == len(model.elements)
    assert found.point_data["level"].tolist() == [1.0] * len(model.nodes)
    assert "displacement" not in found.point_data


def test_files_name_load_case_and_units(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir", (1, 2))
    model = read(tmp_path / "dir")
    model.load_cases = [LoadCase(), LoadCase(reserved="größte <Böe>".encode())]
    model.notes = formats.CaseNotes(units="m-N-Pa")
    write(model, tmp_path / "dir")
    export.export(tmp_path / "dir", tmp_path / "series.pvd")
    steps = ElementTree.parse(tmp_path / "series.pvd").getroot().findall(".//DataSet")
    assert [step.get("name") for step in steps] == [None, "größte <Böe>"]
    first, second = (pyvista.read(tmp_path / str(step.get("file"))).field_data for step in steps)
    assert list(first["load_case"]) == [1] and "load_case_name" not in first
    assert list(second["load_case_name"]) == ["größte <Böe>"] and list(second["units"]) == [
        "m-N-Pa"
    ]


def test_a_series_has_one_step_per_solved_load_case(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir", (1, 2, 3))
    files = export.export(tmp_path / "dir", tmp_path / "series.pvd")
    steps = ElementTree.parse(tmp_path / "series.pvd").getroot().findall(".//DataSet")
    assert [step.get("timestep") for step in steps] == ["1", "2", "3"]
    assert all((tmp_path / str(step.get("file"))).exists() for step in steps)
    assert len(files) == 4
    assert pyvista.get_reader(tmp_path / "series.pvd").time_values == [1.0, 2.0, 3.0]


def test_export_refuses_what_it_cannot_do(tmp_path: Path) -> None:
    write(make_model(), tmp_path / "dir")
    with pytest.raises(ValueError, match="suffix"):
        export.export(tmp_path / "dir", tmp_path / "out.obj")
    with pytest.raises(ValueError, match="load case 5"):
        export.export(tmp_path / "dir", tmp_path / "out.vtu", case=5)
    with pytest.raises(FileNotFoundError):
        export.export(tmp_path / "dir", tmp_path / "out.pvd")
