"""Damage parts and case files at random, and see that each ends in a sentence or a model.

    python vkctl/tools/fuzz_parts.py --seconds 600 --seed 1 --keep findings

Starts from the examples and from a small part in each format. A finding is any exception but a
refusal, a warning, a wait of more than a minute, or more memory than a reader is allowed; the input
is kept and the exit status is 1. The same seed damages in the same way.
"""

from __future__ import annotations

import argparse
import os
import random
import re
import resource
import signal
import sys
import tempfile
import time
import traceback
import warnings
from collections import Counter
from pathlib import Path
from types import FrameType

import numpy as np

from vkctl.prepare import CaseFileError, PartError, build_model, make_mesh, read_cases
from vkctl.prepare.build import build
from vkctl.prepare.deck import DeckError, case_of
from vkctl.prepare.part import Part
from vkctl.prepare.readers.inp import read_inp
from vkctl.prepare.readers.vtu_counts import check_counts
from vkctl.shapes.topology import TET4

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"
PATIENCE = 60  # seconds for one input
MEMORY = 6 << 30  # bytes of address space of the process that judges
SLOW = (".msh", ".vtu", ".step", ".geo")  # read in a process of their own, some two a second
QUICK = (".toml", ".inp")  # read here: hundreds a second

CASES = """part = "part.msh"
[mesh]
scale = 1.0
size = 40.0
order = 1
[materials.steel]
E = 210000.0
nu = 0.3
density = 7.85e-9
[node_sets.low]
plane = { point = [0, 0, 0], normal = [0, 0, 1] }
[face_sets.right]
box = { min = [0, 0, 0], max = [9, 9, 9] }
normal = { direction = [1, 1, 1], angle = 80 }
[supports.clamp]
set = "low"
type = "prescribed"
value = [0, "x * 0.1", "sin(y) if z > 0 else 0"]
[loads.pull]
type = "force"
set = "all"
value = [1, 2, 3]
[loads.weight]
type = "gravity"
value = [0, 0, -9810]
[[load_case]]
name = "one"
loads = { pull = 1.5, weight = 1.0 }
[level]
value = "x + 1"
[options]
Sys.ComputationMode = 2
"""
DECK = """*HEADING
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
*ELSET, ELSET=BOTH
ONE, TWO
*NSET, NSET=SOME, GENERATE
1, 5, 2
*SURFACE, NAME=SIDES, TYPE=ELEMENT
ONE, S2
2, S3
*INCLUDE, INPUT=other.inc
"""
CONDITIONS = """*MATERIAL, NAME=STEEL
*ELASTIC
210000., .3
*DENSITY
7.85e-9
*EXPANSION, TYPE=ISO
1.2D-5
*MATERIAL, NAME=WOOD
*ELASTIC, TYPE=ENGINEERING CONSTANTS
11000., 900., 500., .35, .4, .3, 700., 650.
60.
*DENSITY
5e-10
*ORIENTATION, NAME=UP
0., 0., 1., 1., 0., 0.
*SOLID SECTION, ELSET=ONE, MATERIAL=STEEL
*SOLID SECTION, ELSET=TWO, MATERIAL=WOOD, ORIENTATION=UP
*ELEMENT, TYPE=SPRING1, ELSET=SPRINGS
901, 2
902, 2
*SPRING, ELSET=SPRINGS
3
400.
*TRANSFORM, NSET=SOME, TYPE=C
5., 5., 0., 5., 5., 1.
*INITIAL CONDITIONS, TYPE=TEMPERATURE
ALLN, 20.
*BOUNDARY
SOME, 1, 3
*STEP
*STATIC
*CLOAD
2, 1, 5.
ALLN, 3, -1.
*DLOAD
ONE, P1, 3.
2, P3, 4.
BOTH, GRAV, 9.81, 0., 0., -1.
*DSLOAD
SIDES, P, 2.
*TEMPERATURE
4, 30.
*END STEP
*STEP
*STATIC
*BOUNDARY, OP=NEW
2, 1, 2, 0.5
ALLN, ENCASTRE
*CLOAD, OP=NEW
4, 2, 5.
*DLOAD, OP=MOD
1, P1, 8.
*END STEP
"""
MESH = """$MeshFormat
2.2 0 8
$EndMeshFormat
$PhysicalNames
1
3 1 "body"
$EndPhysicalNames
$Nodes
5
1 0 0 0
2 1 0 0
3 0 1 0
4 0 0 1
5 1 1 1
$EndNodes
$Elements
3
1 4 2 1 1 1 2 3 4
2 4 2 1 1 2 3 4 5
3 2 2 2 1 1 2 3
$EndElements
$NodeData
1
"phi"
1
0
3
0
1
2
1 0.5
2 1.5
$EndNodeData
"""
NEWER_MESH = """$MeshFormat
4.1 0 8
$EndMeshFormat
$Entities
0 0 0 1
1 0 0 0 1 1 1 0 0
$EndEntities
$Nodes
1 4 1 4
3 1 0 4
1
2
3
4
0 0 0
1 0 0
0 1 0
0 0 1
$EndNodes
$Elements
1 1 1 1
3 1 4 1
1 1 2 3 4
$EndElements
"""
GRID = """<?xml version="1.0"?>
<VTKFile type="UnstructuredGrid" version="0.1" byte_order="LittleEndian" header_type="UInt32">
<UnstructuredGrid><Piece NumberOfPoints="4" NumberOfCells="1">
<Points><DataArray type="Float32" Name="Points" NumberOfComponents="3" format="ascii">
0 0 0 1 0 0 0 1 0 0 0 1</DataArray></Points>
<Cells><DataArray type="Int64" Name="connectivity" format="ascii">0 1 2 3</DataArray>
<DataArray type="Int64" Name="offsets" format="ascii">4</DataArray>
<DataArray type="UInt8" Name="types" format="ascii">10</DataArray></Cells>
<CellData><DataArray type="Int32" Name="part" format="ascii">7</DataArray></CellData>
<PointData><DataArray type="Float32" Name="phi" format="binary">EAAAAAAAAAAAAIA/AAAAQAAAQEA=
</DataArray></PointData></Piece></UnstructuredGrid></VTKFile>
"""

NASTY = [
    b"-1", b"0", b"1e999", b"-1e308", b"nan", b"inf", b"99999999999999999999", b"2147483648",
    b"4294967295", b"9223372036854775807", b"-9223372036854775808", b"1e-320", b"0x7fffffff",
    b"\x00", b"\xff\xfe", b"\x1b[31m", b"\r", b"\n", b"\n\n", b'"', b"'", b"'''", b"[", b"]", b"{",
    b"}", b"(", b"((((((((", b"))))", b"<", b">", b"&lt;", b"&#0;", b"<!DOCTYPE x>", b"*", b"**",
    b"*INCLUDE, INPUT=deck.inp\n", b"*NSET, NSET=A, GENERATE\n1, 999999999, 1\n", b"$End", b"$",
    b"$Nodes\n", b"SystemCall \"touch owned\";\n", b"Merge \"x\";", b"For i In {0:9}\n",
    b"EndFor\n", b"9**9**9", b"x if x else y", b"not ", b"[[load_case]]\n", b"a.b.c.d=1\n",
    b"..", b"/etc/passwd", b"/dev/zero", b"true", b"1979-05-27", b"\xe2\x80\xae", b"#", b"//",
    b"/*", b";",
]  # fmt: skip
_NUMBER = re.compile(rb"[-+]?[0-9][0-9.eE+-]*")


def seeds() -> dict[str, list[bytes]]:
    """Sound files to damage, by their endings."""
    found = {
        ".toml": [
            *3 * [CASES.encode()],
            *(p.read_bytes() for p in sorted(EXAMPLES.glob("*.toml"))),
        ],
        ".inp": [DECK.encode(), *3 * [(DECK + CONDITIONS).encode()]],
        ".msh": [MESH.encode(), NEWER_MESH.encode()],
        ".vtu": [GRID.encode()],
        ".step": [(EXAMPLES / "bracket.step").read_bytes()],
        ".geo": [p.read_bytes() for p in sorted(EXAMPLES.glob("*.geo"))],
    }
    assert set(found) == {*SLOW, *QUICK}
    return found


def damaged(data: bytes, chance: random.Random, others: list[bytes]) -> bytes:
    """The bytes with a few faults: of bits, numbers, words, lines and nesting."""
    for _ in range(chance.choice((1, 1, 2, 3, 8))):
        place = chance.randrange(len(data) + 1)
        end = min(len(data), place + chance.choice((1, 1, 4, 20, 200)))
        match chance.randrange(9):
            case 0:
                flipped = bytes(b ^ (1 << chance.randrange(8)) for b in data[place:end])
                data = data[:place] + flipped + data[end:]
            case 1:
                data = data[:place] + data[end:]
            case 2 | 3:
                data = data[:place] + chance.choice(NASTY) + data[place:]
            case 4 | 5:
                if numbers := list(_NUMBER.finditer(data)):
                    one = chance.choice(numbers)
                    data = data[: one.start()] + chance.choice(NASTY[:13]) + data[one.end() :]
            case 6:
                data = data[:place] + data[place:end] * chance.choice((2, 10, 300)) + data[end:]
            case 7:
                other = chance.choice(others)
                start = chance.randrange(len(other) + 1)
                data = data[:place] + other[start : start + 100] + data[end:]
            case _:
                data = data[:place]
    return data


class LateError(Exception):
    """An input takes more time than any may."""


def judge(folder: Path, ending: str, data: bytes) -> str:
    """How one input ends: "model", "part" or the kind of refusal."""
    place = folder / f"{'deck' if ending == '.inp' else 'part'}{ending}"
    place.write_bytes(data)
    try:
        if ending == ".toml":
            cases = read_cases(place)
            build_model(make_mesh(sound_part()), cases)
        elif ending == ".inp":
            part = read_inp(place, str(place), conditions=True)
            mesh = make_mesh(part)
            (folder / "import.toml").write_text(case_of(part, str(place), place.name)[0])
            build_model(mesh, read_cases(folder / "import.toml"))
        else:
            if ending == ".vtu":
                check_counts(place, str(place))
            build(place, folder / "cases.toml")
    except CaseFileError:
        return "mistakes in the case file"
    except DeckError:
        return "mistakes in the deck"
    except PartError as error:
        text = str(error)
        for words in ("its reader broke down", "can't be read: ", "more memory", "longer than"):
            if words in text:
                return f"refused: {words.strip(': ')}"
        return "refused"
    return "model"


def sound_part() -> Part:
    """What the damaged case files are put on."""
    points = np.array(((0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1), (1, 1, 1)), float)
    rows = np.array(((1, 2, 3, 4), (2, 3, 5, 4)))
    return Part(np.arange(1, 6), points, [(TET4, np.array((1, 2)), rows)])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--inputs", type=int, default=sys.maxsize)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--kinds", nargs="*", default=[*QUICK, *SLOW])
    parser.add_argument("--keep", type=Path, help="folder for inputs that are findings")
    wanted = parser.parse_args()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    warnings.simplefilter("error")
    signal.signal(signal.SIGALRM, _late)
    with tempfile.TemporaryDirectory(prefix="fuzz-") as name:
        return _run(wanted, Path(name))


def _late(number: int, frame: FrameType | None) -> None:
    raise LateError


def _run(wanted: argparse.Namespace, folder: Path) -> int:
    (folder / "cases.toml").write_text(CASES)
    (folder / "other.inc").write_text("*NSET, NSET=OTHER\n1, 2\n")
    chance = random.Random(wanted.seed)
    sound = seeds()
    others = [data for kind in sound.values() for data in kind]
    ends: Counter[tuple[str, str]] = Counter()
    findings = 0
    until = time.monotonic() + wanted.seconds
    while sum(ends.values()) < wanted.inputs and time.monotonic() < until:
        ending = chance.choice(wanted.kinds)
        data = damaged(chance.choice(sound[ending]), chance, others)
        signal.alarm(PATIENCE)
        try:
            end = judge(folder, ending, data)
        except Exception:
            findings += 1
            end = "FINDING"
            print(traceback.format_exc(), file=sys.stderr)
            if wanted.keep:
                wanted.keep.mkdir(exist_ok=True)
                (wanted.keep / f"{findings:04d}{ending}").write_bytes(data)
        finally:
            signal.alarm(0)
        ends[ending, end] += 1
        if extra := {p.name for p in folder.iterdir()} - _given():
            raise SystemExit(f"an input wrote {extra}")
    for (ending, end), count in sorted(ends.items()):
        print(f"{ending:6} {count:8} {end}")
    print(f"{sum(ends.values())} inputs, {findings} findings")
    return 1 if findings else 0


def _given() -> set[str]:
    parts = {f"{'deck' if kind == '.inp' else 'part'}{kind}" for kind in (*QUICK, *SLOW)}
    return {"cases.toml", "other.inc", "import.toml", *parts}


if __name__ == "__main__":
    os.environ.setdefault("OMP_NUM_THREADS", "1")
    sys.exit(main())
