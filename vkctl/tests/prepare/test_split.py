"""Meshes with wedges, pyramids and 20-node hexahedra, split into tetrahedra on request."""

from __future__ import annotations

from collections import Counter
from itertools import product
from pathlib import Path

import numpy as np
import pytest
import pyvista
from new_parts import mesh_of, solve
from part_files import HEXAHEDRON, TETRAHEDRON, inp_text

from vkctl.directory.results import read_results
from vkctl.prepare import MeshOptions, PartError, PartMesh, make_mesh, new, read_part
from vkctl.prepare.deck import import_deck
from vkctl.shapes.cells import CELL_CORNERS, CELL_FACES, CELL_NODES
from vkctl.shapes.faces import boundary_faces
from vkctl.shapes.measures import element_volumes
from vkctl.shapes.topology import HEX8_EDGES, TET10_EDGES

Edges = list[tuple[int, int]]

# Deck's type: ours, that of VTK and of Gmsh, and the edges of the mid-side nodes.
_TET: Edges = [(int(a), int(b)) for a, b in TET10_EDGES]
_HEX: Edges = [(int(a), int(b)) for a, b in HEX8_EDGES]
_WEDGE = [(0, 1), (1, 2), (2, 0), (3, 4), (4, 5), (5, 3), (0, 3), (1, 4), (2, 5)]
_PYRAMID = [(0, 1), (1, 2), (2, 3), (3, 0), (0, 4), (1, 4), (2, 4), (3, 4)]
KINDS: dict[str, tuple[int, int, int, Edges]] = {
    "C3D4": (40, 10, 4, []),
    "C3D10": (41, 24, 11, _TET),
    "C3D8": (60, 12, 5, []),
    "C3D20R": (1020, 25, 17, _HEX),
    "C3D6": (1006, 13, 6, []),
    "C3D15": (1015, 26, 18, _WEDGE),
    "C3D5": (1005, 14, 7, []),
    "C3D13": (1013, 27, 19, _PYRAMID),
}
SIZE = (4, 2, 2)
_CUBE = [(0, 0, 0), (1, 0, 0), (1, 1, 0), (0, 1, 0), (0, 0, 1), (1, 0, 1), (1, 1, 1), (0, 1, 1)]
_HEX_FACES = CELL_FACES[60]


class Mixed:
    """A box of 4 x 2 x 2: hexahedra, wedges, pyramids and two tetrahedra one behind the other.

    The nodes inside stand off their places, so that the faces between cells are warped; labels
    come in no order of space.
    """

    def __init__(self) -> None:
        self.places: dict[tuple[float, ...], int] = {}
        self.cells: dict[str, list[list[int]]] = {kind: [] for kind in KINDS}
        self.right: list[tuple[str, int]] = []  # cells with their first side at x = 4
        for y, z in product(range(2), range(2)):
            self.column(y, z)
        rng = np.random.default_rng(5)
        shuffled = rng.permutation(len(self.places)) + 1
        place = np.array(list(self.places))
        inside = np.all((place > 0) & (place < SIZE), axis=1)
        place[inside] += rng.uniform(-0.12, 0.12, (int(inside.sum()), 3))
        self.points = np.empty_like(place)
        self.points[shuffled - 1] = place
        for kind, (_, _, _, edges) in KINDS.items():
            rows = [[int(shuffled[n]) for n in row] for row in self.cells[kind]]
            self.cells[kind] = [self.with_middles(row, edges) for row in rows]

    def node(self, *place: float) -> int:
        return self.places.setdefault(place, len(self.places))

    def with_middles(self, row: list[int], edges: Edges) -> list[int]:
        middles = []
        for a, b in edges:
            self.points = np.vstack((self.points, (self.points[[row[a] - 1, row[b] - 1]]).mean(0)))
            middles.append(len(self.points))
        return row + middles

    def column(self, y: int, z: int) -> None:
        corners = [[self.node(x + i, y + j, z + k) for i, j, k in _CUBE] for x in range(4)]
        self.cells["C3D20R"].append(corners[0])
        self.cells["C3D8"].append(corners[1])
        a, b, c, d, e, f, g, h = corners[2]
        self.cells["C3D6"].append([a, b, c, e, f, g])
        self.cells["C3D15"].append([a, c, d, e, g, h])
        apex = self.node(3.5, y + 0.5, z + 0.5)
        for side, face in enumerate(_HEX_FACES):
            base = [corners[3][n] for n in face[::-1]]
            at_end = side == 3
            if at_end and (y, z) == (1, 1):
                i, j, k, m = base
                self.cells["C3D4"].append([i, j, k, apex])
                self.cells["C3D10"].append([i, k, m, apex])
                continue
            kind = "C3D13" if side % 2 else "C3D5"
            if at_end:
                self.right.append((kind, len(self.cells[kind])))
            self.cells[kind].append([*base, apex])

    def deck(self) -> str:
        lines = ["*NODE, NSET=NALL"]
        lines += [
            f"{i}, {x!r}, {y!r}, {z!r}" for i, (x, y, z) in enumerate(self.points.tolist(), 1)
        ]
        label, labels = 0, {}
        for kind, rows in self.cells.items():
            lines.append(f"*ELEMENT, TYPE={kind}, ELSET=E{kind}")
            for number, row in enumerate(rows):
                label += 1
                labels[kind, number] = label
                words = [str(label), *map(str, row)]
                lines += [", ".join(words[k : k + 12]) + "," for k in range(0, len(words), 12)]
                lines[-1] = lines[-1].rstrip(",")
        lines += ["*SURFACE, NAME=RIGHT"]
        lines += [f"{labels[key]}, S1" for key in self.right]
        lines += [f"{labels['C3D4', 0]}, S1", f"{labels['C3D10', 0]}, S1"]
        lines += ["*SURFACE, NAME=LEFT", "EC3D20R, S6", "*SURFACE, NAME=WALLS", "EC3D15, S4"]
        lines += ["*NSET, NSET=FOOT", ", ".join(map(str, self.nodes_at_left()))]
        return "\n".join(lines) + "\n"

    def nodes_at_left(self) -> list[int]:
        return [int(n) + 1 for n in np.flatnonzero(self.points[:, 0] == 0)][:12]

    def vtu(self, path: Path) -> None:
        cells = [[len(row), *(n - 1 for n in row)] for rows in self.cells.values() for row in rows]
        types = [KINDS[kind][1] for kind, rows in self.cells.items() for _ in rows]
        flat = np.array([n for cell in cells for n in cell])
        pyvista.UnstructuredGrid(flat, np.array(types), self.points).save(path)

    def msh(self, path: Path) -> None:
        lines = ["$MeshFormat", "2.2 0 8", "$EndMeshFormat", "$Nodes", str(len(self.points))]
        lines += [f"{i} {x!r} {y!r} {z!r}" for i, (x, y, z) in enumerate(self.points.tolist(), 1)]
        count = sum(map(len, self.cells.values()))
        lines += ["$EndNodes", "$Elements", str(count)]
        label = 0
        for volume, (kind, rows) in enumerate(self.cells.items(), 1):  # of one order, for Gmsh
            for row in rows:
                label += 1
                lines.append(f"{label} {KINDS[kind][2]} 2 1 {volume} {' '.join(map(str, row))}")
        path.write_text("\n".join([*lines, "$EndElements", ""]))


@pytest.fixture(scope="module")
def mixed() -> Mixed:
    return Mixed()


def split_mesh(path: Path) -> PartMesh:
    return make_mesh(read_part(path, MeshOptions(split=True)))


@pytest.fixture(scope="module")
def deck(mixed: Mixed, tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("mixed") / "mixed.inp"
    path.write_text(mixed.deck())
    return path


def areas(mesh: PartMesh, rows: np.ndarray) -> np.ndarray:
    a, b, c = (mesh.nodes[rows[:, k] - 1] for k in range(3))
    found: np.ndarray = np.linalg.norm(np.cross(b - a, c - a), axis=1) / 2
    return found


def assert_whole(mesh: PartMesh) -> None:
    """4-node tetrahedra that fill the box, inner faces with two owners, outer ones on the box."""
    rows = mesh.elements.tet4
    assert len(rows) == len(mesh.elements)
    volumes = element_volumes(mesh.nodes, mesh.elements)
    assert volumes.min() > 0
    assert volumes.sum() == pytest.approx(16, rel=1e-6)
    faces = Counter(
        tuple(sorted(row[list(f)].tolist()))
        for row in rows
        for f in ((0, 1, 2), (0, 1, 3), (0, 2, 3), (1, 2, 3))
    )
    assert set(faces.values()) == {1, 2}
    (outer,) = boundary_faces(mesh.elements)
    assert len(outer) == sum(count == 1 for count in faces.values())
    place = mesh.nodes[outer - 1]
    on_side = (place == 0).all(axis=1) | (place == SIZE).all(axis=1)
    assert np.all(on_side.any(axis=1))
    assert areas(mesh, outer).sum() == pytest.approx(40, rel=1e-6)


@pytest.mark.parametrize("ending", ["inp", "vtu", "msh"])
def test_a_mixed_mesh_becomes_tetrahedra_that_fit_together(
    mixed: Mixed, ending: str, tmp_path: Path
) -> None:
    path = tmp_path / f"mixed.{ending}"
    if ending == "inp":
        path.write_text(mixed.deck())
    else:
        getattr(mixed, ending)(path)
    assert_whole(split_mesh(path))


def test_sets_follow_the_cells_and_their_faces(mixed: Mixed, deck: Path) -> None:
    mesh = split_mesh(deck)
    members = np.concatenate([mesh.element_sets[f"E{kind}"] for kind in KINDS])
    np.testing.assert_array_equal(np.sort(members), np.arange(1, len(mesh.elements) + 1))
    labels = mesh.element_labels
    first = 1
    for kind, rows in mixed.cells.items():
        own = labels[mesh.element_sets[f"E{kind}"] - 1] // 100
        assert set(own.tolist()) == set(range(first, first + len(rows)))
        first += len(rows)
    (outer,) = boundary_faces(mesh.elements)
    there = {tuple(sorted(row)) for row in outer.tolist()}
    for name, x in (("LEFT", 0.0), ("RIGHT", 4.0)):
        faces = np.concatenate(mesh.surfaces[name])
        assert {tuple(sorted(row)) for row in faces.tolist()} <= there
        assert areas(mesh, faces).sum() == pytest.approx(4, rel=1e-6)
        np.testing.assert_array_equal(mesh.nodes[faces - 1][..., 0], x)
    walls = np.concatenate(mesh.surfaces["WALLS"])
    outside = walls[(mesh.nodes[walls - 1][..., 1] == 2).all(axis=1)]
    assert areas(mesh, outside).sum() == pytest.approx(2, rel=1e-6)


def test_a_linear_field_of_displacements_comes_out_exactly(deck: Path, tmp_path: Path) -> None:
    cases = tmp_path / "cases.toml"
    cases.write_text("""
[mesh]
split = true
[materials.steel]
E = 210000.0
nu = 0.3
[face_sets.skin]

[supports.skin]
type = "prescribed"
set = "skin"
value = ["1e-3*x+2e-3*y", "3e-3*z-1e-3*y", "2e-3*x+1e-3*y-2e-3*z"]
[options]
Sys.ComputationMode = 2
""")
    made = new(deck, cases, tmp_path / "run")
    solve(tmp_path / "run")
    moved = np.asarray(read_results(tmp_path / "run", 1).displacements, float)
    x, y, z = made.mesh.nodes.T
    exact = np.column_stack(
        (1e-3 * x + 2e-3 * y, 3e-3 * z - 1e-3 * y, 2e-3 * x + 1e-3 * y - 2e-3 * z)
    )
    inside = np.all((made.mesh.nodes > 0) & (made.mesh.nodes < SIZE), axis=1)
    assert inside.sum() == 7
    np.testing.assert_allclose(moved[inside], exact[inside], atol=1e-6 * np.abs(exact).max())


def test_what_was_split_dropped_and_lost_is_told(deck: Path) -> None:
    (text,) = (note for note in split_mesh(deck).notes if note.startswith("split: "))
    assert "4 20-node hexahedra" in text and "12 5-node pyramids" in text
    assert "mid-side nodes dropped, also from the node sets 'NALL', 'FOOT'" in text
    assert "of first order, not of second" in text


def test_without_the_request_the_refusal_tells_how_to_ask(mixed: Mixed, tmp_path: Path) -> None:
    asked = r"split = true in \[mesh\] of the case file, or --split of vkctl import"
    path = tmp_path / "mixed.inp"
    whole = mixed.deck()
    path.write_text(whole)
    with pytest.raises(PartError, match=rf"RIGHT names element 32, which .*: {asked}"):
        mesh_of(path)
    path.write_text(whole[: whole.index("*SURFACE")])
    for refused in (mesh_of, lambda deck: import_deck(deck, tmp_path / "cases.toml")):
        with pytest.raises(PartError, match=rf"4 C3D20R, .*: {asked}"):
            refused(path)


TOP = np.array(
    [(0.0, 0, 0), (1, 0, 0), (1, 1, 0), (0, 1, 0), (0, 0, 1), (1, 0, 1), (1, 1, 1), (0, 1, 1)]
)


def test_a_cell_without_a_valid_cut_from_a_corner_takes_a_node_in_its_middle(
    tmp_path: Path,
) -> None:
    points = TOP.copy()
    points[6] = (0.4, 1.15, 0.7)  # seen from node 1, a face turns its back
    path = tmp_path / "one.inp"
    path.write_text(inp_text(points, "C3D8", list(range(1, 9))) + "*NSET, NSET=N, GENERATE\n1, 8\n")
    mesh = split_mesh(path)
    assert len(mesh.nodes) == 9 and len(mesh.elements) == 12
    assert element_volumes(mesh.nodes, mesh.elements).min() > 0
    np.testing.assert_allclose(mesh.nodes[8], points.mean(axis=0), atol=1e-7)
    assert mesh.node_sets["N"].tolist() == list(range(1, 10))
    assert any("1 node added in the middle of cells" in note for note in mesh.notes)


def test_a_cell_that_no_cut_fits_is_named(tmp_path: Path) -> None:
    points = HEXAHEDRON.copy()
    points[[1, 2]] = points[[2, 1]]
    (tmp_path / "one.inp").write_text(inp_text(points, "C3D8", list(range(1, 9))))
    with pytest.raises(PartError, match="element 7 of the 8-node hexahedra is so warped"):
        split_mesh(tmp_path / "one.inp")


def test_a_hexahedron_collapsed_to_a_wedge_is_split_as_one(tmp_path: Path) -> None:
    (tmp_path / "one.inp").write_text(inp_text(TOP, "C3D8", [1, 2, 3, 3, 5, 6, 7, 7]))
    mesh = split_mesh(tmp_path / "one.inp")
    assert len(mesh.elements) == 3
    assert element_volumes(mesh.nodes, mesh.elements).sum() == pytest.approx(0.5)


def test_tetrahedra_alone_are_left_as_they_are(tmp_path: Path) -> None:
    (tmp_path / "one.inp").write_text(inp_text(TETRAHEDRON, "C3D10", list(range(1, 11))))
    mesh = split_mesh(tmp_path / "one.inp")
    assert len(mesh.elements.tet10) == 1 and mesh.element_labels.tolist() == [7]
    assert "split: there are tetrahedra alone, which are left as they are" in mesh.notes


@pytest.mark.parametrize("code", CELL_NODES)
def test_the_faces_of_each_cell_close_it(code: int) -> None:
    edges: Counter[tuple[int, int]] = Counter()
    for face in CELL_FACES[code]:
        corners = [int(n) for n in face if n < CELL_CORNERS[code]]
        edges.update(zip(corners, [*corners[1:], corners[0]], strict=True))
    assert set(edges.values()) == {1}
    assert all((b, a) in edges for a, b in edges)


def test_an_imported_deck_is_split_where_asked(mixed: Mixed, tmp_path: Path) -> None:
    (tmp_path / "deck.inp").write_text(
        mixed.deck()
        + """*ELSET, ELSET=EALL, GENERATE
1, 100
*MATERIAL, NAME=STEEL
*ELASTIC
210000, 0.3
*SOLID SECTION, ELSET=EALL, MATERIAL=STEEL
*BOUNDARY
FOOT, 1, 3
*STEP
*STATIC
*DSLOAD
RIGHT, P, 5.
*DLOAD
EC3D20R, P6, 3.
*END STEP
"""
    )
    told = import_deck(tmp_path / "deck.inp", tmp_path / "cases.toml", split=True)
    assert any(note.startswith("split: ") for note in told.notes)
    made = new(None, tmp_path / "cases.toml", tmp_path / "run")
    assert made.resultants[0, :3] == pytest.approx([3 * 4 - 5 * 4, 0, 0], abs=1e-4)


def test_the_weight_of_a_single_element_is_that_of_all_that_it_is_split_into(
    tmp_path: Path,
) -> None:
    lines = """*MATERIAL, NAME=STEEL
*ELASTIC
210000, 0.3
*DENSITY
2.
*ELSET, ELSET=EALL
7
*SOLID SECTION, ELSET=EALL, MATERIAL=STEEL
*BOUNDARY
1, 1, 3
*STEP
*STATIC
*DLOAD
7, GRAV, 10., 0., 0., -1.
*END STEP
"""
    deck, cases = tmp_path / "deck.inp", tmp_path / "cases.toml"
    deck.write_text(inp_text(HEXAHEDRON, "C3D8", list(range(1, 9))) + lines)
    assert import_deck(deck, cases, split=True).untaken == []
    made = new(None, cases, tmp_path / "run")
    volume = element_volumes(made.mesh.nodes, made.mesh.elements).sum()
    assert made.resultants[0, :3] == pytest.approx([0, 0, -20 * volume], rel=1e-6, abs=1e-6)
