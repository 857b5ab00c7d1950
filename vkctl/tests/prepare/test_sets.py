"""Sets from the part and from selectors of the case file."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from new_parts import PLATE, RADIUS, brick, case_file, gmsh_session, plate, prepared, problems

from vkctl.prepare import Prepared, build
from vkctl.shapes.forces import area_shares


@pytest.fixture(scope="module")
def holed(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return plate(tmp_path_factory.mktemp("plate")) / "part.msh"


@pytest.fixture(scope="module")
def block(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("brick"), "hex8") / "part.msh"


def made(part: Path, tmp_path: Path, text: str) -> Prepared:
    return prepared(part, tmp_path, text)


def area(result: Prepared, name: str) -> float:
    return float(area_shares(result.mesh.nodes, result.sets.faces(name, ()).tables)[1].sum())


def test_planes_and_cylinders_pick_outer_faces(holed: Path, tmp_path: Path) -> None:
    result = made(
        holed,
        tmp_path,
        """
        [face_sets.right]
        plane = { point = [4, 0, 0], normal = [2, 0, 0] }
        [face_sets.hole]
        cylinder = { point = [2, 1, 0], axis = [0, 0, 3], radius = 0.5 }
        [face_sets.skin]
        [face_sets.rest]
        from = "skin"
        minus = ["hole", "right"]
        """,
    )
    hole = 2 * np.pi * RADIUS * PLATE[2]
    plain = 2 * (4 * 2 + 4 * 1 + 2 * 1) - 2 * np.pi * RADIUS**2
    assert area(result, "right") == pytest.approx(2.0)
    assert area(result, "hole") == pytest.approx(hole, rel=1e-3)
    assert area(result, "skin") == pytest.approx(hole + plain, rel=1e-3)
    assert area(result, "all") == pytest.approx(hole + plain, rel=1e-3)
    assert area(result, "rest") == pytest.approx(plain - 2.0, rel=1e-3)
    assert area(result, "left") == pytest.approx(2.0)


def test_regions_formulas_and_sources_narrow_a_set_together(block: Path, tmp_path: Path) -> None:
    result = made(
        block,
        tmp_path,
        """
        [node_sets.corner]
        box = { min = [0, 0, 0], max = [1, 1, 1] }
        where = "x + y <= 1.0001"
        [node_sets.line]
        from = "left"
        plane = { point = [0, 0, 0], normal = [0, 0, 1] }
        [node_sets.ball]
        sphere = { center = [4, 2, 1], radius = 0.7 }
        [node_sets.nearest_two]
        nearest = [[4, 2, 1], [0.1, 0, 0.1]]
        [node_sets.wide]
        plane = { point = [0.3, 0, 0], normal = [1, 0, 0], tolerance = 0.4 }
        [element_sets.half]
        box = { min = [0, 0, 0], max = [2, 2, 1] }
        [face_sets.between]
        from = "wide"
        [face_sets.upward]
        normal = { direction = [0, 0, 1] }
        """,
    )
    nodes, sets = result.mesh.nodes, result.sets
    x, y, z = nodes.T
    corner = (x <= 1 + 1e-6) & (y <= 1) & (x + y <= 1.0001)
    assert sets.nodes("corner", ()).tolist() == (np.flatnonzero(corner) + 1).tolist()
    assert np.all(nodes[sets.nodes("line", ()) - 1][:, [0, 2]] == 0)
    away = np.linalg.norm(nodes - (4, 2, 1), axis=1)
    assert sets.nodes("ball", ()).tolist() == (np.flatnonzero(away <= 0.7) + 1).tolist()
    assert sorted(nodes[sets.nodes("nearest_two", ()) - 1].tolist()) == [[0, 0, 0], [4, 2, 1]]
    assert set(x[sets.nodes("wide", ()) - 1].round(6)) == {0.0, 0.666667}
    assert len(sets.elements("half", ())) == len(result.mesh.elements) // 2
    assert area(result, "between") == pytest.approx(2 + 6 * 2 / 3)
    assert area(result, "upward") == pytest.approx(8.0)


def test_sets_of_one_kind_serve_as_another(block: Path, tmp_path: Path) -> None:
    result = made(
        block,
        tmp_path,
        """
        [element_sets.start]
        where = "x < 0.6"
        [node_sets.start_nodes]
        from = "start"
        [element_sets.again]
        from = "start_nodes"
        [face_sets.start_faces]
        from = "start"
        """,
    )
    sets = result.sets
    assert sets.nodes("start", ()).tolist() == sets.nodes("start_nodes", ()).tolist()
    assert sets.elements("again", ()).tolist() == sets.elements("start", ()).tolist()
    assert area(result, "start_faces") == pytest.approx(2 + 6 * 2 / 3)
    assert np.all(result.mesh.nodes[sets.nodes("left", ()) - 1, 0] == 0)


def test_names_fall_back_to_another_capitalisation(block: Path, tmp_path: Path) -> None:
    result = made(block, tmp_path, '[node_sets.a]\nfrom = "LEFT"\n')
    assert len(result.sets.nodes("a", ())) == len(result.sets.nodes("left", ()))


def test_left_out_elements_take_their_nodes_and_faces_with_them(
    block: Path, tmp_path: Path
) -> None:
    result = made(
        block,
        tmp_path,
        """
        [element_sets.end]
        where = "x > 3.4"
        [model]
        exclude = "end"
        ignore_level = "all"
        [face_sets.cut]
        plane = { point = [3.3333333, 0, 0], normal = [1, 0, 0] }
        [node_sets.everything]
        """,
    )
    flags = result.model.element_flags
    assert flags is not None and np.count_nonzero(flags == (2 | 4)) == 6
    assert np.count_nonzero(flags == 2) == len(flags) - 6
    assert area(result, "cut") == pytest.approx(2.0)
    assert result.mesh.nodes[result.sets.nodes("everything", ()) - 1, 0].max() < 3.4


# What a case file says below the materials and supports, its mistaken line (counted from its
# first line), and the words of the message.
MISTAKES = [
    ('[node_sets.a]\nfrom = "lefft"\n', 2, "no set 'lefft'; did you mean 'left'?"),
    ('[supports.b]\nset = "rihgt"\n[node_sets.right]\nnearest=[4,0,0]\n', 2, "mean 'right'?"),
    (
        "[node_sets.a]\nplane = { point = [4.5, 0, 0], normal = [1, 0, 0] }\n",
        1,
        "node set 'a' is empty; the plane is 0.5 away from the nearest point",
    ),
    (
        '[face_sets.a]\nwhere = "x > 99"\n',
        1,
        "face set 'a' is empty; the part reaches from (0, 0, 0) to (4, 2, 1)",
    ),
    ('[node_sets.left]\nfrom = "left"\n', 0, ""),
    ('[model]\nexclude = "left"\n', 2, "'left' is a face set, which has no elements"),
    ("[face_sets.left]\n", 1, "'left' is a set of the part already; choose another name"),
    ("[node_sets.all]\n", 1, "'all' is a set of every part; choose another name"),
    (
        '[node_sets.a]\nfrom = "b"\n[node_sets.b]\nfrom = "a"\n',
        4,
        "sets are made of each other: 'a' from 'b' from 'a'",
    ),
    ('[node_sets.a]\nwhere = "1 / x"\n', 2, "has no finite value"),
    ('[model]\nexclude = "body"\n', 2, "exclude in [model] leaves no element"),
    ('[model]\nexclude = "bodi"\n', 2, "no set 'bodi'; did you mean 'body'?"),
    ('[model]\nmarked_nodes = "lfet"\n', 2, "did you mean 'left'?"),
    (
        '[materials.b]\nE = 1\nnu = 0\nelements = "body"\n'
        '[materials.c]\nE = 1\nnu = 0\nelements = "volume:1"\n',
        8,
        "elements of 'volume:1' have the material 'b' already",
    ),
    ('[level]\narray = "phi"\n', 2, "no node data 'phi' in the part; the part holds no node data"),
    ('[level]\nvalue = "log(x)"\n', 2, "has no finite value"),
    ('[loads.a]\ntype = "gravity"\nvalue = [0, 0, -9.81]\n', -6, "has no 'density'"),
    (
        '[node_sets.p]\nnearest = [4, 0, 0]\n[loads.a]\ntype = "pressure"\nset = "p"\nvalue = 1\n',
        5,
        "node set 'p' spans no outer face",
    ),
    ('[loads.a]\ntype = "force"\nset = "left"\nvalue = [0, 0, 0]\n', 1, "the force is zero"),
    ('[loads.a]\ntype = "pressure"\nset = "left"\nvalue = "1/y"\n', 0, ""),
    ('[loads.a]\ntype = "pressure"\nset = "left"\nvalue = "sqrt(-1-y)"\n', 4, "no finite value"),
    (
        '[supports.e]\ntype = "elastic"\nset = "left"\n[options]\nSta.SupportStiffness = 0\n',
        1,
        "has no effect while Sta.SupportStiffness is 0",
    ),
]


@pytest.mark.parametrize(("text", "line", "words"), MISTAKES)
def test_mistakes_that_only_the_part_shows(
    block: Path, tmp_path: Path, text: str, line: int, words: str
) -> None:
    base = '[materials.steel]\nE = 210000.0\nnu = 0.3\n[supports.clamp]\nset = "left"\n'
    path = case_file(tmp_path, text, base)
    found = problems(lambda: build(block, path))
    if not words:
        assert not found
    else:
        assert any(n == 5 + line or (line < 0 and n == 1) for n, t in found if words in t), found


def test_elements_without_a_material_are_told(block: Path, tmp_path: Path) -> None:
    text = '[element_sets.a]\nwhere = "x < 1"\n[materials.m]\nE = 1\nnu = 0\nelements = "a"\n'
    path = case_file(tmp_path, text + '[supports.s]\nset = "left"\n', "")
    ((line, words),) = problems(lambda: build(block, path))
    assert line == 3 and words.startswith("30 elements without a material, the first ")


def test_a_pressure_between_two_solids_is_refused(tmp_path: Path) -> None:
    with gmsh_session() as gmsh:
        gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
        gmsh.model.occ.addBox(1, 0, 0, 1, 1, 1)
        gmsh.model.occ.fragment([(3, 1)], [(3, 2)])
        gmsh.model.occ.synchronize()
        for _, tag in gmsh.model.getEntities(2):
            box = gmsh.model.getBoundingBox(2, tag)
            if abs(box[0] - 1) < 1e-3 and abs(box[3] - 1) < 1e-3:
                gmsh.model.addPhysicalGroup(2, [tag], name="between")
            if abs(box[3]) < 1e-3:
                gmsh.model.addPhysicalGroup(2, [tag], name="left")
        for tag in (1, 2):
            gmsh.model.addPhysicalGroup(3, [tag], name=f"half {tag}")
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.5)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(tmp_path / "two.msh"))
    text = '[loads.p]\ntype = "pressure"\nset = "between"\nvalue = 1\n'
    path = case_file(tmp_path, text)
    ((_, words),) = problems(lambda: build(tmp_path / "two.msh", path))
    assert "have solids on both sides; use a traction" in words
    # With one side left out the faces are outer ones, and push the other side away.
    path = case_file(tmp_path, text + '[model]\nexclude = "half 2"\n')
    np.testing.assert_allclose(
        build(tmp_path / "two.msh", path).resultants[0, :3], (-1, 0, 0), atol=1e-6
    )
