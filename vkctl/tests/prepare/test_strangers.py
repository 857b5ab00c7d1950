"""Parts of strangers: no file runs anything, writes anything or takes more than its bound."""

from __future__ import annotations

import itertools
import os
import struct
import subprocess
import sys
import zlib
from base64 import b64encode
from pathlib import Path

import pytest
from new_parts import mesh_of
from part_files import TETRAHEDRON, inp_text, vtu_file

from vkctl.basics import confine
from vkctl.prepare import MeshOptions, PartError, Reading, Told, read_part
from vkctl.prepare.readers import apart

MESH = """$MeshFormat
2.2 0 8
$EndMeshFormat
$Nodes
4
1 0 0 0
2 1 0 0
3 0 1 0
4 0 0 1
$EndNodes
$Elements
1
1 4 2 1 1 1 2 3 4
$EndElements
"""
DECK = inp_text(TETRAHEDRON, "C3D10", list(range(1, 11)))


def refusal(path: Path, reading: Reading | None = None) -> str:
    with pytest.raises(PartError) as caught:
        read_part(path, None, reading)
    text = str(caught.value)
    assert "Traceback" not in text and len(text) < 500
    return text


# --- nothing runs ------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "text",
    [
        'SystemCall "touch owned";\n' + MESH,
        "\n" + MESH,
        "// a script\n" + MESH,
        MESH.replace("$MeshFormat", "$MeshFormats"),
        MESH.replace("2.2 0 8", "9.9 0 8"),
        MESH.replace("2.2 0 8", 'SystemCall "touch owned";'),
        "$PostFormat\n1.4 0 8\n$EndPostFormat\n",
        'View "x" {\n};\n',
        "ISO-10303-21;\n",
        "",
    ],
)
def test_a_msh_file_is_read_only_if_it_is_one(tmp_path: Path, text: str) -> None:
    (tmp_path / "part.msh").write_text(text)
    assert "isn't a mesh of Gmsh" in refusal(tmp_path / "part.msh")
    assert sorted(path.name for path in tmp_path.iterdir()) == ["part.msh"]


@pytest.mark.parametrize("name", ["part.step", "part.stp", "part.vtu", "part.inp", "part.msh"])
def test_a_script_under_another_ending_is_refused(tmp_path: Path, name: str) -> None:
    (tmp_path / name).write_text('SystemCall "touch owned";\n')
    assert "isn't a" in refusal(tmp_path / name)


def test_comments_and_old_meshes_are_meshes(tmp_path: Path) -> None:
    (tmp_path / "new.msh").write_text("$Comments\nmade by hand\n$EndComments\n" + MESH)
    nodes = "$NOD\n4\n1 0 0 0\n2 1 0 0\n3 0 1 0\n4 0 0 1\n$ENDNOD\n"
    (tmp_path / "old.msh").write_text(nodes + "$ELM\n1\n1 4 1 1 4 1 2 3 4\n$ENDELM\n")
    for name in ("new.msh", "old.msh"):
        assert len(mesh_of(tmp_path / name).elements) == 1


def test_options_beside_a_mesh_and_sections_in_it_are_not_run(tmp_path: Path) -> None:
    owned = tmp_path / "owned"
    command = f'SystemCall "touch {owned}";\n'
    (tmp_path / "part.msh").write_text(f"{MESH}$Options\n{command}$EndOptions\n{command}")
    (tmp_path / "part.msh.opt").write_text(command)
    (tmp_path / ".gmshrc").write_text(command)
    assert len(mesh_of(tmp_path / "part.msh").elements) == 1
    assert not owned.exists()


CONFINED = """
import os, sys
from vkctl.basics import confine
confine.end_with(os.getppid())
sure = confine.forbid_writing()
os.chdir(sys.argv[1])
done = []
for name, act in {
    "write": lambda: open("made", "w").write("x"),
    "change": lambda: open("there", "r+").write("x"),
    "remove": lambda: os.remove("there"),
    "rename": lambda: os.rename("there", "gone"),
    "folder": lambda: os.mkdir("folder"),
    "link": lambda: os.symlink("there", "link"),
    "program": lambda: os.execv("/bin/true", ["true"]),
}.items():
    try:
        act()
    except OSError:
        continue
    done.append(name)
print(sure, done, open("there").read())
"""


def test_the_reading_process_can_neither_write_nor_start_programs(tmp_path: Path) -> None:
    (tmp_path / "there").write_text("precious")
    done = subprocess.run(
        [sys.executable, "-c", CONFINED, str(tmp_path)], capture_output=True, text=True, check=False
    )
    if done.stdout.startswith("False"):  # a kernel without Landlock: what limits alone prevent
        assert "write" not in done.stdout and "change" not in done.stdout
        return
    assert done.stdout == "True [] precious\n", done.stderr
    assert [path.name for path in tmp_path.iterdir()] == ["there"]


def test_the_reading_process_takes_no_more_memory_than_it_is_allowed() -> None:
    source = "from vkctl.basics import confine\nconfine.limit_memory(1 << 28)\nbytearray(1 << 29)\n"
    done = subprocess.run(
        [sys.executable, "-c", source], capture_output=True, text=True, check=False
    )
    assert done.returncode == 1 and "MemoryError" in done.stderr
    assert confine.__doc__


# --- bounds ------------------------------------------------------------------------------------

BOX = 'SetFactory("OpenCASCADE");\nBox(1) = {0, 0, 0, 1, 1, 1};\n'


def test_a_script_that_goes_on_for_ever_is_ended(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setitem(apart._TIME, ".geo", (3.0, 0.0))
    (tmp_path / "part.geo").write_text(BOX + "For i In {0:1e15}\nx = i;\nEndFor\n")
    assert "takes longer than it should; --no-limits" in refusal(tmp_path / "part.geo")


@pytest.mark.thorough
def test_a_script_that_takes_all_memory_is_ended(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(apart, "available_gb", lambda: 1.0)
    (tmp_path / "part.geo").write_text(BOX + 'x() = {0:1e9};\nPrintf("%g", #x());\n')
    assert "part.geo: " in refusal(tmp_path / "part.geo")


def test_a_part_beyond_the_memory_is_meshed_without_limits_alone(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(apart, "_MESHING_SHARE", 1e-6)
    (tmp_path / "part.geo").write_text(BOX)
    assert "no size would fit" in refusal(tmp_path / "part.geo")
    options = MeshOptions(size=0.5, order=1)
    assert read_part(tmp_path / "part.geo", options, Reading(limits=False)).solids


def test_a_reader_that_breaks_down_is_told_in_a_sentence(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (tmp_path / "gmsh.py").write_text("import os, signal\nos.kill(os.getpid(), signal.SIGSEGV)\n")
    monkeypatch.syspath_prepend(tmp_path)
    (tmp_path / "part.msh").write_text(MESH)
    assert "its reader broke down (SIGSEGV): the file is damaged" in refusal(tmp_path / "part.msh")


# --- decks -------------------------------------------------------------------------------------


def deck(folder: Path, text: str) -> Path:
    folder.mkdir(exist_ok=True)
    (folder / "deck.inp").write_text(text)
    return folder / "deck.inp"


@pytest.mark.parametrize("how", ["above", "whole", "link", "folder"])
def test_included_files_lie_below_the_decks_folder_unless_trusted(tmp_path: Path, how: str) -> None:
    (tmp_path / "nodes.inc").write_text(DECK)
    name = {
        "above": "../nodes.inc",
        "whole": str(tmp_path / "nodes.inc"),
        "link": "link.inc",
        "folder": "sub/../../nodes.inc",
    }[how]
    path = deck(tmp_path / "deck", f"*INCLUDE, INPUT={name}\n")
    (tmp_path / "deck" / "sub").mkdir()
    (tmp_path / "deck" / "link.inc").symlink_to(tmp_path / "nodes.inc")
    assert "doesn't lie below the deck's folder; --trust-scripts" in refusal(path)
    assert read_part(path, None, Reading(trust_scripts=True)).solids


def test_included_files_below_the_folder_are_read_through_links_too(tmp_path: Path) -> None:
    path = deck(tmp_path / "deck", "*INCLUDE, INPUT=sub/nodes.inc\n")
    (tmp_path / "deck" / "sub").mkdir()
    (tmp_path / "deck" / "real.inc").write_text(DECK)
    (tmp_path / "deck" / "sub" / "nodes.inc").symlink_to(tmp_path / "deck" / "real.inc")
    assert read_part(path).solids


def test_includes_that_go_round_or_multiply_are_refused(tmp_path: Path) -> None:
    assert "circle" in refusal(deck(tmp_path, "*INCLUDE, INPUT=deck.inp\n"))
    for level in range(5):
        (tmp_path / f"{level}.inc").write_text(f"*INCLUDE, INPUT={level + 1}.inc\n" * 20)
    (tmp_path / "5.inc").write_text("**\n")
    assert "more than 1000 *INCLUDE" in refusal(deck(tmp_path, "*INCLUDE, INPUT=0.inc\n"))


def test_a_pipe_is_no_file_that_can_be_included(tmp_path: Path) -> None:
    os.mkfifo(tmp_path / "pipe.inc")
    assert "is no file" in refusal(deck(tmp_path, "*INCLUDE, INPUT=pipe.inc\n"))


@pytest.mark.parametrize(
    ("text", "words"),
    [
        ("*NSET, NSET=A, GENERATE\n1, 999999999999, 1\n", "more than 50000000 members"),
        ("*NSET, NSET=A, GENERATE\n1, 1e300, 1\n", "isn't a range"),
        ("*NSET, NSET=A, GENERATE\n1, inf, 1\n", "isn't a range"),
        ("*NSET, NSET=A, GENERATE\n1, 9, 0\n", "isn't a range"),
        ("*NSET, NSET=A, GENERATE\n1, 9, -1\n", "isn't a range"),
        ("*NSET, NSET=A, GENERATE\n1\n", "isn't a range"),
        ("*NODE\n1e300, 0, 0, 0\n", "beyond reason"),
        ("*NODE\nnan, 0, 0, 0\n", "beyond reason"),
        ("*NODE\n99, 1e300, 0, 0\n*ELEMENT, TYPE=C3D4\n9, 1, 2, 3, 99\n", "too large for 32-bit"),
        ("*NSET, NSET=A\n\xb2\n", "isn't a set"),
        ("*ELEMENT, TYPE=C3D4\n99999999999999999999999, 1, 2, 3, 4\n" * 2, "occur twice"),
        ("*SURFACE, NAME=S\n" + "9" * 30 + ", S1\n", "is no element set"),
    ],
)
def test_numbers_beyond_reason_are_told(tmp_path: Path, text: str, words: str) -> None:
    path = tmp_path / "deck.inp"
    path.write_bytes((DECK + text).encode("latin-1"))
    with pytest.raises(PartError, match=words):
        mesh_of(path)


def test_a_keyword_that_ends_in_a_comma_at_the_end_of_a_deck_ends_there(tmp_path: Path) -> None:
    assert len(mesh_of(deck(tmp_path, DECK + "*ELEMENT, TYPE=C3D4,")).elements) == 1


def test_sets_that_are_made_of_each_other_do_not_multiply(tmp_path: Path) -> None:
    lines = ["*NSET, NSET=S0, GENERATE\n1, 1000000, 1\n"]
    lines += [f"*NSET, NSET=S{n + 1}\nS{n}, S{n}, 1\nS{n}, 2\n" for n in range(60)]
    assert "more than 50000000 members" in refusal(deck(tmp_path, DECK + "".join(lines)))


# --- grids -------------------------------------------------------------------------------------


def grid_text(tmp_path: Path) -> str:
    vtu_file(tmp_path / "sound.vtu", TETRAHEDRON, 24, list(range(1, 11)))
    return (tmp_path / "sound.vtu").read_text()


LAUGHTER = "".join(
    f'<!ENTITY {after} "{10 * f"&{before};"}">' for before, after in itertools.pairwise("abcdefghi")
)
LAUGHS = f'<?xml version="1.0"?>\n<!DOCTYPE x [<!ENTITY a "ha">{LAUGHTER}]>\n'


def compressed(blocks: int, size: int, data: bytes) -> str:
    header = struct.pack("<4I", blocks, size, 0, len(data))
    return (b64encode(header) + b64encode(data)).decode()


def with_points(text: str) -> str:
    return f"""<?xml version="1.0"?>
<VTKFile type="UnstructuredGrid" version="0.1" byte_order="LittleEndian" header_type="UInt32"
 compressor="vtkZLibDataCompressor"><UnstructuredGrid><Piece NumberOfPoints="4" NumberOfCells="0">
<Points><DataArray type="Float32" Name="Points" NumberOfComponents="3" format="binary">
{text}</DataArray></Points></Piece></UnstructuredGrid></VTKFile>"""


def damaged(kind: str, sound: str) -> str:
    return {
        "points": sound.replace('NumberOfPoints="10"', 'NumberOfPoints="999999999999"'),
        "cells": sound.replace('NumberOfCells="1"', 'NumberOfCells="99999999999"'),
        "negative": sound.replace('NumberOfPoints="10"', 'NumberOfPoints="-1"'),
        "components": sound.replace('NumberOfComponents="3"', 'NumberOfComponents="99999999999"'),
        "blocks": with_points(compressed(2**31, 2**15, b"x")),
        "block size": with_points(compressed(1, 2**31, zlib.compress(bytes(1000)))),
        "laughs": sound.replace('<?xml version="1.0"?>', LAUGHS),
        "outside": sound.replace(
            '<?xml version="1.0"?>', '<?xml version="1.0"?><!DOCTYPE x SYSTEM "/etc/passwd">'
        ),
        "nested": sound.replace("<UnstructuredGrid>", "<UnstructuredGrid>" + "<a>" * 5000),
        "cut": sound[: len(sound) // 2],
        "other": sound.replace('type="UnstructuredGrid"', 'type="PolyData"'),
    }[kind]


@pytest.mark.parametrize(
    ("kind", "words"),
    [
        ("points", "bytes can't hold"),
        ("cells", "bytes can't hold"),
        ("negative", "'-1' is no count"),
        ("components", "bytes can't hold"),
        ("blocks", "bytes can't hold"),
        ("block size", "bytes can't hold"),
        ("laughs", "declares entities|isn't an XML file of VTK"),
        ("outside", "declares entities|isn't an XML file of VTK"),
        ("nested", "nested too deeply"),
        ("cut", "damaged XML"),
        ("other", "holds a PolyData"),
    ],
)
def test_a_grid_that_announces_what_it_cannot_hold_is_refused(
    tmp_path: Path, kind: str, words: str
) -> None:
    text = damaged(kind, grid_text(tmp_path))
    (tmp_path / "part.vtu").write_text(text)
    said = refusal(tmp_path / "part.vtu")
    assert any(word in said for word in words.split("|")), said


@pytest.mark.parametrize("mode", ["ascii", "binary", "appended"])
@pytest.mark.parametrize("packed", [True, False])
def test_sound_grids_pass_however_they_are_written(tmp_path: Path, mode: str, packed: bool) -> None:
    from vtkmodules.vtkIOXML import vtkXMLUnstructuredGridReader, vtkXMLUnstructuredGridWriter

    vtu_file(tmp_path / "sound.vtu", TETRAHEDRON, 24, list(range(1, 11)))
    reader = vtkXMLUnstructuredGridReader()
    reader.SetFileName(str(tmp_path / "sound.vtu"))
    reader.Update()
    writer = vtkXMLUnstructuredGridWriter()
    writer.SetInputData(reader.GetOutput())
    writer.SetFileName(str(tmp_path / "part.vtu"))
    {"ascii": writer.SetDataModeToAscii, "binary": writer.SetDataModeToBinary}.get(
        mode, writer.SetDataModeToAppended
    )()
    if mode == "appended" and packed:
        writer.EncodeAppendedDataOff()
    if not packed:
        writer.SetCompressorTypeToNone()
    assert writer.Write()
    assert len(mesh_of(tmp_path / "part.vtu").elements) == 1


# --- names -------------------------------------------------------------------------------------


def test_names_that_a_terminal_would_obey_are_told_with_escapes(tmp_path: Path) -> None:
    text = MESH + '$PhysicalNames\n1\n3 1 "\x1b[2Jbody\u202e"\n$EndPhysicalNames\n'
    head, rest = text.split("$Nodes", 1)
    names = rest[rest.index("$PhysicalNames") :]
    (tmp_path / "part.msh").write_text(head + names + "$Nodes" + rest.replace(names, ""))
    (name,) = [n for n in mesh_of(tmp_path / "part.msh").element_sets if "body" in n]
    assert name == "\\x1b[2Jbody\\u202e"


def test_what_is_told_while_a_part_is_read_is_told_once(tmp_path: Path) -> None:
    script = tmp_path / "box.geo"
    script.write_text('SetFactory("OpenCASCADE");\nBox(1) = {0, 0, 0, 1, 1, 1};\n')
    told: list[Told] = []
    read_part(script, MeshOptions(size=0.2, order=1), Reading(tell=told.append))
    (kept,) = [one.text for one in told if one.lasting]
    assert kept.startswith("about ") and "elements of size 0.2 at most expected" in kept
    assert all(one.text.isprintable() for one in told)
