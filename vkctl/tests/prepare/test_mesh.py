"""Meshes from each file format: the same part gives the same model, node orders are right."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from new_parts import PLATE, mesh_of
from part_files import CORNERS, HEXAHEDRON, TETRAHEDRON, inp_text, vtu_file

from vkctl.prepare import PartError, make_mesh, read_part
from vkctl.shapes.topology import HEX8, TET4, TET10


@pytest.mark.parametrize(
    ("kind", "turned", "points"),
    [
        ("C3D4", [1, 3, 2, 4], CORNERS),
        ("C3D10", [1, 3, 2, 4, 7, 6, 5, 8, 10, 9], TETRAHEDRON),
        ("C3D8", [5, 6, 7, 8, 1, 2, 3, 4], HEXAHEDRON),
    ],
)
def test_inverted_elements_are_turned_round(
    tmp_path: Path, kind: str, turned: list[int], points: np.ndarray
) -> None:
    path = tmp_path / "one.inp"
    path.write_text(inp_text(points, kind, turned))
    mesh = mesh_of(path)
    table = mesh.elements.table({"C3D4": TET4, "C3D10": TET10, "C3D8": HEX8}[kind])
    np.testing.assert_allclose(mesh.nodes[table[0] - 1], points, atol=1e-7)
    assert any("inverted order; reordered" in note for note in mesh.notes)
    with pytest.raises(PartError, match="inverted order: elements 7"):
        make_mesh(read_part(path), reorder=False)


def test_a_wrong_order_of_mid_edge_nodes_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "one.inp"
    path.write_text(inp_text(TETRAHEDRON, "C3D10", [1, 2, 3, 4, 5, 6, 7, 8, 10, 9]))
    with pytest.raises(PartError, match="far off their edges: elements 7"):
        mesh_of(path)


def test_flat_and_folded_elements_are_refused(tmp_path: Path) -> None:
    flat = CORNERS.copy()
    flat[3] = (0.5, 0.5, 0)
    path = tmp_path / "one.inp"
    path.write_text(inp_text(flat, "C3D4", [1, 2, 3, 4]))
    with pytest.raises(PartError, match="have no volume: elements 7"):
        mesh_of(path)
    folded = HEXAHEDRON.copy()
    folded[6] = (-0.4, -0.4, 0.2)
    path.write_text(inp_text(folded, "C3D8", list(range(1, 9))))
    with pytest.raises(PartError, match="folded"):
        mesh_of(path)


def test_unused_nodes_are_left_out_and_labels_need_not_be_dense(tmp_path: Path) -> None:
    text = "*NODE\n" + "".join(
        f"{10 * k + 5}, {x}, {y}, {z}\n" for k, (x, y, z) in enumerate(CORNERS.tolist())
    )
    text += "3, 9, 9, 9\n*ELEMENT, TYPE=C3D4, ELSET=E1\n100, 5, 15, 25, 35\n"
    text += "*NSET, NSET=Some, GENERATE\n5, 25, 10\n*NSET, NSET=More\nSome, 35\n"
    (tmp_path / "one.inp").write_text(text)
    mesh = mesh_of(tmp_path / "one.inp")
    assert mesh.elements.tet4.tolist() == [[1, 2, 3, 4]]
    assert mesh.node_sets["Some"].tolist() == [1, 2, 3]
    assert mesh.node_sets["More"].tolist() == [1, 2, 3, 4]
    assert mesh.element_sets["E1"].tolist() == [1]
    assert "1 node without a solid element left out" in mesh.notes


def test_a_part_without_solids_is_refused(tmp_path: Path) -> None:
    vtu_file(tmp_path / "flat.vtu", CORNERS, 5, [1, 2, 3])
    vtu_file(tmp_path / "dots.vtu", CORNERS, 1, [1])
    with pytest.raises(PartError, match="no solid elements"):
        mesh_of(tmp_path / "flat.vtu")
    with pytest.raises(PartError, match="no solid elements"):
        mesh_of(tmp_path / "dots.vtu")


def test_scale_multiplies_coordinates_which_are_exact_in_32_bits(curved: Path) -> None:
    mesh = make_mesh(read_part(curved / "part.msh"), scale=0.001)
    assert np.ptp(mesh.nodes[:, 0]) == pytest.approx(PLATE[0] / 1000)
    np.testing.assert_array_equal(mesh.nodes, mesh.nodes.astype(np.float32))
