"""The optimisation's whole loop, where its time goes, and a density method beside it.

    bench/optimise.py [--cells 48 24 24] [--steps 30] [--modes measured direct]
                      [--pictures] [--peer] [--turns 1]
    bench/optimise.py --goals

A cantilever of hexahedra, a force along the lower edge of its end, a volume of 0.3. Prints a line a
run: seconds of the whole command, what of it isn't the solver's, iterations, and the objective.
`--peer` installs pyMOTO in an environment of its own (.local/peers/pymoto) and has it take as many
steps of its optimality criteria on the same grid, solved as its authors' example of multigrid does:
conjugate gradients to a residual of 1e-5 behind multigrid of as many levels as the grid can be
halved without going below 8 cells, with its own defaults for cycle and smoothing. With the peer the
first mode and the peer run in turns, and a line ends with the ratio of their times.

`--goals` does what is promised: 90,000 and 300,000 equations beside the peer, 30 steps, in at most
0.7 and 0.6 of its time, and 300,000 equations, 60 steps, in 5 minutes.
"""

from __future__ import annotations

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

from vkctl.optimise import read_history

ROOT = Path(__file__).resolve().parents[1]
PEER = ROOT / ".local" / "peers" / "pymoto"
PEER_PIN = "pymoto==2.0.1"
VOLUME = 0.3
SMALL, LARGE = (48, 24, 24), (72, 36, 36)  # cells: 90,000 and 300,000 equations
GOALS = ((SMALL, 0.7), (LARGE, 0.6))  # ratios to the peer's time
LONG_STEPS, LONG_SECONDS = 60, 300.0

GEOMETRY = """
Point(1) = {{0, 0, 0}};
line[] = Extrude {{{nx}, 0, 0}} {{ Point{{1}}; Layers{{{nx}}}; }};
face[] = Extrude {{0, {ny}, 0}} {{ Curve{{line[1]}}; Layers{{{ny}}}; Recombine; }};
body[] = Extrude {{0, 0, {nz}}} {{ Surface{{face[1]}}; Layers{{{nz}}}; Recombine; }};
Physical Volume("body") = {{body[1]}};
"""
CASES = """
part = "box.geo"

[mesh]
order = 1

[materials.unit]
E = 1.0
nu = 0.3

[node_sets.wall]
plane = {{ point = [0, 0, 0], normal = [1, 0, 0] }}

[node_sets.tip]
where = "x > {nx} - 0.01 and z < 0.01"

[supports.wall]
set = "wall"

[loads.tip]
type = "force"
set = "tip"
value = [0, 0, -1]

[level]
value = 1.0

[optimise]
volume = {volume}
steps = {steps}
keep = ["tip"]
mode = "{mode}"
tolerance = 1e-12
"""

DENSITY_METHOD = """
import sys, time
import numpy as np
import pymoto as pym
from pymoto.solvers import CG, GeometricMultigrid

nx, ny, nz, steps, volume = *map(int, sys.argv[1:5]), float(sys.argv[5])
begun = time.monotonic()
grid = pym.VoxelDomain(nx, ny, nz)
levels = [GeometricMultigrid(grid)]
while all(n % 2 == 0 and n >= 8 for n in levels[-1].sub_domain.size):
    levels.append(GeometricMultigrid(levels[-1].sub_domain))
    levels[-2].inner_level = levels[-1]
wall = grid.nodes[0, :, :].flatten()
fixed = (wall[:, None] * 3 + np.arange(3)).flatten()
tip = grid.nodes[-1, :, 0].flatten()
force = np.zeros(3 * grid.nnodes)
force[3 * tip + 2] = -1.0 / len(tip)
densities = pym.Signal("x", state=np.full(grid.nel, volume))
solver = CG(preconditioner=levels[0], tol=1e-5)
with pym.Network() as network:
    smooth = pym.DensityFilter(grid, radius=1.5)(densities)
    moduli = pym.MathExpression("1e-6 + (1 - 1e-6) * inp0^3")(smooth)
    stiffness = pym.AssembleStiffness(grid, bc=fixed, e_modulus=1.0, poisson_ratio=0.3)(moduli)
    moved = pym.LinSolve(symmetric=True, positive_definite=True, solver=solver)(stiffness, force)
    work = pym.EinSum("i,i->")(moved, force)
pym.minimize_oc(densities, work, network, maxit=steps, tolx=0, tolf=0, move=0.2, verbosity=0)
print(time.monotonic() - begun, len(levels), float(work.state) / 2)
"""


@dataclass(frozen=True)
class Case:
    cells: tuple[int, int, int]
    steps: int
    pictures: bool = False


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cells", nargs=3, type=int, default=SMALL, metavar="N")
    parser.add_argument("--steps", type=int, default=30)
    modes = ("measured", "iterative", "direct")
    parser.add_argument("--modes", nargs="+", choices=modes, default=("measured", "direct"))
    parser.add_argument("--pictures", action="store_true", help="chart, series, animation as well")
    parser.add_argument("--peer", action="store_true", help="pyMOTO beside it")
    parser.add_argument("--turns", type=int, default=1, help="of ours and the peer's")
    parser.add_argument("--goals", action="store_true", help="what is promised, nothing else")
    wanted = parser.parse_args()
    if wanted.goals:
        return goals(wanted.turns)
    case = Case(tuple(wanted.cells), wanted.steps, wanted.pictures)
    if wanted.peer:
        beside(case, wanted.modes[0], wanted.turns)
        return 0
    for mode in wanted.modes:
        loop(case, mode)
    return 0


def goals(turns: int) -> int:
    """1 where one is missed."""
    met = []
    for cells, most in GOALS:
        ratio = beside(Case(cells, 30), "measured", turns)
        met.append(ratio <= most)
        say(f"goal {most}: {'met' if met[-1] else 'missed'}")
    seconds = loop(Case(LARGE, LONG_STEPS), "measured")
    met.append(seconds <= LONG_SECONDS)
    say(f"goal {LONG_SECONDS:.0f} s: {'met' if met[-1] else 'missed'}")
    return 0 if all(met) else 1


def beside(case: Case, mode: str, turns: int) -> float:
    """Ratio of ours to the peer's time, the median of the turns."""
    ratios = []
    for _ in range(turns):
        ours, theirs = loop(case, mode), peer(case)
        ratios.append(ours / theirs)
        say(f"ratio to the density method's time: {ratios[-1]:.2f}")
    return statistics.median(ratios)


def say(line: str) -> None:
    load = os.getloadavg()[0]
    print(f"{line} (load {load:.1f})", flush=True)


def loop(case: Case, mode: str) -> float:
    """Seconds of the whole command."""
    nx, ny, nz = case.cells
    with tempfile.TemporaryDirectory() as folder:
        Path(folder, "box.geo").write_text(GEOMETRY.format(nx=nx, ny=ny, nz=nz))
        cases = CASES.format(nx=nx, volume=VOLUME, steps=case.steps, mode=mode)
        Path(folder, "box.toml").write_text(cases)
        command = [sys.executable, "-m", "vkctl", "optimise", "box.toml", "work"]
        command += [] if case.pictures else ["--no-pictures"]
        begun = time.monotonic()
        subprocess.run(command, cwd=folder, check=True, stdout=subprocess.DEVNULL)
        seconds = time.monotonic() - begun
        rows = read_history(Path(folder, "work"))
    solving = sum(row.solving for row in rows)
    steps = sum(row.seconds for row in rows)
    iterations = sum(row.iterations for row in rows)
    factored = sum(row.mode == "direct" for row in rows)
    say(
        f"{nx} x {ny} x {nz}, {mode}: {seconds:.1f} s for {len(rows)} steps, "
        f"{1 - solving / seconds:.1%} not the solver's ({steps - solving:.1f} s in the steps, "
        f"{seconds - steps:.1f} s before and after), {factored} steps with a factor, "
        f"{iterations} iterations, objective {rows[-1].objective:.4g}"
    )
    return seconds


def peer(case: Case) -> float:
    """Seconds of the density method, its start included."""
    program = PEER / "bin" / "python"
    if not program.exists():
        subprocess.run([sys.executable, "-m", "venv", PEER], check=True)
        subprocess.run([program, "-m", "pip", "install", "--quiet", PEER_PIN], check=True)
    cells = [str(count) for count in case.cells]
    command = [str(program), "-c", DENSITY_METHOD, *cells, str(case.steps), str(VOLUME)]
    begun = time.monotonic()
    environment = {**os.environ, "PYTHONWARNINGS": "ignore"}
    told = subprocess.run(command, check=True, capture_output=True, text=True, env=environment)
    seconds = time.monotonic() - begun
    *_, levels, energy = told.stdout.split()
    say(
        f"density method, {levels} levels of multigrid: {seconds:.1f} s for {case.steps} steps, "
        f"grey energy {float(energy):.4g}"
    )
    return seconds


if __name__ == "__main__":
    sys.exit(main())
