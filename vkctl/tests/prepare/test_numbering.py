"""Numbers of nodes and elements: of a mesh file they stay, a part meshed here gets its own."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from new_parts import PLATE, case_file, plate, solve

from vkctl.directory import formats, model
from vkctl.directory.log import digest, read_log
from vkctl.directory.results import read_results
from vkctl.prepare import (
    MeshOptions,
    Part,
    PartMesh,
    Reading,
    build,
    build_model,
    make_mesh,
    new,
    read_cases,
    read_part,
)

OPTIONS = MeshOptions(size=0.5, order=1)

# Nodes, faces and elements are all chosen, by place, by Gmsh's tags and by names.
CASES = """
[mesh]
size = 0.5
order = 1

[materials.steel]
E = 210000.0
nu = 0.3
density = 2.0

[face_sets.left]
plane = { point = [0, 0, 0], normal = [1, 0, 0] }
[face_sets.hole]
cylinder = { point = [2, 1, 0], axis = [0, 0, 1], radius = 0.5, tolerance = 1e-4 }
[node_sets.corner]
nearest = [4, 2, 1]

[supports.clamp]
set = "left"
[loads.oil]
type = "pressure"
set = "hole"
value = "1 + z"
[loads.pull]
type = "force"
set = "corner"
value = [1, 2, 3]
[loads.weight]
type = "gravity"
value = [0, 0, -9.81]

[level]
value = "x - 0.3 * y"
set = "volume:1"

[options]
Sys.MaxNumCompThreads = 1
Sys.ComputationMode = 2
"""


# Hexahedra in layers.
BAR = """
Point(1) = {0, 0, 0};
line[] = Extrude {24, 0, 0} { Point{1}; Layers{24}; };
face[] = Extrude {0, 8, 0} { Curve{line[1]}; Layers{8}; Recombine; };
body[] = Extrude {0, 0, 8} { Surface{face[1]}; Layers{8}; Recombine; };
"""
PULLED = """
[materials.steel]
E = 210000.0
nu = 0.3
[face_sets.left]
plane = { point = [0, 0, 0], normal = [1, 0, 0] }
[face_sets.right]
plane = { point = [24, 0, 0], normal = [1, 0, 0] }
[supports.clamp]
set = "left"
[loads.pull]
type = "force"
set = "right"
value = [0, 0, -1]
[options]
Sys.ComputationMode = 1
"""


@pytest.fixture(scope="module")
def step(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return plate(tmp_path_factory.mktemp("step"), order=1)


@pytest.fixture(scope="module")
def part(step: Path) -> Part:
    return read_part(step / "part.step", OPTIONS)


def by_label(mesh: PartMesh) -> tuple[np.ndarray, np.ndarray]:
    """Nodes, and the labels of the elements' nodes, in the order of the labels."""
    rows = mesh.node_labels[mesh.elements.tet4 - 1]
    return mesh.nodes[np.argsort(mesh.node_labels)], rows[np.argsort(mesh.element_labels)]


def test_nodes_of_a_part_that_is_meshed_here_are_numbered_from_both_ends_of_its_longest_side(
    part: Part,
) -> None:
    assert part.meshed
    mesh = make_mesh(part)
    x = mesh.nodes[:, 0]
    inwards = np.diff(np.minimum(x, np.float32(PLATE[0]) - x))
    assert (inwards >= 0).all() and inwards.sum() > 0.45 * PLATE[0]
    assert (np.diff(mesh.node_labels)[inwards == 0] > 0).all()  # equal ones as Gmsh has them
    turned = make_mesh(replace(part, points=part.points[:, ::-1]))
    z = turned.nodes[:, 2]
    assert (np.diff(np.minimum(z, np.float32(PLATE[0]) - z)) >= 0).all()


def test_elements_of_a_part_that_is_meshed_here_follow_their_nodes(part: Part) -> None:
    lowest = make_mesh(part).elements.tet4.min(axis=1)
    assert (np.diff(lowest) >= 0).all() and len(np.unique(lowest)) > 20


def test_labels_tell_every_node_and_element_of_the_mesher_once(part: Part) -> None:
    here, before = make_mesh(part), make_mesh(replace(part, meshed=False))
    assert not np.array_equal(here.nodes, before.nodes)
    for ours, theirs in zip(by_label(here), by_label(before), strict=True):
        np.testing.assert_array_equal(ours, theirs)
    assert len(np.unique(here.node_labels)) == len(here.nodes)
    assert len(np.unique(here.element_labels)) == len(here.elements)


def test_volumes_of_an_assembly_keep_their_element_sets(part: Part) -> None:
    ((code, labels, rows),) = part.solids
    half = len(labels) // 2
    halves = [(code, labels[:half], rows[:half]), (code, labels[half:], rows[half:])]
    mesh = make_mesh(replace(part, solids=halves, element_sets={"first": labels[:half]}))
    chosen = mesh.element_labels[mesh.element_sets["first"] - 1]
    assert sorted(chosen) == sorted(labels[:half])
    assert (np.diff(mesh.elements.tet4.min(axis=1)) >= 0).all()


def test_the_same_part_gets_the_same_numbers_again(step: Path, part: Part) -> None:
    first, second = make_mesh(part), make_mesh(read_part(step / "part.step", OPTIONS), scale=0.001)
    np.testing.assert_array_equal(first.node_labels, second.node_labels)
    np.testing.assert_array_equal(first.element_labels, second.element_labels)
    np.testing.assert_array_equal(first.elements.tet4, second.elements.tet4)


@pytest.mark.parametrize("ending", ["msh", "inp", "vtu"])
def test_numbers_of_a_mesh_file_stay(step: Path, ending: str) -> None:
    found = read_part(step / f"part.{ending}")
    assert not found.meshed
    mesh = make_mesh(found)
    assert (np.diff(mesh.node_labels) > 0).all()
    np.testing.assert_array_equal(
        mesh.element_labels, np.concatenate([labels for _, labels, _ in found.solids])
    )


def test_numbers_of_a_mesh_that_a_script_brings_stay(tmp_path: Path) -> None:
    box = 'SetFactory("OpenCASCADE");\nBox(1) = {0, 0, 0, 4, 1, 1};\n'
    script = tmp_path / "part.geo"
    script.write_text(box + "Mesh 3;\n")
    brought = read_part(script, reading=Reading(trust_scripts=True))
    assert not brought.meshed and (np.diff(make_mesh(brought).node_labels) > 0).all()
    script.write_text(box)
    assert read_part(script).meshed


def test_results_are_at_the_same_places_in_either_order(part: Part, tmp_path: Path) -> None:
    path = case_file(tmp_path, CASES, "")
    solved = []
    for found in (part, replace(part, meshed=False)):
        directory = tmp_path / str(found.meshed)
        model.write(build_model(make_mesh(found), read_cases(path)).model, directory)
        solve(directory)
        results, labels = read_results(directory, 1), formats.read_labels(directory)
        assert labels is not None and results.displacements is not None
        order, criterion = np.argsort(labels.nodes), np.empty(len(labels.nodes))
        criterion[:] = results.criterion[formats.read_tp_index(directory) - 1]
        solved.append((results.displacements[order], results.stress[order], criterion[order]))
    for here, before in zip(*solved, strict=True):
        np.testing.assert_allclose(here, before, atol=2e-5 * np.abs(before).max())


def test_hexahedra_that_are_meshed_here_are_numbered_in_colours_which_saves_a_third_of_the_sweeps(
    tmp_path: Path,
) -> None:
    script, path = tmp_path / "bar.geo", case_file(tmp_path, PULLED, "")
    script.write_text(BAR)
    part, sweeps = read_part(script, OPTIONS), []
    assert part.meshed
    for found in (part, replace(part, meshed=False)):
        directory = tmp_path / str(found.meshed)
        mesh = make_mesh(found)
        assert (np.diff(mesh.elements.hex8.min(axis=1)) >= 0).all() == found.meshed
        model.write(build_model(mesh, read_cases(path)).model, directory)
        solve(directory)
        sweeps.append(digest(read_log(directory)).load_cases[0].iterations)
        half = np.rint(mesh.nodes).sum(axis=1) % 2
        assert (np.count_nonzero(np.diff(half)) == 1) == found.meshed
    assert sweeps[0] is not None and sweeps[1] is not None
    assert sweeps[0] < sweeps[1] / 1.5


def test_a_directory_tells_the_labels_of_its_part(step: Path, tmp_path: Path) -> None:
    directory = tmp_path / "work"
    new(step / "part.step", case_file(tmp_path, CASES, ""), directory)
    mesh = build(step / "part.step", tmp_path / "cases.toml").mesh
    labels = model.read(directory).labels
    assert labels is not None
    np.testing.assert_array_equal(labels.nodes, mesh.node_labels)
    np.testing.assert_array_equal(labels.elements, mesh.element_labels)
