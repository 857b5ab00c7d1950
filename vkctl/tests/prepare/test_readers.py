"""Meshes from each file format: the same part gives the same model, node orders are right."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
import pyvista
from new_parts import PLATE, RADIUS, brick, gmsh_session, mesh_of
from part_files import HEXAHEDRON, TETRAHEDRON, inp_text, vtu_file

from vkctl.prepare import MeshOptions, PartError, make_mesh, read_part
from vkctl.shapes.measures import element_volumes
from vkctl.shapes.topology import TET10_EDGES

FORMATS = ("msh", "inp", "vtu")


@pytest.fixture(scope="module")
def hexahedra(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), "hex8")


@pytest.mark.parametrize("kind", ["curved", "hexahedra"])
def test_the_same_part_from_all_formats_gives_the_same_mesh(
    kind: str, request: pytest.FixtureRequest
) -> None:
    directory = request.getfixturevalue(kind)
    first, *others = (mesh_of(directory / f"part.{ending}") for ending in FORMATS)
    assert len(first.nodes) > 50
    for other in others:
        np.testing.assert_allclose(other.nodes, first.nodes, atol=1e-6)
        np.testing.assert_array_equal(other.elements.tet10, first.elements.tet10)
        np.testing.assert_array_equal(other.elements.hex8, first.elements.hex8)
        np.testing.assert_array_equal(other.elements.type_codes, first.elements.type_codes)


def test_groups_come_along_under_their_names(curved: Path) -> None:
    for ending in ("msh", "inp"):
        mesh = mesh_of(curved / f"part.{ending}")
        assert len(mesh.element_sets["body"]) == len(mesh.elements)
        (rows,) = mesh.surfaces["left"]
        np.testing.assert_allclose(mesh.nodes[rows - 1][..., 0], 0.0)
    mesh = mesh_of(curved / "part.vtu")
    assert len(mesh.surfaces["CellEntityIds:1"][0]) == len(rows)
    assert len(mesh.element_sets["CellEntityIds:2"]) == len(mesh.elements)


@pytest.mark.parametrize("ending", FORMATS)
def test_curved_mid_edge_nodes_lie_on_the_hole(curved: Path, ending: str) -> None:
    mesh = mesh_of(curved / f"part.{ending}")
    offset = mesh.nodes - (PLATE[0] / 2, PLATE[1] / 2, 0.0)
    on_hole = np.abs(np.hypot(offset[:, 0], offset[:, 1]) - RADIUS) < 1e-5
    bent = 0
    for place, (i, j) in enumerate(TET10_EDGES, 4):
        a, b, middle = (mesh.elements.tet10[:, k] - 1 for k in (i, j, place))
        both = on_hole[a] & on_hole[b]
        chord = (mesh.nodes[a] + mesh.nodes[b]) / 2
        off = np.linalg.norm(mesh.nodes[middle] - chord, axis=1)
        bent += int(np.count_nonzero(off > 1e-3))
        assert np.all(off[~both] < 1e-5)
    assert bent > 50
    exact = np.prod(PLATE) - np.pi * RADIUS**2 * PLATE[2]
    assert element_volumes(mesh.nodes, mesh.elements).sum() == pytest.approx(exact, rel=2e-4)


def msh_text(points: np.ndarray, kind: int, nodes: list[int]) -> str:
    lines = ["$MeshFormat", "2.2 0 8", "$EndMeshFormat", "$Nodes", str(len(points))]
    lines += [f"{i} {x!r} {y!r} {z!r}" for i, (x, y, z) in enumerate(points.tolist(), 1)]
    row = " ".join(map(str, nodes))
    lines += ["$EndNodes", "$Elements", "1", f"1 {kind} 2 1 1 {row}", "$EndElements"]
    return "\n".join(lines) + "\n"


def test_gmsh_has_the_last_two_mid_edge_nodes_exchanged(tmp_path: Path) -> None:
    path = tmp_path / "one.msh"
    path.write_text(msh_text(TETRAHEDRON, 11, [1, 2, 3, 4, 5, 6, 7, 8, 10, 9]))
    mesh = mesh_of(path)
    np.testing.assert_allclose(mesh.nodes[mesh.elements.tet10[0] - 1], TETRAHEDRON, atol=1e-7)


MIXED_ORDERS = """$MeshFormat
2.2 0 8
$EndMeshFormat
$PhysicalNames
1
3 7 "casting"
$EndPhysicalNames
$Nodes
12
1 0 0 0
2 1 0 0
3 0 1 0
4 0 0 1
5 .5 0 0
6 .5 .5 0
7 0 .5 0
8 0 0 .5
9 0 .5 .5
10 .5 0 .5
11 0 0 -1
12 0 0 -2
$EndNodes
$Elements
3
{elements}
$EndElements
"""
QUADRATIC = "1 11 2 7 {volume} 1 2 3 4 5 6 7 8 9 10"
LINEAR = "2 4 2 7 5 1 3 2 11\n3 4 2 7 5 11 3 2 12"


def test_elements_of_several_orders_in_one_volume_are_refused_with_their_counts(
    tmp_path: Path,
) -> None:
    path = tmp_path / "mixed.msh"
    path.write_text(MIXED_ORDERS.format(elements=f"{QUADRATIC.format(volume=5)}\n{LINEAR}"))
    where = r"volume 5 \(of the physical group casting\) has elements of several orders"
    with pytest.raises(PartError, match=f"{where}, 1 Tetrahedron 10 and 2 Tetrahedron 4; give"):
        read_part(path)


def test_volumes_of_an_order_each_are_taken(tmp_path: Path) -> None:
    path = tmp_path / "mixed.msh"
    path.write_text(MIXED_ORDERS.format(elements=f"{QUADRATIC.format(volume=6)}\n{LINEAR}"))
    mesh = mesh_of(path)
    assert len(mesh.elements.tet10) == 1 and len(mesh.elements.tet4) == 2


def test_decks_and_vtk_count_mid_edge_nodes_as_the_solver(tmp_path: Path) -> None:
    (tmp_path / "one.inp").write_text(inp_text(TETRAHEDRON, "C3D10", list(range(1, 11))))
    vtu_file(tmp_path / "one.vtu", TETRAHEDRON, 24, list(range(1, 11)))
    for name in ("one.inp", "one.vtu"):
        mesh = mesh_of(tmp_path / name)
        np.testing.assert_allclose(mesh.nodes[mesh.elements.tet10[0] - 1], TETRAHEDRON, atol=1e-7)


def test_hexahedra_keep_their_order_in_all_formats(tmp_path: Path) -> None:
    order = list(range(1, 9))
    (tmp_path / "one.msh").write_text(msh_text(HEXAHEDRON, 5, order))
    (tmp_path / "one.inp").write_text(inp_text(HEXAHEDRON, "C3D8R", order))
    vtu_file(tmp_path / "one.vtu", HEXAHEDRON, 12, order)
    for ending in FORMATS:
        mesh = mesh_of(tmp_path / f"one.{ending}")
        np.testing.assert_allclose(mesh.nodes[mesh.elements.hex8[0] - 1], HEXAHEDRON, atol=1e-7)
    assert "C3D8R read as C3D8" in mesh_of(tmp_path / "one.inp").notes


def test_voxels_are_hexahedra_with_corners_along_the_axes(tmp_path: Path) -> None:
    points = np.array([(x, y, z) for z in (0, 3) for y in (0, 2) for x in (0, 1)], float)
    vtu_file(tmp_path / "one.vtu", points, 11, list(range(1, 9)))
    mesh = mesh_of(tmp_path / "one.vtu")
    assert mesh.elements.hex8.tolist() == [[1, 2, 4, 3, 5, 6, 8, 7]]
    assert element_volumes(mesh.nodes, mesh.elements).tolist() == pytest.approx([6.0])


DECK = """*HEADING
 two tetrahedra
** a comment
*NODE, NSET=ALLN
1, 0., 0., 0.
2, 1., 0., 0.
3, 0., 1., 0.
4, 0., 0., 1.D0
5, 1., 1., 1.
*ELEMENT, TYPE=C3D4, ELSET=ONE
1, 1, 2, 3, 4
*ELEMENT, TYPE=C3D4,
 ELSET=TWO
2, 2, 3, 4, 5
*ELEMENT, TYPE=S3, ELSET=SKIN
11, 1, 2, 3
*ELEMENT, TYPE=T3D2, ELSET=ROD
12, 1, 2
*ELSET, ELSET=BOTH
ONE, TWO
*SURFACE, NAME=SIDES, TYPE=ELEMENT
ONE, S2
2, S3
SKIN, SPOS
*SURFACE, NAME=POINTS, TYPE=NODE
ALLN
*MATERIAL, NAME=STEEL
*ELASTIC
210000., 0.3
*STEP
*STATIC
*BOUNDARY
ALLN, 1, 3
*END STEP
"""


def test_decks_with_sets_surfaces_and_steps(tmp_path: Path) -> None:
    (tmp_path / "deck.inp").write_text(DECK)
    mesh = mesh_of(tmp_path / "deck.inp")
    assert mesh.element_sets["BOTH"].tolist() == [1, 2]
    assert mesh.node_sets["ROD"].tolist() == [1, 2]
    assert mesh.node_sets["POINTS"].tolist() == [1, 2, 3, 4, 5]
    faces = {frozenset(row) for table in mesh.surfaces["SIDES"] for row in table.tolist()}
    # Element 2 was inverted: its side 3 is told by the order of the deck.
    assert faces == {frozenset((1, 2, 4)), frozenset((3, 4, 5)), frozenset((1, 2, 3))}
    (note,) = [n for n in mesh.notes if n.startswith("passed over")]
    assert "*ELASTIC" in note and "*STEP" in note


def test_included_decks_are_read(tmp_path: Path) -> None:
    nodes, elements = DECK.split("*ELEMENT", 1)
    (tmp_path / "nodes.inc").write_text(nodes)
    (tmp_path / "deck.inp").write_text("*INCLUDE, INPUT=nodes.inc\n*ELEMENT" + elements)
    assert len(mesh_of(tmp_path / "deck.inp").elements) == 2


def test_a_deck_with_one_instance_is_read_and_its_reference_point_left_out(tmp_path: Path) -> None:
    body = DECK.split("*MATERIAL")[0]
    text = "*PART, NAME=P\n" + body + "*END PART\n*ASSEMBLY, NAME=A\n*INSTANCE, NAME=P-1, PART=P\n"
    text += "*END INSTANCE\n*NODE\n1, 9., 9., 9.\n*NSET, NSET=RP\n1\n"
    text += "*NSET, NSET=TIP, INSTANCE=P-1\n5\n*END ASSEMBLY\n"
    (tmp_path / "deck.inp").write_text(text)
    mesh = mesh_of(tmp_path / "deck.inp")
    assert len(mesh.nodes) == 5 and mesh.node_sets["TIP"].tolist() == [5]
    assert "RP" not in mesh.node_sets
    (tmp_path / "deck.inp").write_text(text.replace("PART=P\n*END", "PART=P\n1., 0., 0.\n*END"))
    with pytest.raises(PartError, match="moved or turned"):
        mesh_of(tmp_path / "deck.inp")


@pytest.mark.parametrize(
    ("block", "words"),
    [
        ("*ELEMENT, TYPE=C3D6\n21, 1, 2, 3, 1, 2, 3\n22, 1, 2, 3, 1, 2, 3\n", "2 C3D6"),
        ("*ELEMENT, TYPE=C3D20R\n21, 1,2,3,4,5,1,2,\n3,4,5,1,2,3,4,5,1,2,3,4,5\n", "1 C3D20R"),
        ("*NODE\n1, 0, 0, 0\n", "node labels occur twice: 1"),
        ("*ELEMENT, TYPE=C3D4\n21, 1, 2, 3\n", "aren't records of 5 numbers"),
        ("*ELEMENT, TYPE=C3D4\n21, 1, 2, 3, 99\n", "don't exist are referred to: 99"),
        ("*NODE\n8, one, 0, 0\n", "no node: '8, one, 0, 0'"),
        ("*NSET, NSET=N\nNOSET\n", "names 'NOSET', which isn't a set"),
        ("*INCLUDE, INPUT=gone.inc\n", "gone.inc: can't be read"),
        ("*SYSTEM\n0., 0., 1.\n", r"\*SYSTEM moves nodes"),
        ("*SURFACE, NAME=S\nNOSET, S1\n", "S names 'NOSET', which is no element set"),
        ("*SURFACE, NAME=S\nONN, S1\n", "which is no element set; did you mean 'ONE'"),
        ("*NSET, NSET=N\n1\n*SURFACE, NAME=S\nN, S1\n", "'N', which is a set of nodes"),
        ("*ELSET, ELSET=E\n7777\n*SURFACE, NAME=S\nE, S1\n", "'E', which holds no elements"),
        ("*SURFACE, NAME=S\n7777, S1\n", "S names element 7777, which the deck doesn't have"),
        (
            "*ELEMENT, TYPE=C3D6\n21, 1, 2, 3, 1, 2, 3\n*SURFACE, NAME=S\n21, S1\n",
            "element 21, which the deck doesn't have .*elements of type C3D6",
        ),
        ("*SURFACE, NAME=S\nONE, S6\n", r"of 'ONE' has no side S6, its sides are S1 to S4"),
    ],
)
def test_what_a_deck_may_not_hold_is_told(tmp_path: Path, block: str, words: str) -> None:
    (tmp_path / "deck.inp").write_text(DECK + block)
    with pytest.raises(PartError, match=words):
        mesh_of(tmp_path / "deck.inp")


def test_coordinates_left_out_at_the_end_of_a_node_line_are_zero(tmp_path: Path) -> None:
    (tmp_path / "deck.inp").write_text(DECK.replace("2, 1., 0., 0.", "2, 1."))
    assert mesh_of(tmp_path / "deck.inp").nodes[1].tolist() == [1, 0, 0]


def test_wedges_and_pyramids_are_named_with_their_counts(tmp_path: Path) -> None:
    cells = np.array([6, 0, 1, 2, 3, 4, 5, 5, 0, 1, 2, 3, 4])
    grid = pyvista.UnstructuredGrid(
        cells, np.array([13, 14]), np.random.default_rng(1).random((6, 3))
    )
    grid.save(tmp_path / "one.vtu")
    with pytest.raises(PartError, match="1 Wedge, 1 Pyramid"):
        mesh_of(tmp_path / "one.vtu")
    with gmsh_session() as gmsh:
        gmsh.model.geo.addPoint(0, 0, 0, tag=1)
        gmsh.model.geo.addPoint(1, 0, 0, tag=2)
        gmsh.model.geo.addPoint(0, 1, 0, tag=3)
        for line in ((1, 2), (2, 3), (3, 1)):
            gmsh.model.geo.addLine(*line)
        gmsh.model.geo.addPlaneSurface([gmsh.model.geo.addCurveLoop([1, 2, 3])])
        gmsh.model.geo.extrude([(2, 1)], 0, 0, 1, numElements=[2], recombine=True)
        gmsh.model.geo.synchronize()
        gmsh.model.mesh.generate(3)
        gmsh.write(str(tmp_path / "wedges.msh"))
    with pytest.raises(PartError, match=r"\d+ Prism 6"):
        mesh_of(tmp_path / "wedges.msh")


def test_unreadable_parts_are_told(tmp_path: Path) -> None:
    for name in ("bad.msh", "bad.step", "bad.vtu", "bad.inp"):
        (tmp_path / name).write_text("nonsense\n")
        with pytest.raises(PartError, match=name):
            read_part(tmp_path / name)
    with pytest.raises(PartError, match="no such file"):
        read_part(tmp_path / "gone.msh")
    with pytest.raises(PartError, match="unknown kind of part '.stl'"):
        read_part(tmp_path / "part.stl")


def test_data_arrays_of_a_grid_are_sets_and_fields(tmp_path: Path, curved: Path) -> None:
    grid = pyvista.read(curved / "part.vtu")
    x = grid.cell_centers().points[:, 0]
    grid.cell_data["half"] = x > 2
    grid.cell_data["part"] = np.where(x > 2, 7, -1)
    grid.cell_data["temperature"] = x
    grid.point_data["phi"] = grid.points[:, 2].astype(float)
    grid.point_data["fixed"] = (grid.points[:, 0] < 1e-6).astype(np.uint8)
    grid.save(tmp_path / "part.vtu")
    mesh = mesh_of(tmp_path / "part.vtu")
    assert mesh.element_sets["half"].tolist() == mesh.element_sets["part:7"].tolist()
    assert set(mesh.element_sets) >= {"half:0", "half:1", "part:-1"}
    assert not any(name.startswith("temperature") for name in mesh.element_sets)
    np.testing.assert_allclose(mesh.node_data["phi"], mesh.nodes[:, 2], atol=1e-6)
    assert np.all(mesh.nodes[mesh.node_sets["fixed"] - 1, 0] == 0)


def test_node_data_of_a_gmsh_mesh_comes_along(tmp_path: Path, curved: Path) -> None:
    with gmsh_session() as gmsh:
        gmsh.merge(str(curved / "part.msh"))
        tags, points, _ = gmsh.model.mesh.getNodes()
        view = gmsh.view.add("phi")
        heights = points.reshape(-1, 3)[:, 2:]
        gmsh.view.addModelData(view, 0, gmsh.model.getCurrent(), "NodeData", tags, heights)
        gmsh.write(str(tmp_path / "part.msh"))
        gmsh.option.setNumber("PostProcessing.SaveMesh", 0)
        gmsh.view.write(view, str(tmp_path / "part.msh"), append=True)
    mesh = mesh_of(tmp_path / "part.msh")
    np.testing.assert_allclose(mesh.node_data["phi"], mesh.nodes[:, 2], atol=1e-6)


def test_step_geometry_is_meshed_with_the_size_and_order_asked_for(curved: Path) -> None:
    fine = make_mesh(read_part(curved / "part.step", MeshOptions(size=0.3)))
    coarse = make_mesh(read_part(curved / "part.step", MeshOptions(size=0.8)))
    linear = make_mesh(read_part(curved / "part.step", MeshOptions(size=0.3, order=1)))
    straight = make_mesh(read_part(curved / "part.step", MeshOptions(size=0.8, curved=False)))
    assert len(fine.elements) > 2 * len(coarse.elements)
    assert len(linear.elements.tet4) and not len(linear.elements.tet10)
    exact = np.prod(PLATE) - np.pi * RADIUS**2 * PLATE[2]
    errors = [abs(element_volumes(m.nodes, m.elements).sum() - exact) for m in (coarse, straight)]
    assert errors[0] < 0.1 * errors[1]
    assert {"volume:1", "surface:1"} <= {*fine.element_sets, *fine.surfaces}


def test_touching_solids_of_a_step_file_share_nodes(tmp_path: Path) -> None:
    with gmsh_session() as gmsh:
        gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
        gmsh.model.occ.addBox(1, 0, 0, 1, 1, 1)
        gmsh.model.occ.synchronize()
        gmsh.write(str(tmp_path / "two.step"))
    mesh = make_mesh(read_part(tmp_path / "two.step", MeshOptions(size=0.6, order=1)))
    assert {"volume:1", "volume:2"} <= set(mesh.element_sets)
    middle = mesh.nodes[np.abs(mesh.nodes[:, 0] - 1) < 1e-6]
    assert len(np.unique(middle.round(6), axis=0)) == len(middle) > 4


def test_a_gmsh_script_is_meshed(tmp_path: Path) -> None:
    script = 'SetFactory("OpenCASCADE");\nBox(1) = {0, 0, 0, 1, 2, 3};\n'
    script += 'Physical Volume("all of it") = 1;\n'
    (tmp_path / "box.geo").write_text(script)
    mesh = make_mesh(read_part(tmp_path / "box.geo", MeshOptions(size=1.0)))
    assert element_volumes(mesh.nodes, mesh.elements).sum() == pytest.approx(6.0)
    assert len(mesh.element_sets["all of it"]) == len(mesh.elements)
    (tmp_path / "flat.geo").write_text(
        'SetFactory("OpenCASCADE");\nRectangle(1) = {0, 0, 0, 1, 1};\n'
    )
    with pytest.raises(PartError, match="holds no solid"):
        read_part(tmp_path / "flat.geo")


def test_reading_leaves_the_callers_gmsh_session_alone(curved: Path) -> None:
    with gmsh_session() as gmsh:
        gmsh.model.add("mine")
        mesh_of(curved / "part.msh")
        assert gmsh.isInitialized() and gmsh.model.getCurrent() == "mine"
