"""The optimisation's whole loop, where its time goes, and a density method beside it.

    bench/optimise.py [--cells 48 24 24] [--steps 30] [--modes measured direct]
                      [--pictures] [--peer]

A cantilever of hexahedra, a force along the lower edge of its end, a volume of 0.3. Prints a line a
run: seconds, what of it the solver took, iterations, and the objective. `--peer` installs pyMOTO in
an environment of its own (.local/peers/pymoto) and has it take as many steps of its optimality
criteria on the same grid, with conjugate gradients behind two levels of multigrid to a residual of
1e-5; its line ends with the ratio of the first mode's time to its own.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from vkctl.optimise import read_history

ROOT = Path(__file__).resolve().parents[1]
PEER = ROOT / ".local" / "peers" / "pymoto"
PEER_PIN = "pymoto==2.0.1"
VOLUME = 0.3

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
coarse = pym.VoxelDomain(nx // 2, ny // 2, nz // 2, 2.0, 2.0, 2.0)
wall = grid.nodes[0, :, :].flatten()
fixed = (wall[:, None] * 3 + np.arange(3)).flatten()
tip = grid.nodes[-1, :, 0].flatten()
force = np.zeros(3 * grid.nnodes)
force[3 * tip + 2] = -1.0 / len(tip)
densities = pym.Signal("x", state=np.full(grid.nel, volume))
solver = CG(
    preconditioner=GeometricMultigrid(grid, inner_level=GeometricMultigrid(coarse)), tol=1e-5
)
with pym.Network() as network:
    smooth = pym.DensityFilter(grid, radius=1.5)(densities)
    moduli = pym.MathExpression("1e-6 + (1 - 1e-6) * inp0^3")(smooth)
    stiffness = pym.AssembleStiffness(grid, bc=fixed, e_modulus=1.0, poisson_ratio=0.3)(moduli)
    moved = pym.LinSolve(symmetric=True, positive_definite=True, solver=solver)(stiffness, force)
    work = pym.EinSum("i,i->")(moved, force)
pym.minimize_oc(densities, work, network, maxit=steps, tolx=0, tolf=0, move=0.2, verbosity=0)
print(time.monotonic() - begun, float(work.state) / 2)
"""


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cells", nargs=3, type=int, default=(48, 24, 24), metavar="N")
    parser.add_argument("--steps", type=int, default=30)
    modes = ("measured", "iterative", "direct")
    parser.add_argument("--modes", nargs="+", choices=modes, default=("measured", "direct"))
    parser.add_argument("--pictures", action="store_true", help="chart, series, animation as well")
    parser.add_argument("--peer", action="store_true", help="pyMOTO beside it")
    wanted = parser.parse_args()
    first = [loop(wanted, mode) for mode in wanted.modes][0]
    if wanted.peer:
        other = peer(wanted)
        print(f"ratio to the density method's time: {first / other:.2f}")
    return 0


def loop(wanted: argparse.Namespace, mode: str) -> float:
    """Seconds of the whole command."""
    nx, ny, nz = wanted.cells
    with tempfile.TemporaryDirectory() as folder:
        Path(folder, "box.geo").write_text(GEOMETRY.format(nx=nx, ny=ny, nz=nz))
        cases = CASES.format(nx=nx, volume=VOLUME, steps=wanted.steps, mode=mode)
        Path(folder, "box.toml").write_text(cases)
        command = [sys.executable, "-m", "vkctl", "optimise", "box.toml", "work"]
        command += [] if wanted.pictures else ["--no-pictures"]
        begun = time.monotonic()
        subprocess.run(command, cwd=folder, check=True, stdout=subprocess.DEVNULL)
        seconds = time.monotonic() - begun
        rows = read_history(Path(folder, "work"))
    solving = sum(row.solving for row in rows)
    iterations = sum(row.iterations for row in rows)
    factored = sum(row.mode == "direct" for row in rows)
    print(
        f"{mode}: {seconds:.1f} s for {len(rows)} steps, the solver {solving:.1f} s "
        f"({solving / seconds:.0%}), {factored} steps with a factor, {iterations} iterations, "
        f"objective {rows[-1].objective:.4g}"
    )
    return seconds


def peer(wanted: argparse.Namespace) -> float:
    """Seconds of the density method, its start included."""
    program = PEER / "bin" / "python"
    if not program.exists():
        subprocess.run([sys.executable, "-m", "venv", PEER], check=True)
        subprocess.run([program, "-m", "pip", "install", "--quiet", PEER_PIN], check=True)
    cells = [str(count) for count in wanted.cells]
    command = [str(program), "-c", DENSITY_METHOD, *cells, str(wanted.steps), str(VOLUME)]
    begun = time.monotonic()
    environment = {**os.environ, "PYTHONWARNINGS": "ignore"}
    told = subprocess.run(command, check=True, capture_output=True, text=True, env=environment)
    seconds = time.monotonic() - begun
    energy = float(told.stdout.split()[-1])
    print(f"density method: {seconds:.1f} s for {wanted.steps} steps, grey energy {energy:.4g}")
    return seconds


if __name__ == "__main__":
    sys.exit(main())
