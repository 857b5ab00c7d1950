"""`vkctl import`: the same deck solved by CalculiX and through the case file made of it."""

from __future__ import annotations

import math
import re
import shutil
import subprocess
import tomllib
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from new_parts import case_file, problems, solve
from typer.testing import CliRunner

from vkctl.ask.answers import Wanted, answer
from vkctl.ask.study import open_study, solutions
from vkctl.cli import app
from vkctl.directory.model import set_flags
from vkctl.directory.results import read_results
from vkctl.prepare import PartError, build, new, read_cases
from vkctl.prepare.deck import DeckError, Imported, import_deck
from vkctl.shapes.boxes import box
from vkctl.shapes.topology import HEX8, TET4, TET10
from vkctl.stress.forces import internal_forces
from vkctl.stress.solution import Solution

TYPES = {"tet4": (TET4, "C3D4"), "tet10": (TET10, "C3D10"), "hex8": (HEX8, "C3D8")}
# What material without a level field lacks of its stiffness at the largest slope, by which forces
# move it further and displacements need less force; and what single precision of the files leaves,
# since runs are repeated: the first ends with a residual of 1e-5.
SOFT = (1 - 0.001) * math.atan(1 / 10000.0) / math.pi
ROUNDING = 2e-6
CLOSE = SOFT + ROUNDING
PRINTED = 5e-7  # of a number of seven digits
needs_ccx = pytest.mark.skipif(shutil.which("ccx") is None, reason="CalculiX isn't installed")


def mesh_lines(kind: str) -> str:
    """A box of 4 x 2 x 1 whose labels begin at 11, with sets of its ends and its upper half."""
    made = box(kind, (4, 2, 2), (4, 2, 1))  # type: ignore[arg-type]
    code, name = TYPES[kind]
    numbers, table = made.elements.of_type(code)
    lines = ["*NODE, NSET=NALL"]
    lines += [f"{n}, {x!r}, {y!r}, {z!r}" for n, (x, y, z) in enumerate(made.nodes.tolist(), 11)]
    lines.append(f"*ELEMENT, TYPE={name}, ELSET=EALL")
    lines += [
        f"{n}, {', '.join(map(str, row + 10))}" for n, row in zip(numbers, table, strict=True)
    ]
    for side in ("x-", "x+", "z+"):
        labels = made.face(side) + 10
        lines.append(f"*NSET, NSET={ {'x-': 'LEFT', 'x+': 'RIGHT', 'z+': 'TOP'}[side] }")
        lines += [f"{n}," for n in labels]
    centres = made.nodes[table - 1].mean(axis=1)
    lines.append("*ELSET, ELSET=UPPER")
    lines += [f"{n}," for n in numbers[centres[:, 2] > 0.5]]
    lines.append("*ELSET, ELSET=LOWER")
    lines += [f"{n}," for n in numbers[centres[:, 2] <= 0.5]]
    lines += ["*SURFACE, NAME=OVER", *_surface(made, code, numbers, table)]
    return "\n".join(lines) + "\n"


def _surface(made: object, code: int, numbers: np.ndarray, table: np.ndarray) -> list[str]:
    """Lines of the sides of elements whose corners all lie at z = 1."""
    from vkctl.shapes.topology import FACES

    high = made.nodes[:, 2] > 1 - 1e-6  # type: ignore[attr-defined]
    corners = 4 if code == HEX8 else 3
    return [
        f"{number}, S{side}"
        for number, row in zip(numbers, table, strict=True)
        for side, face in enumerate(FACES[code], 1)
        if high[row[face[:corners]] - 1].all()
    ]


STEEL = """*MATERIAL, NAME=STEEL
*ELASTIC
210000., .3
*DENSITY
7.85e-6
*EXPANSION, ZERO=20.
1.2D-5
*SOLID SECTION, ELSET=EALL, MATERIAL=STEEL
"""
PRINT = "*NODE PRINT, NSET=NALL\nU\n"


def by_ccx(deck: Path) -> dict[int, dict[int, list[float]]]:
    """Displacements of each node by step."""
    done = subprocess.run(
        ["ccx", deck.stem], cwd=deck.parent, capture_output=True, text=True, timeout=300
    )
    assert "*ERROR" not in done.stdout, done.stdout
    found: dict[int, dict[int, list[float]]] = {}
    step: dict[int, list[float]] = {}
    for line in deck.with_suffix(".dat").read_text().split("\n"):
        if match := re.match(r" displacements .* time\s+(\S+)", line):
            step = found.setdefault(round(float(match[1])), {})
        elif line.startswith(" total"):
            step = {}
        elif len(words := line.split()) == 4:
            step[int(words[0])] = [float(word) for word in words[1:4]]
    return found


def by_import(deck: Path) -> tuple[Imported, list[dict[int, np.ndarray]]]:
    """What was told, and the displacements by label of each load case."""
    cases = deck.with_suffix(".toml")
    told = import_deck(deck, cases)
    with open(cases, "a", encoding="utf-8") as stream:
        stream.write("Sys.ComputationMode = 2\n")
    made = new(None, cases, deck.with_suffix(".run"))
    assert made.directory is not None
    solve(made.directory)
    set_flags(made.directory, clear_done=True)
    solve(made.directory)
    results = []
    for number in range(1, len(made.model.load_cases) + 1):
        moved = np.asarray(read_results(made.directory, number).displacements, float)
        results.append(dict(zip(made.mesh.node_labels.tolist(), moved, strict=True)))
    return told, results


def gaps(deck: Path) -> tuple[Imported, list[float]]:
    """Largest difference of a component over the largest displacement, by step."""
    told, ours = by_import(deck)
    theirs = by_ccx(deck)
    assert len(theirs) == len(ours)
    found = []
    for number, step in enumerate(ours, 1):
        a = np.array([step[label] for label in sorted(step)])
        b = np.array([theirs[number][label] for label in sorted(step)])
        found.append(float(np.abs(a - b).max() / np.abs(b).max()))
    return told, found


def deck_of(folder: Path, kind: str, text: str) -> Path:
    path = folder / "deck.inp"
    path.write_text(mesh_lines(kind) + text)
    return path


STEPS = f"""*BOUNDARY
LEFT, 1, 3
*INITIAL CONDITIONS, TYPE=TEMPERATURE
NALL, 20.
*STEP
*STATIC
*CLOAD
RIGHT, 2, -3.
RIGHT, 3, 1.
11, 1, 5.
*DSLOAD
OVER, P, 2.5
{PRINT}*END STEP
** the forces go on, the pressure is another one, and there is weight
*STEP
*STATIC
*CLOAD
RIGHT, 2, 7.
*DSLOAD
OVER, P, -1.
*DLOAD
UPPER, GRAV, 9810., 0., 0., -2.
{PRINT}*END STEP
*STEP
*STATIC
*CLOAD, OP=NEW
*DLOAD, OP=NEW
EALL, GRAV, 9810., 1., 0., 0.
*TEMPERATURE
NALL, 120.
{PRINT}*END STEP
*STEP
*STATIC
*BOUNDARY
RIGHT, 1, 1, 0.01
TOP, 3
*BOUNDARY
TOP, 3, 3, 0.002
{PRINT}*END STEP
*STEP
*STATIC
*BOUNDARY, OP=NEW
RIGHT, 1, 3
LEFT, 1, , -0.003
{PRINT}*END STEP
"""


@needs_ccx
@pytest.mark.parametrize("kind", TYPES)
def test_a_deck_of_several_steps_gives_what_calculix_gives(kind: str, tmp_path: Path) -> None:
    told, found = gaps(deck_of(tmp_path, kind, STEEL + STEPS))
    assert max(found) < CLOSE, found
    assert told.untaken == []
    assert told.counts["load case"] == 5


SIDES = f"""*BOUNDARY
LEFT, 1
*BOUNDARY
LEFT, 2, 3
*STEP
*STATIC
*DLOAD
{{group}}, P{{side}}, 3.
{{element}}, P{{side}}, 4.
{{element}}, P{{side}}, 4.
{PRINT}*END STEP
*STEP
*STATIC
*DLOAD
{{element}}, P{{side}}, 11.
{PRINT}*END STEP
"""


@needs_ccx
@pytest.mark.parametrize(("kind", "element", "side"), [("tet4", 7, 2), ("hex8", 16, 2)])
def test_pressures_on_sides_add_up_in_a_step_and_replace_those_before(
    kind: str, element: int, side: int, tmp_path: Path
) -> None:
    if kind == "tet4":  # an element with a side at the top
        deck = deck_of(tmp_path, kind, "")
        line = next(x for x in reversed(deck.read_text().split("\n")) if ", S" in x)
        element, side = int(line.split(",")[0]), int(line[-1])
    group = f"*ELSET, ELSET=ONE\n{element}\n"
    text = SIDES.format(group="ONE", element=element, side=side)
    told, found = gaps(deck_of(tmp_path, kind, STEEL + group + text))
    assert max(found) < CLOSE, found
    assert told.untaken == []


WOOD = """*MATERIAL, NAME=WOOD
*ELASTIC, TYPE=ENGINEERING CONSTANTS
11000., 900., 500., .35, .4, .3, 700., 650.
60.
*EXPANSION, TYPE=ORTHO
4e-6, 3e-5, 4e-5
*MATERIAL, NAME=STEEL
*ELASTIC
210000., .3
*ORIENTATION, NAME=UP
0., 0., 1., 1., 0., 0.
*SOLID SECTION, ELSET=UPPER, MATERIAL=WOOD, ORIENTATION=UP
*SOLID SECTION, ELSET=LOWER, MATERIAL=WOOD
"""
SPRINGS = f"""*ELEMENT, TYPE=SPRING1, ELSET=SPRINGS
901, 20
902, 20
903, 25
*SPRING, ELSET=SPRINGS
3
400.
*TRANSFORM, NSET=RIGHT, TYPE=R
0., 1., 0., -1., 0., 0.
*INITIAL CONDITIONS, TYPE=TEMPERATURE
NALL, 0.
*BOUNDARY
LEFT, 1, 3
*STEP
*STATIC
*CLOAD
RIGHT, 1, 1.
20, 3, -2.
{PRINT}*END STEP
*STEP
*STATIC
*BOUNDARY
RIGHT, 2, 2, .001
{PRINT}*END STEP
*STEP
*STATIC
*TEMPERATURE
NALL, 30.
{PRINT}*END STEP
"""


@needs_ccx
@pytest.mark.parametrize("kind", ["tet10", "hex8"])
def test_orthotropic_materials_springs_and_turned_nodes_are_taken(
    kind: str, tmp_path: Path
) -> None:
    deck = deck_of(tmp_path, kind, WOOD + SPRINGS)
    deck.write_text(
        deck.read_text().replace("NODE PRINT, NSET=NALL", "NODE PRINT, GLOBAL=YES, NSET=NALL")
    )
    told, found = gaps(deck)
    assert max(found) < CLOSE, found
    assert told.untaken == []


@needs_ccx
@pytest.mark.parametrize("kind", TYPES)
def test_reactions_are_those_of_calculix(kind: str, tmp_path: Path) -> None:
    text = """*BOUNDARY
LEFT, 1, 3
*STEP
*STATIC
*CLOAD
RIGHT, 1, 10.
RIGHT, 3, -4.
*NODE PRINT, NSET=LEFT, TOTALS=ONLY
RF
*END STEP
*STEP
*STATIC
*CLOAD, OP=NEW
*BOUNDARY
RIGHT, 3, 3, .01
*NODE PRINT, NSET=LEFT, TOTALS=ONLY
RF
*END STEP
"""
    deck = deck_of(tmp_path, kind, STEEL + text)
    by_import(deck)
    by_ccx(deck)
    run = deck.with_suffix(".run")
    told = answer(run, "reactions", Wanted()).values["reactions"]
    printed = deck.with_suffix(".dat").read_text().split("total force")[1:]
    for case, ours, theirs in zip(solutions(open_study(run)), told, printed, strict=True):
        left = next(one for one in ours["supports"] if one["set"] in ("", "LEFT"))
        expected = np.array([float(w) for w in theirs.split("\n")[2].split()])
        # Forces that are given have to be held, whatever the stiffness.
        part = PRINTED if case.number == 1 else SOFT + PRINTED
        close = part * np.abs(expected).max() + rounding_at_clamp(case.solution)
        assert (np.abs(left["resultant"]["force"] - expected) < close).all()


def rounding_at_clamp(solution: Solution) -> np.ndarray:
    """By how much the sum of the forces at x = 0 can be off, by component, (3,).

    Each displacement is rounded to single precision, which counts as often as the sum of the
    stiffness's entries between it and the clamp: its force where the clamp alone moves by one.
    """
    bounds = np.empty(3)
    for k in range(3):
        shift = np.zeros(solution.displacements.shape)
        shift[solution.nodes[:, 0] < 1e-9, k] = 1.0
        forces = internal_forces(replace(solution, displacements=shift))
        bounds[k] = 2.0**-24 * np.abs(forces * solution.displacements).sum()
    return bounds


def boundary(*lines: str) -> str:
    return "\n".join(("*BOUNDARY", "LEFT, 1, 3", *lines)) + "\n"


@pytest.mark.parametrize(
    ("lines", "words"),
    [
        ("*BOUNDARY\nLEFT, one", "'LEFT, one' below *BOUNDARY isn't NODE, FIRST DIRECTION, LAST"),
        ("*BOUNDARY\nLEFT, 3, 1", "'LEFT, 3, 1' below *BOUNDARY isn't NODE, FIRST DIRECTION"),
        ("*BOUNDARY\nLEFT, 1, 2, x", "'LEFT, 1, 2, x' below *BOUNDARY isn't NODE"),
        ("*BOUNDARY\nRIGTH, 1", "'RIGTH' is neither a node nor a node set of the deck"),
        ("*CLOAD\n5000, 1, 2.", "'5000' is neither a node nor a node set of the deck"),
        ("*CLOAD\nLEFT, 1", "'LEFT, 1' below *CLOAD isn't NODE, DIRECTION, FORCE"),
        ("*CLOAD\nLEFT, 1, nan", "'LEFT, 1, nan' below *CLOAD isn't NODE, DIRECTION, FORCE"),
        ("*DLOAD\nEALL, P2, high", "'high' below *DLOAD isn't a pressure"),
        ("*DLOAD\nEAL, P2, 1.", "'EAL:P2' of *DLOAD has no side of a solid of the deck"),
        ("*DLOAD\nEALL, GRAV, 9.81", "'EALL, GRAV, 9.81' below *DLOAD isn't ELEMENTS, GRAV, g"),
        ("*DLOAD\nEAL, GRAV, 9.81, 0, 0, 1", "'EAL' is neither a solid element nor a set"),
        ("*DSLOAD\nUNDER, P, 1.", "'UNDER' is no surface of solids of the deck"),
        ("*DSLOAD\nOVER, P", "'OVER, P' below *DSLOAD isn't SURFACE, P, PRESSURE"),
        ("*TEMPERATURE\nLEFT", "'LEFT' below *TEMPERATURE isn't NODE, TEMPERATURE"),
        ("*MATERIAL, NAME=A\n*ELASTIC\n1., a", "'1., a' below *ELASTIC isn't numbers"),
        ("*MATERIAL, NAME=A\n*ELASTIC\n1.", "*ELASTIC has 1 numbers, it needs 2"),
        ("*MATERIAL, NAME=A\n*ELASTIC\n0., .3", "*ELASTIC holds a modulus that isn't above 0"),
        ("*TRANSFORM, NSET=LEFT\n1, 2", "'1, 2' below *TRANSFORM isn't six coordinates"),
        ("*TRANSFORM, NSET=LFT\n1,0,0,0,1,0", "*TRANSFORM names 'LFT', which is no node set"),
    ],
)
def test_a_line_that_makes_no_sense_is_told_and_nothing_is_written(
    lines: str, words: str, tmp_path: Path
) -> None:
    deck = deck_of(tmp_path, "hex8", STEEL + boundary() + "** a remark\n" + lines + "\n")
    last = deck.read_text().count("\n")
    with pytest.raises(DeckError) as caught:
        import_deck(deck, tmp_path / "cases.toml")
    (told,) = str(caught.value).split("\n")
    line = last - 1 if words.startswith(("*ELASTIC", "*TRANSFORM")) else last
    assert told.startswith(f"{deck}:{line}: {words}")
    assert not (tmp_path / "cases.toml").exists()


def test_the_direction_of_weight_may_have_any_length(tmp_path: Path) -> None:
    weight = "*STEP\n*STATIC\n*DLOAD\nEALL, GRAV, 9.81, 0, 0, -1e-200\n*END STEP\n"
    deck = deck_of(tmp_path, "hex8", STEEL + boundary() + weight)
    import_deck(deck, tmp_path / "cases.toml")
    loads = tomllib.loads((tmp_path / "cases.toml").read_text())["loads"]
    assert [load["value"] for load in loads.values()] == [[0.0, 0.0, -9.81]]


def test_the_command_tells_mistakes_with_their_lines_in_included_files_too(tmp_path: Path) -> None:
    deck = deck_of(tmp_path, "hex8", "*INCLUDE, INPUT=more/loads.inc\n")
    (tmp_path / "more").mkdir()
    (tmp_path / "more/loads.inc").write_text("**\n*CLOAD\n** two\nLEFT, 1, a\n")
    done = CliRunner().invoke(app, ["import", str(deck), str(tmp_path / "cases.toml")])
    assert done.exit_code == 2
    assert f"{tmp_path}/more/loads.inc:4: 'LEFT, 1, a' below *CLOAD isn't" in done.output


UNTAKEN = """*STEP, NLGEOM
*STATIC
*CLOAD, AMPLITUDE=RAMP
RIGHT, 3, -1.
RIGHT, 5, 2.
*DLOAD
EALL, CENTRIF, 1., 0., 0., 0., 1., 0., 0.
*TIE, NAME=T
A, B
*NODE FILE
U
*END STEP
*STEP
*FREQUENCY
5
*CLOAD
RIGHT, 1, 9.
*END STEP
*STEP
*STATIC
*END STEP
"""


def test_what_is_not_taken_is_told_by_line(tmp_path: Path) -> None:
    deck = deck_of(tmp_path, "hex8", STEEL + boundary() + UNTAKEN)
    lines = deck.read_text().split("\n")
    told = import_deck(deck, tmp_path / "cases.toml")

    def at(line: str) -> str:
        return f"{deck}:{lines.index(line) + 1}: "

    assert told.untaken == [
        at("*STEP, NLGEOM") + "*STEP, NLGEOM isn't taken: the step is linear",
        at("*CLOAD, AMPLITUDE=RAMP")
        + "AMPLITUDE of *CLOAD isn't taken: what it says counts in full",
        at("RIGHT, 5, 2.") + "load in direction 5 of RIGHT isn't taken: just 1 to 3 are",
        at("EALL, CENTRIF, 1., 0., 0., 0., 1., 0., 0.") + "*DLOAD of type CENTRIF isn't taken",
        at("*TIE, NAME=T") + "*TIE isn't taken: the solver has no equations between nodes",
        f"{deck}:{len(lines) - 4}: step 2 isn't taken: its *FREQUENCY isn't a static analysis",
    ]
    assert told.outputs == ["*NODEFILE"]
    cases = read_cases(tmp_path / "cases.toml")
    assert [(c.name, len(c.loads)) for c in cases.load_cases] == [("step 1", 1), ("step 3", 1)]


def test_a_case_file_that_is_there_stays_as_it_is(tmp_path: Path) -> None:
    deck = deck_of(tmp_path, "hex8", STEEL + boundary())
    (tmp_path / "cases.toml").write_text("mine")
    done = CliRunner().invoke(app, ["import", str(deck), str(tmp_path / "cases.toml")])
    assert done.exit_code == 2 and "is there already" in done.output
    assert (tmp_path / "cases.toml").read_text() == "mine"
    with pytest.raises(PartError, match="isn't a deck"):
        import_deck(tmp_path / "part.msh", tmp_path / "other.toml")


def test_forces_of_many_nodes_and_values_come_node_by_node(tmp_path: Path) -> None:
    forces = "\n".join(f"{n}, 3, {n}.5" for n in range(20, 50))
    temperatures = "\n".join(f"{n}, {n}." for n in range(20, 50))
    text = f"*STEP\n*STATIC\n*CLOAD\n{forces}\n*TEMPERATURE\n{temperatures}\n*END STEP\n"
    deck = deck_of(tmp_path, "tet10", STEEL + boundary() + text)
    cases = tmp_path / "cases.toml"
    import_deck(deck, cases)
    made = build(None, cases)
    (case,) = made.model.load_cases
    labels = made.mesh.node_labels
    found = dict(zip(labels[case.forces2["Node"] - 1], case.forces2["Force"][:, 2], strict=True))
    assert found == {n: n + 0.5 for n in range(20, 50)}
    heat = dict(zip(labels[case.scalars["Node"] - 1], case.scalars["Value"], strict=True))
    assert heat == {n: float(n) for n in range(20, 50)}
    assert len(read_cases(cases).loads) == 2


def test_labels_and_values_that_do_not_fit_are_mistakes(tmp_path: Path) -> None:
    deck = deck_of(tmp_path, "hex8", "")
    text = """[materials.a]
E = 1
nu = 0
[node_sets.some]
labels = [11, 9000]
[supports.s]
set = "some"
[loads.f]
type = "force"
labels = [11, 9001]
values = [[1, 2, 3], [1, 2, 3]]
"""
    found = problems(lambda: build(deck, case_file(tmp_path, text, "")))
    words = "of the part have the labels"
    unused = "nodes without a solid element aren't among them"
    assert found == [
        (5, f"no nodes {words} 9000; {unused}"),
        (10, f"no nodes {words} 9001; {unused}"),
    ]
    text = text.replace(", 9000", ', "x"').replace("[1, 2, 3]]", "[1, 2]]")
    text += '[loads.t]\ntype = "temperature"\nlabels = [11, 11]\nvalues = [1]\n'
    found = problems(lambda: build(deck, case_file(tmp_path, text, "")))
    assert [line for line, _ in found] == [5, 11, 14, 15]
    assert "must be a list of whole numbers from 1 on" in found[0][1]
    assert "name a node twice" in found[2][1] and "are 1 for 2 labels" in found[3][1]
