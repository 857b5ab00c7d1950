"""Scripts of Gmsh: those that say geometry are read, all others are refused."""

from __future__ import annotations

from pathlib import Path

import pytest

from vkctl.prepare import MeshOptions, PartError, Reading, read_part
from vkctl.prepare.readers.geo_script import harmless_script

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
BOX = 'SetFactory("OpenCASCADE");\nBox(1) = {0, 0, 0, 1, 2, 3};\n'

HARMLESS = [
    'Physical Volume("a body", 4) = {1}; Printf("%g of %g", 3, 4); Mesh.Algorithm3D = 10;',
    'DefineConstant[ lc = {0.1, Name "Parameters/lc", Min 0.01, Max 1} ]; a~{2} = 3;',
    "For i In {0:3}\nPoint(i + 9) = {i, 0, 0, lc};\nEndFor\nIf (lc > 0) Line(9) = {9, 10}; EndIf",
    "Macro Corner\nx = 1;\nReturn\nCall Corner;\nMacro Other y = 2; Return",
    'Field[1] = Distance; Field[1].CurvesList = {1}; Field[2] = MathEval; Field[2].F = "x + y";',
    "Background Field = 2; Mesh.MeshSizeMax = 2 * lc; Mesh 3;",
    "Transfinite Curve {1} = 10 Using Progression 1.2; Transfinite Surface {1} Left;",
    "Characteristic Length { PointsOf{ Volume{1}; } } = 0.1; s() = Boundary{ Volume{1}; };",
    "out[] = Extrude {0, 0, 1} { Surface{1}; Layers{ {4, 2}, {0.5, 1} }; Recombine; };",
    'Periodic Surface {2} = {1} Translate {1, 0, 0}; Geometry.OCCTargetUnit = "M";',
    '// Merge, Save and SystemCall in a comment\n/* Include "that"; */ x = 1; Show "*";',
]

HARMFUL = [
    ('SystemCall "touch owned";', "SystemCall"),
    ('System "touch owned";', "System"),
    ('NonBlockingSystemCall "touch owned";', "NonBlockingSystemCall"),
    ('OnelabRun("a", "touch owned");', "OnelabRun"),
    ('Merge "other.geo";', "Merge"),
    ('MergeWithBoundingBox "other.geo";', "Merge"),
    ('Include "other.geo";', "Include"),
    ('Save "owned.msh";', "Save"),
    ('Save View[0] "owned.pos";', "Save"),
    ('Print "owned.png";', "Print"),
    ('CreateDir "owned";', "CreateDir"),
    ('SetName "x";', "SetName"),
    ('Printf("text") > "owned";', "Printf"),
    ('Printf("text %g", 1) >> "owned";', "Printf"),
    ('Error("text") > "owned";', "Error"),
    ('v() = ShapeFromFile("/etc/x.step");', "ShapeFromFile"),
    ('v = ListFromFile("/etc/passwd");', "ListFromFile"),
    ('a = GetEnv("HOME");', "GetEnv"),
    ("Plugin(MathEval).Run;", "Plugin"),
    ("Exit;", "Exit"),
    ("Sleep 1000;", "Sleep"),
    ('Field[1] = ExternalProcess; Field[1].CommandLine = "touch owned";', "ExternalProcess"),
    ('Field[1] = Structured; Field[1].FileName = "/etc/x";', "Structured"),
    ("Field[1] = Unheard;", "Unheard"),
    ('General.ErrorFileName = "owned";', "General.ErrorFileName"),
    ('General.TextEditor = "touch owned";', "General.TextEditor"),
    ('Solver.Executable0 = "touch owned";', "Solver.Executable0"),
    ('Mesh.Anything = "owned";', "Mesh.Anything"),
    ('a = "owned"; Mesh.Anything = a;', "Mesh.Anything"),
    ('Mesh.Anything = StrCat("ow", "ned");', "Mesh.Anything"),
    # Commands that aren't known yet, and known ones in disguise.
    ('Unheard "touch owned";', "Unheard"),
    ('a = "touch owned"; Unheard = 1; Unheard a;', "Unheard"),
    ('Unheard StrCat("touch ", "owned");', "Unheard"),
    ('Unheard("touch owned");', "Unheard"),
    ('Unheard[0] "touch owned";', "brackets"),
    ('Unheard~{1} "touch owned";', "command's file"),
    ('System = 1; System "touch owned";', "System"),
    ('x = a0EndIf0System; "x";', "ends a block"),
    ('If (0) x = 1; EndIf SystemCall "touch owned";', "SystemCall"),
    ('Macro SystemCall "touch owned"; Return', "SystemCall"),
    ("For SystemCall In {0:1} EndFor", "SystemCall"),
    ("Background Mesh View[0];", "Background"),
]


@pytest.mark.parametrize("path", sorted(EXAMPLES.glob("*.geo")), ids=lambda p: p.name)
def test_the_examples_are_harmless(path: Path) -> None:
    assert harmless_script(path.read_bytes(), "it").count(";") == path.read_text().count(";")


@pytest.mark.parametrize("text", HARMLESS)
def test_what_says_geometry_alone_is_harmless(text: str) -> None:
    judged = harmless_script(text.encode(), "it")
    assert "SystemCall" not in judged and "=" in judged


@pytest.mark.parametrize(("text", "word"), HARMFUL)
def test_what_reaches_beyond_geometry_is_refused_with_its_line(text: str, word: str) -> None:
    with pytest.raises(PartError, match=r"^it:3: .*--trust-scripts") as caught:
        harmless_script((BOX + text).encode(), "it")
    assert word in str(caught.value)


@pytest.mark.parametrize(
    "text",
    [
        '// fine \r /* \n SystemCall "touch owned"; // */',  # a comment that ends elsewhere
        '// fine \xff\n SystemCall "touch owned";',
        f'a = "{"x" * 1100}SystemCall";',  # Gmsh cuts long texts and goes on behind the cut
        'a = "one\nSystemCall";',
        'a = "open; SystemCall',
        "x = 1;\0SystemCall",
        "x = 1; \\ y = 2;",
        "x = `touch owned`;",
        "x = $HOME;",
    ],
)
def test_text_that_gmsh_may_take_apart_differently_is_refused(text: str) -> None:
    with pytest.raises(PartError, match="it"):
        harmless_script(text.encode("latin-1"), "it")


def test_gmsh_is_given_no_comments_and_no_long_lines() -> None:
    text = "/* a\nb */ x = {" + ", ".join(map(str, range(5000))) + "}; // SystemCall\n"
    judged = harmless_script(text.encode(), "it")
    assert "SystemCall" not in judged and max(map(len, judged.split("\n"))) < 1100
    bare = text[len("/* a\nb */ ") : text.index("//")]
    assert "".join(judged.split()) == "".join(bare.split())


def test_a_harmful_script_runs_for_whoever_trusts_it_and_for_nobody_else(tmp_path: Path) -> None:
    owned = tmp_path / "owned"
    script = tmp_path / "box.geo"
    script.write_text(BOX + f'SystemCall "touch {owned}";\n')
    with pytest.raises(PartError, match=r"box\.geo:3: 'SystemCall'"):
        read_part(script, MeshOptions(size=1.0, order=1))
    assert not owned.exists()
    part = read_part(script, MeshOptions(size=1.0, order=1), Reading(trust_scripts=True))
    assert owned.exists() and part.solids


def test_options_that_lie_beside_a_part_are_not_run(tmp_path: Path) -> None:
    owned = tmp_path / "owned"
    script = tmp_path / "box.geo"
    script.write_text(BOX)
    (tmp_path / "box.geo.opt").write_text(f'SystemCall "touch {owned}";\n')
    assert read_part(script, MeshOptions(size=1.0, order=1)).solids
    assert not owned.exists()
