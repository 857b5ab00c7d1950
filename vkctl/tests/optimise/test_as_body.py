"""The optimised part as a body of its own: what is compared, and what is refused."""

from __future__ import annotations

import json
import re
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, script, write_small
from typer.testing import CliRunner

from vkctl.basics.types import Array
from vkctl.cli import app
from vkctl.directory import formats, model
from vkctl.directory.model import Material, Model
from vkctl.directory.results import read_results
from vkctl.optimise import as_body, optimise
from vkctl.optimise.as_body import BodyError, Verified, verify_part
from vkctl.optimise.body_compared import Solved, other_forces
from vkctl.optimise.limits.aggregates import nodal_forces
from vkctl.optimise.limits.table import read_weighed
from vkctl.prepare.build import new
from vkctl.prepare.part import MeshOptions, PartError
from vkctl.prepare.readers.registry import mesh_within
from vkctl.running.run import run
from vkctl.shapes import shells
from vkctl.shapes.boxes import box
from vkctl.shapes.faces import boundary_faces, face_triangles
from vkctl.shapes.topology import TET10
from vkctl.stress.measures import von_mises
from vkctl.stress.nodal import nodal_stress
from vkctl.stress.solution import solution_of
from vkctl.view.grid import mesh_grid
from vkctl.view.part_file import PartSurface, write_part

PRESSED = """
[face_sets.top]
where = "y > 5.99"

[loads.press]
type = "pressure"
set = "top"
value = 0.1

[[load_case]]
name = "pressed"
loads = ["press"]
"""
SETTINGS = "volume = 0.6\nsteps = 6\nreduction = 0.15\nkeep = ['tip']\n"


@pytest.fixture(scope="module")
def loop(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A directory `work` with some steps of a loop, and its case file beside it."""
    folder = tmp_path_factory.mktemp("part")
    optimise(write_small(folder, SETTINGS), folder / "work", vk_rund=VK_RUND)
    return folder


@pytest.fixture(scope="module")
def verified(loop: Path) -> Verified:
    return verify_part(loop / "work", vk_rund=VK_RUND, keep=loop / "kept")


def command(*words: object) -> tuple[int, str, str]:
    result = CliRunner().invoke(app, ["verify-part", *map(str, words), "--vk-rund", str(VK_RUND)])
    return result.exit_code, result.stdout, result.stderr


def files_of(folder: Path) -> dict[str, bytes]:
    return {str(p): p.read_bytes() for p in sorted(folder.rglob("*")) if p.is_file()}


def boxes(*spans: tuple[float, float, bool]) -> PartSurface:
    """Cubes from one coordinate to another in all directions, walls of a cavity where told."""
    corners = np.array([[i & 1, i >> 1 & 1, i >> 2] for i in range(8)], float)
    quads = [[0, 2, 3, 1], [4, 5, 7, 6], [0, 1, 5, 4], [2, 6, 7, 3], [0, 4, 6, 2], [1, 3, 7, 5]]
    sides = np.array([[a, b, c] for a, b, c, _ in quads] + [[a, c, d] for a, _, c, d in quads])
    points, triangles = [], []
    for k, (low, high, cavity) in enumerate(spans):
        points.append(low + (high - low) * corners)
        triangles.append((sides[:, ::-1] if cavity else sides) + 8 * k)
    whole, all_sides = np.concatenate(points), np.concatenate(triangles)
    volume = shells.enclosed(whole, all_sides)
    return PartSurface(all_sides, whole, 1, volume, volume, 1.0, 1.0, 0.0)


def uneven_plate() -> PartSurface:
    """Its upper side is flat but for less than a ten-thousandth of its squares' edges."""
    part = box("hex8", (4, 4, 1), (4.0, 4.0, 1.0))
    points = part.nodes.copy()
    inner = np.all((points[:, :2] > 0) & (points[:, :2] < 4), axis=1) & (points[:, 2] > 0)
    points[inner, 2] += 3e-5 * np.random.default_rng(2).random(np.count_nonzero(inner))
    triangles = face_triangles(boundary_faces(part.elements)) - 1
    triangles = triangles if shells.enclosed(points, triangles) > 0 else triangles[:, ::-1]
    volume = shells.enclosed(points, triangles)
    return PartSurface(triangles, points, 1, volume, volume, 1.0, 1.0, 0.0)


def corners_of(surface: PartSurface, folder: Path, size: float) -> Array:
    """Corners (t, 4, 3) of the body's 10-node tetrahedra."""
    write_part(surface, folder / "part.stl", folder)
    part = mesh_within(folder / "part.stl", MeshOptions(size=size))
    place = np.zeros(part.labels.max() + 1, np.int64)
    place[part.labels] = np.arange(len(part.labels))
    assert {code for code, _, _ in part.solids} == {TET10}
    rows = np.concatenate([rows for _, _, rows in part.solids])
    return np.asarray(part.points[place[rows[:, :4]]])


def volume_of(surface: PartSurface, folder: Path, size: float) -> float:
    corners = corners_of(surface, folder, size)
    return float(np.linalg.det(corners[:, 1:] - corners[:, :1]).sum()) / 6


def of_tetrahedra(folder: Path, cases: Path) -> float:
    """Compliance of the plate from cubes of six 10-node tetrahedra, all of it material."""
    plate = box("tet10", (12, 6, 1), (12.0, 6.0, 1.0))
    whole = Model(plate.nodes, plate.elements, [Material.isotropic(1.0, 0.3)])
    mesh_grid(whole).save(folder / "tetrahedra.vtu")
    made = new(folder / "tetrahedra.vtu", cases, folder / "tetrahedra").model
    assert run(folder / "tetrahedra", vk_rund=VK_RUND, mode="direct").ok
    moved = read_results(folder / "tetrahedra", 1).displacements
    assert moved is not None
    return float((nodal_forces(made, 1) * moved).sum())


def test_the_body_of_a_full_design_is_the_design(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 1\n")
    optimise(cases, tmp_path / "work", vk_rund=VK_RUND)
    found = verify_part(tmp_path / "work", vk_rund=VK_RUND)
    assert found.body_volume == pytest.approx(72.0, rel=1e-5)
    assert found.part_volume == pytest.approx(72.0, rel=1e-5)
    (case,) = found.cases
    assert case.body.forces == pytest.approx((0.0, -1.0, 0.0), abs=1e-6)
    # What is left is the error of meshes: another one of 10-node tetrahedra carries as the body.
    assert case.body.compliance == pytest.approx(of_tetrahedra(tmp_path, cases), rel=0.01)
    assert (
        case.measure == "compliance" and case.ratio == case.body.compliance / case.part.compliance
    )


def test_the_body_has_the_volume_of_the_smooth_surface(loop: Path, verified: Verified) -> None:
    surface = as_body.smooth_part(loop / "work")
    assert verified.body_volume == pytest.approx(surface.volume, rel=1e-4)
    assert 100 < verified.elements < 3000


def test_a_load_on_a_face_that_is_partly_gone_is_told(verified: Verified, tmp_path: Path) -> None:
    (down,) = verified.cases
    assert down.body.forces == pytest.approx(down.part.forces, abs=1e-6) and not verified.notes
    optimise(write_small(tmp_path, SETTINGS, PRESSED), tmp_path / "work", vk_rund=VK_RUND)
    found = verify_part(tmp_path / "work", vk_rund=VK_RUND)
    (pressed,) = found.cases
    assert pressed.part.forces[1] == pytest.approx(-1.2, rel=1e-5)
    assert -1.18 < pressed.body.forces[1] < 0
    (note,) = found.notes
    assert "pressed: the forces on the part add up to (0, -1.2, 0), on the body to (0, -" in note


def test_forces_that_act_beside_their_place_are_told() -> None:
    def solved(turned: float, force: float = -1.0) -> Solved:
        return Solved(1.0, 0.5, 1.0, (0.0, force, 0.0), (turned, 0.0, 3.0), 1.0)

    assert other_forces("down", solved(0.5), solved(0.41), 1.0) == []
    (note,) = other_forces("down", solved(0.5), solved(0.0), 1.0)
    assert "as if they acted 0.5 beside it" in note
    assert other_forces("down", solved(0.5), solved(0.0), 10.0) == []
    (note,) = other_forces("down", solved(0.5), solved(0.0, -0.9), 1.0)
    assert "add up to (0, -1, 0), on the body to (0, -0.9, 0)" in note


def test_a_force_on_single_nodes_is_judged_by_the_energy_away_from_them(verified: Verified) -> None:
    (down,) = verified.cases
    assert down.part.away is not None and down.body.away is not None
    assert down.judged == down.away == down.body.away / down.part.away
    assert down.part.away < 0.99 * down.part.strain_energy
    assert verified.distance == pytest.approx(2.0)


def test_a_load_on_faces_is_judged_by_all_of_its_work(tmp_path: Path) -> None:
    optimise(write_small(tmp_path, "steps = 1\n", PRESSED), tmp_path / "work", vk_rund=VK_RUND)
    (pressed,) = verify_part(tmp_path / "work", vk_rund=VK_RUND).cases
    assert pressed.away is None and pressed.judged == pressed.ratio


def test_what_4_node_tetrahedra_lock_is_told_where_it_is_beyond_the_tolerance(
    tmp_path: Path,
) -> None:
    cases = write_small(tmp_path, "steps = 1\n", PRESSED)
    part = box("tet4", (12, 6, 1), (12.0, 6.0, 1.0))
    mesh_grid(Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)])).save(
        tmp_path / "part.vtu"
    )
    optimise(cases, tmp_path / "work", vk_rund=VK_RUND)
    found = verify_part(tmp_path / "work", vk_rund=VK_RUND, tolerance=0.001)
    assert not found.within and "4-node tetrahedra, which are too stiff" in found.notes[-1]
    alike = verify_part(tmp_path / "work", vk_rund=VK_RUND, tolerance=0.001, order=1)
    assert not any("too stiff" in note for note in alike.notes)


def test_the_body_is_kept_as_a_directory_that_commands_take(verified: Verified) -> None:
    assert verified.kept is not None
    result = CliRunner().invoke(app, ["summary", str(verified.kept)])
    assert result.exit_code == 0 and (verified.kept / "part.stl").stat().st_size > 84


def test_the_status_tells_whether_it_is_within_the_tolerance(loop: Path) -> None:
    before = files_of(loop / "work")
    status, out, _ = command(loop / "work", "--tolerance", "0.9")
    assert status == 0 and "down" in out and "within the tolerance of 90 %" in out
    status, out, _ = command(loop / "work", "--tolerance", "1e-6", "--json")
    said = json.loads(out)
    assert status == 3 and said["within"] is False and len(said["cases"]) == 1
    assert said["cases"][0]["ratio"] == pytest.approx(
        said["cases"][0]["body"]["compliance"] / said["cases"][0]["part"]["compliance"]
    )
    assert files_of(loop / "work") == before


@pytest.mark.parametrize(
    ("change", "sentence"),
    [
        (lambda cases: cases.unlink(), "is gone: name it with --cases"),
        (lambda cases: cases.write_text(cases.read_text() + "\n"), None),
        (
            lambda cases: cases.write_text(cases.read_text().replace("nu = 0.3", "nu = 0.2")),
            "isn't what",
        ),
    ],
)
def test_the_case_file_has_to_be_the_one_of_the_part(loop, verified, tmp_path, change, sentence):
    shutil.copytree(loop, tmp_path / "copy")
    cases = tmp_path / "copy" / "cases.toml"
    state = tmp_path / "copy" / "work" / "optimise" / "state.json"
    state.write_text(state.read_text().replace(str(loop / "cases.toml"), str(cases)))
    change(cases)
    status, _, told = command(tmp_path / "copy" / "work", "--tolerance", "0.9")
    assert (status, told.count("\n")) == (2, 1) if sentence else status == 0
    assert sentence is None or sentence in told


def test_mistakes_are_refused_in_a_sentence(loop: Path, verified: Verified, tmp_path: Path) -> None:
    for words, sentence in (
        ((tmp_path,), "holds no model"),
        ((loop / "work", "--size", "0"), "a size of 0 is no length"),
        ((loop / "work", "--tolerance", "-1"), "a tolerance of -1 is no share"),
        ((loop / "work", "--keep", verified.kept), "isn't empty"),
    ):
        status, _, told = command(*words)
        assert (status, told.count("\n")) == (2, 1) and sentence in told


def test_what_only_the_parts_own_file_names_is_refused(loop: Path, tmp_path: Path) -> None:
    for wall, sentence in (
        ("labels = [1, 2]", "set 'wall' has labels of the part's file"),
        ("from = 'surface:1'", "no set 'surface:1'"),
    ):
        cases = tmp_path / "cases.toml"
        text = (loop / "cases.toml").read_text()
        cases.write_text(text.replace('where = "x < 0.01"', wall))
        shutil.rmtree(tmp_path / "work", ignore_errors=True)
        shutil.copytree(loop / "work", tmp_path / "work")
        shutil.rmtree(tmp_path / "work" / "optimise")
        with pytest.raises(BodyError, match=re.escape(sentence)):
            verify_part(tmp_path / "work", cases, vk_rund=VK_RUND)


def test_a_step_that_was_broken_off_is_refused(loop: Path, tmp_path: Path) -> None:
    shutil.copytree(loop / "work", tmp_path / "work")
    state = tmp_path / "work" / "optimise" / "state.json"
    said = json.loads(state.read_text())
    state.write_text(json.dumps({**said, "running": said["step"]}))
    with pytest.raises(BodyError, match="ended within a step: start it again"):
        verify_part(tmp_path / "work", vk_rund=VK_RUND)


def test_a_solver_that_fails_gives_its_status(loop: Path, tmp_path: Path) -> None:
    failing = script(tmp_path / "vk_rund", "exit 7")
    words = ["verify-part", str(loop / "work"), "--vk-rund", str(failing)]
    result = CliRunner().invoke(app, words)
    assert result.exit_code == 7 and "the body can't be solved" in result.stderr


def test_a_body_in_pieces_is_told_by_the_piece_that_nothing_holds(
    loop: Path, tmp_path: Path
) -> None:
    shutil.copytree(loop / "work", tmp_path / "work")
    made = model.read(tmp_path / "work")
    middle = np.abs(made.nodes[:, 0] - 6.0) < 1.5
    formats.write_tp(tmp_path / "work", np.where(middle, -1.0, 1.0).astype(np.float32))
    with pytest.raises(BodyError, match="can't be solved: Part .* of 2 .* no support at all"):
        verify_part(tmp_path / "work", vk_rund=VK_RUND)


def test_a_surface_that_cuts_itself_is_refused_in_a_sentence(loop, monkeypatch):
    crossing = boxes((0.0, 1.0, False))
    crossing.points[0] = (0.5, 0.5, 1.5)  # a lower corner, through the upper face
    monkeypatch.setattr(as_body, "smooth_part", lambda directory: crossing)
    status, _, told = command(loop / "work")
    assert status == 2 and told.startswith("about ")
    (refused,) = told.splitlines()[1:]
    assert refused.startswith("the part's surface can't be meshed as a body: ")


def test_cavities_stay_empty_and_bodies_apart_are_filled(tmp_path: Path) -> None:
    hollow = boxes((0.0, 3.0, False), (1.0, 2.0, True))
    assert volume_of(hollow, tmp_path, 1.0) == pytest.approx(26.0, rel=1e-5)
    two = boxes((0.0, 1.0, False), (2.0, 3.0, False))
    assert volume_of(two, tmp_path, 1.0) == pytest.approx(2.0, rel=1e-5)


def test_tetrahedra_that_come_out_flat_are_made_anew(tmp_path: Path) -> None:
    surface = uneven_plate()
    corners = corners_of(surface, tmp_path, 1.0)
    edges = corners[:, 1:] - corners[:, :1]
    volumes = np.linalg.det(edges) / 6
    assert volumes.min() > 1e-3 * np.linalg.norm(edges, axis=2).max() ** 3
    assert volumes.sum() == pytest.approx(surface.volume, rel=1e-6)


# In a process of its own, as the readers are: Gmsh's session stays open to its end.
MESHED_TWICE = """
import json, sys
import numpy as np
from vkctl.prepare import MeshOptions
from vkctl.prepare.readers import surface

def meshed():
    options = MeshOptions(size=0.3)
    part = surface.mesh_surface(
        sys.argv[1], "part", options, most_bytes=0, tell=lambda kind, content: None
    )
    place = np.argsort(part.labels)
    rows = place[np.searchsorted(part.labels[place], part.solids[0][2][:, :4])]
    corners = part.points[rows]
    return len(rows), np.linalg.det(corners[:, 1:] - corners[:, :1]).sum() / 6

first = meshed()
surface._has_flat = lambda gmsh: True
print(json.dumps((first, meshed())))
"""


def test_where_they_stay_flat_another_mesher_fills_the_body(tmp_path: Path) -> None:
    hollow = boxes((0.0, 1.0, False), (0.3, 0.7, True))
    write_part(hollow, tmp_path / "part.stl", tmp_path)
    command = [sys.executable, "-c", MESHED_TWICE, str(tmp_path / "part.stl")]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    (first, volume), (other, same) = json.loads(done.stdout.splitlines()[-1])
    assert first != other and volume == pytest.approx(same, rel=1e-9)
    assert volume == pytest.approx(hollow.volume, rel=1e-5)


def test_a_body_that_takes_more_memory_than_there_is_is_not_begun(tmp_path: Path) -> None:
    with pytest.raises(PartError, match="take a larger size"):
        volume_of(boxes((0.0, 1.0, False)), tmp_path, 1e-4)


def test_a_body_of_4_node_tetrahedra_is_stiffer(loop: Path, verified: Verified) -> None:
    linear = verify_part(loop / "work", order=1, vk_rund=VK_RUND)
    assert linear.elements == verified.elements
    assert linear.cases[0].part == verified.cases[0].part
    assert linear.cases[0].body.compliance < 0.95 * verified.cases[0].body.compliance
    status, _, told = command(loop / "work", "--order", "3")
    assert status == 2 and "the order must be 1 or 2, not 3" in told


LIMITED = """goal = "mass"
steps = 3
reduction = 0.1

[optimise.limits]
stress = { at_most = 4.0, away_from = ["wall", "tip"], distance = 1.5 }
displacement = { set = "tip", direction = [0, -1, 0], at_most = 50 }
"""


@pytest.fixture(scope="module")
def limited(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("limited")
    optimise(write_small(folder, LIMITED), folder / "work", vk_rund=VK_RUND)
    return folder


def test_limits_are_looked_at_on_part_and_body(limited: Path, tmp_path: Path) -> None:
    found = verify_part(limited / "work", vk_rund=VK_RUND, keep=tmp_path / "body")
    moved, stress = found.limits
    assert [one.name for one in (stress, moved)] == [
        "stress in down",
        "displacement of tip in down",
    ]
    last = [row for row in read_weighed(limited / "work") if row.step == 3]
    for one, row in zip(found.limits, last, strict=True):
        assert (one.name, one.at_most) == (row.term, row.at_most)
        assert one.part == pytest.approx(row.value, rel=1e-6)
        assert one.held == (one.body <= 1.005 * one.at_most)
    body = model.read(tmp_path / "body")
    results = read_results(tmp_path / "body", 1)
    assert results.displacements is not None
    tip = next(one for one in body.sets or [] if one.name == "tip").numbers
    assert moved.body == pytest.approx(-results.displacements[tip - 1, 1].min(), rel=1e-6)
    nodal = nodal_stress(solution_of(body, results)).merged()
    x, y, _ = body.nodes.T
    away = (x > 1.5) & (np.hypot(x - 12, y) > 1.5)
    assert stress.body == pytest.approx(von_mises(nodal.stress[away]).max(), rel=0.05)


def test_a_limit_that_the_body_does_not_hold_is_told(limited: Path, tmp_path: Path) -> None:
    shutil.copytree(limited, tmp_path / "copy")
    cases = tmp_path / "copy" / "cases.toml"
    cases.write_text(cases.read_text().replace("at_most = 50", "at_most = 5"))
    place = (tmp_path / "copy" / "work", "--cases", cases, "--tolerance", "0.9")
    status, told, _ = command(*place)
    assert status == 0
    assert re.search(
        r"displacement of tip in down: part \S+, body \S+ of at most 5: the body", told
    )
    assert "body_steps in [optimise] add material" in told
    _, said, _ = command(*place, "--json")
    assert [one["held"] for one in json.loads(said)["limits"]] == [False, True]


def test_limits_of_sets_that_the_body_has_not_are_told_and_the_rest_is_compared(
    limited: Path, tmp_path: Path
) -> None:
    shutil.copytree(limited, tmp_path / "copy")
    work = tmp_path / "copy" / "work"
    cases = tmp_path / "copy" / "cases.toml"
    named = "\n[node_sets.first]\nlabels = [1, 2]\n\n[optimise]"
    text = (
        cases.read_text().replace('"wall", "tip"', '"wall", "first"').replace("\n[optimise]", named)
    )
    cases.write_text(text)
    shutil.rmtree(work / "optimise")  # which would know of another case file
    found = verify_part(work, cases, vk_rund=VK_RUND)
    assert not found.limits and found.cases
    assert any(
        "the limits can't be looked at" in note and "'first'" in note for note in found.notes
    )
