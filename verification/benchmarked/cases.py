"""The parts: what is optimised, under which wishes and limits, and what is known of it."""

from __future__ import annotations

from dataclasses import dataclass

DENSITY = "density"  # names of the density method's designs: without wishes,
PRINTED = "density-printed"  # and with an overhang, on a grid


@dataclass(frozen=True)
class Design:
    """One optimisation of a case. `{volume}` in its settings is that of the case's first design."""

    name: str
    title: str
    settings: str  # the table [optimise], without its head
    like: str | None = DENSITY  # the density method's design that has the same wishes and limits


@dataclass(frozen=True)
class Case:
    """A part with its designs. `geometry` and `cases` are texts, or names of files of examples."""

    name: str
    title: str
    text: str
    geometry: str
    cases: str
    designs: tuple[Design, ...]
    finer: tuple[int, int, int]  # edges of the finer mesh in one of the loop's, along x, y, z
    density_steps: int = 200
    build: tuple[float, float, float] | None = None  # direction of a print, to look for overhangs
    drawn: int | None = None  # axis that moulds are drawn along, from the part's middle
    stress: tuple[tuple[str, ...], float] | None = None  # away from the nodes of sets, by a length
    direction: tuple[float, float, float] | None = None  # pictures are seen from
    known: str = ""

    @property
    def densities(self) -> tuple[str, ...]:
        """Names of the density method's designs, those that are like one of the loop's first."""
        found = [one.like for one in self.designs if one.like is not None]
        return tuple(dict.fromkeys([*found, DENSITY]))


def box(nx: int, ny: int, nz: int) -> str:
    """Gmsh script of a box of unit cubes."""
    return f"""Point(1) = {{0, 0, 0}};
line[] = Extrude {{{nx}, 0, 0}} {{ Point{{1}}; Layers{{{nx}}}; }};
face[] = Extrude {{0, {ny}, 0}} {{ Curve{{line[1]}}; Layers{{{ny}}}; Recombine; }};
body[] = Extrude {{0, 0, {nz}}} {{ Surface{{face[1]}}; Layers{{{nz}}}; Recombine; }};
Physical Volume("body") = {{body[1]}};
"""


_UNIT = """part = "part.geo"

[mesh]
order = 1

[materials.unit]
E = 1.0
nu = 0.3
"""

_BEAM = """
[node_sets.middle]
where = "x < 0.01"

[node_sets.symmetric]
where = "z < 0.01"

[face_sets.loaded]
where = "y > 9.99 and x < 2.01"

[face_sets.foot]
where = "y < 0.01 and x > 27.99"

[supports.middle]
set = "middle"
directions = "x"

[supports.symmetric]
set = "symmetric"
directions = "z"

[supports.foot]
set = "foot"
directions = "y"

[loads.middle]
type = "force"
set = "loaded"
value = [0, -1, 0]
"""

_CANTILEVER = """
[node_sets.wall]
where = "x < 0.01"

[node_sets.symmetric]
where = "z < 0.01"

[face_sets.end]
where = "x > 23.99 and y < 3.01"

[supports.wall]
set = "wall"

[supports.symmetric]
set = "symmetric"
directions = "z"

[loads.end]
type = "force"
set = "end"
value = [0, -1, 0]
"""

_BRIDGE = """
[face_sets.abutment]
where = "y < 0.01 and x < 4.01"

[node_sets.symmetric]
where = "x > 39.99"

[face_sets.deck]
where = "y > 19.99"

[supports.abutment]
set = "abutment"

[supports.symmetric]
set = "symmetric"
directions = "x"

[loads.traffic]
type = "force"
set = "deck"
value = [0, -1, 0]
"""

CASES = (
    Case(
        "mbb-beam",
        "MBB beam, one cell thick",
        "The right half of a beam on two supports with a force in its middle, the example "
        "`mbb-beam`: 60 x 20 x 1 hexahedra of size 1, half of the volume.",
        "mbb-beam.geo",
        "mbb-beam.toml",
        (Design("loop", "this loop", 'volume = 0.5\nkeep = ["loaded", "foot"]'),),
        (6, 6, 1),
        known="216.81 is published for the density method with the radius 2.4 in plane stress on "
        "this mesh (E. Andreassen, A. Clausen, M. Schevenels, B. S. Lazarov, O. Sigmund, Struct. "
        "Multidisc. Optim. 43 (2011) 1-16), with its grey elements; ours in two dimensions, with "
        "this radius: {flat}.",
    ),
    Case(
        "cantilever",
        "Cantilever, one cell thick",
        "Clamped at the left, a force at the lower right corner, the example `cantilever`: "
        "32 x 20 x 1 hexahedra of size 1, 40 % of the volume.",
        "cantilever.geo",
        "cantilever.toml",
        (Design("loop", "this loop", 'volume = 0.4\nkeep = ["tip"]'),),
        (6, 6, 1),
    ),
    Case(
        "mbb-beam-3d",
        "MBB beam in three dimensions",
        "A quarter of a beam of 60 x 10 x 10 on two supports, cut in its middle and along it: "
        "30 x 10 x 5 hexahedra of size 1. The force is spread over 2 at the top of the middle, the "
        "support over 2 at the end; 25 % of the volume.",
        box(30, 10, 5),
        _UNIT + _BEAM,
        (Design("loop", "this loop", 'volume = 0.25\nkeep = ["loaded", "foot"]'),),
        (3, 3, 3),
        density_steps=100,
        direction=(0.5, 0.5, 1.0),
    ),
    Case(
        "cantilever-3d",
        "Cantilever in three dimensions",
        "Clamped at one end, a force over the lowest quarter of the other: a box of 24 x 12 x 12, "
        "of which one half is meshed in 24 x 12 x 6 hexahedra of size 1; 30 % of the volume.",
        box(24, 12, 6),
        _UNIT + _CANTILEVER,
        (Design("loop", "this loop", 'volume = 0.3\nkeep = ["end"]'),),
        (3, 3, 3),
        density_steps=100,
        direction=(0.6, 0.5, -1.0),
    ),
    Case(
        "l-bracket",
        "L-bracket with a stress limit",
        "Hung up at the top, loaded at the end of its arm, the example `l-bracket-stress`: 2048 "
        "hexahedra of 2.5 mm. First the least mass inside of a von Mises stress of 50 MPa, further "
        "than 3.75 mm from seat and support, on the loop's mesh and as a body, for which material "
        "is added; then the stiffest part of the same volume.",
        "l-bracket.geo",
        "l-bracket-stress.toml",
        (
            Design(
                "stress",
                "least mass inside of the stress limit",
                'goal = "mass"\nsteps = 80\nbody_steps = 12\nkeep = ["seat"]\n[optimise.limits]\n'
                'stress = { at_most = 50.0, away_from = ["seat", "top"] }',
                like=None,
            ),
            Design("stiffest", "stiffest of this volume", 'volume = {volume}\nkeep = ["seat"]'),
        ),
        (4, 4, 1),
        density_steps=120,
        stress=(("seat", "top"), 3.75),
    ),
    Case(
        "bridge",
        "Bridge that is printed",
        "The left half of a bridge of 80 x 20 with a load all along its deck, held at the foot of "
        "its abutment: 40 x 20 x 1 hexahedra of size 1, 40 % of the volume. Printed upwards from "
        "its lower edge, with an overhang of 45 degrees at most. The deck, 1 thick, is to keep: it "
        "is there whatever holds it, and what hangs over is counted away from it.",
        box(40, 20, 1),
        _UNIT + _BRIDGE,
        (
            Design(
                "printed",
                "this loop, overhang of 45 degrees",
                'volume = 0.4\nkeep = ["deck"]\nthickness = { deck = 1.0 }\n'
                "overhang = { direction = [0, 1, 0], angle = 45 }",
                like=PRINTED,
            ),
            Design(
                "free",
                "this loop, without the wish",
                'volume = 0.4\nkeep = ["deck"]\nthickness = { deck = 1.0 }',
            ),
        ),
        (6, 6, 1),
        build=(0.0, 1.0, 0.0),
    ),
    Case(
        "bracket",
        "Bracket, symmetric, to be cast",
        "The bracket of the tutorial under its three load cases: 4-node tetrahedra of 5 mm, 30 % "
        "of the volume. Both halves of its mould are drawn off across it, from the plane in its "
        "middle, and it is symmetric to that. Compliances are means by the weights of the load "
        "cases, 1, 1 and 0.5.",
        "bracket.geo",
        "bracket.toml",
        (
            Design(
                "cast",
                "this loop, symmetric and drawn",
                'volume = 0.3\nkeep = ["bolts", "pin"]\n'
                "symmetry = [{ point = [0, 30, 0], normal = [0, 1, 0] }]\n"
                "draw = { directions = [0, 1, 0], parting = [0, 30, 0] }\n"
                'weights = { up = 1.0, along = 1.0, "across and up" = 0.5 }',
                like=None,
            ),
            Design(
                "free",
                "this loop, without the wishes",
                'volume = 0.3\nkeep = ["bolts", "pin"]\n'
                'weights = { up = 1.0, along = 1.0, "across and up" = 0.5 }',
            ),
        ),
        (2, 2, 2),
        density_steps=80,
        drawn=1,
    ),
    Case(
        "printed-bracket",
        "Bracket of the tutorial, printed, with a stress limit",
        "The same bracket: the least mass inside of a stress limit, on the loop's mesh and as a "
        "body, printed upwards from its foot with an overhang of 45 degrees at most, as [the "
        "tutorial](tutorial.md) has it.",
        "bracket.geo",
        "bracket.toml",
        (
            Design(
                "printed",
                "this loop, overhang and stress limit",
                'goal = "mass"\nsteps = 40\nbody_steps = 12\nkeep = ["bolts", "pin"]\n'
                "overhang = { direction = [0, 0, 1], angle = 45 }\n[optimise.limits]\n"
                'stress = { at_most = 60.0, away_from = ["bolts"], distance = 8.0 }',
                like=None,
            ),
        ),
        (2, 2, 2),
        density_steps=80,
        build=(0.0, 0.0, 1.0),
        stress=(("bolts",), 8.0),
    ),
)
