"""Compression-only material over ten restarts, pulled first and pressed then."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import hold, push
from support.figures import Figure
from support.mesh import NAMES, TYPES, Mesh, block, faces_where, model
from support.page import Check, Result, Table, compare, number

from vkctl.directory.model import LoadCase, Material, write_load_cases

TITLE = "Compression-only states over ten restarts"
E, LENGTH, FORCE = 1000.0, 4.0, 2.0  # Poisson's ratio 0
SIZE = np.array([LENGTH, 1.0, 1.0])
PULLED, PRESSED = 6, 5  # runs: the first and five restarts, then five more


def iterate() -> tuple[list[float], list[float]]:
    """State during and end displacement of each run: an elastic half and a tensionless one."""
    state, states, ends = np.float32(1.0), [], []
    for sign in [1.0] * PULLED + [-1.0] * PRESSED:
        states.append(float(state))
        ends.append(sign * FORCE * LENGTH / 2 / (E * solver.FULL) * (1 + 1 / float(state)))
        if sign > 0.0:
            state = max(state / np.float32(10), np.float32(0.001))
        else:
            state = min(state * np.float32(10), np.float32(1.0))
    return states, ends


def loaded(mesh: Mesh, force: float) -> LoadCase:
    case = LoadCase()
    for letter, k in (("x", 0), ("y", 1), ("z", 2)):
        hold(case, mesh, letter, lambda *x, k=k: x[k] < 1e-5)
    end = faces_where(mesh, lambda x, y, z: x > LENGTH - 1e-5)
    return push(case, fem.face_load(mesh, end, lambda p, n: force * n))


def runs(code: int) -> tuple[list[float], list[float], float]:
    """End displacement and state of the tensionless half after each run; the last SEner."""
    mesh = block(code, (4, 1, 1), lambda g: g * SIZE)
    _, table = mesh.only()
    right = mesh.nodes[table][:, :, 0].mean(axis=1) > LENGTH / 2
    materials = [Material.isotropic(E, 0.0), Material.compression_only(E, 0.0)]
    bar = model(mesh, materials, [loaded(mesh, FORCE)], material_index=np.where(right, 2, 1))
    place = solver.Workplace(bar)
    corner, ends, states = mesh.at(tuple(SIZE)), [], []
    for k in range(PULLED + PRESSED):
        if k == PULLED:
            write_load_cases([loaded(mesh, -FORCE)], place.path)
        answer = place.solve()[0]
        ends.append(float(answer.u[corner, 0]))
        found = answer.element_states()[right]
        if np.ptp(found) > 0.0 or np.any(answer.element_states()[~right] != 1.0):
            raise RuntimeError(f"uneven states after run {k + 1}: {answer.element_states()}")
        states.append(float(found[0]))
    return ends, states, float(answer.totals["SEner"])


def run(quick: bool) -> Result:
    checks = []
    states, wanted = iterate()
    for code in TYPES:
        ends, after, energy = runs(code)
        name = NAMES[code]
        error = np.abs(np.array(ends) / wanted - 1).max()
        checks.append(Check(f"{name}, end displacement over eleven runs", error, 1e-4))
        error = np.abs(np.array(after[:-1]) / states[1:] - 1).max()
        checks.append(Check(f"{name}, states over eleven runs", error, 1e-6))
        half = 0.5 * (FORCE / solver.FULL) ** 2 / E * LENGTH / 2
        checks.append(compare(f"{name}, SEner, of the elastic half alone", energy, half, 2e-5))
    rows = [[str(k + 1), number(ends[k]), number(after[k])] for k in range(len(ends))]
    table = Table(["run", "end displacement", "state after it"], rows)
    steps = list(range(1, len(after) + 1))
    curves = {"tensionless half": (steps, after)}
    figure = Figure("compression_only", "run", "state", curves, "state over the runs", "y")
    return Result(TITLE, TEXT, checks, [table], [figure], REMARKS)


TEXT = """
A bar of 4 by 1 by 1 with E = 1000 and Poisson's ratio 0, its left half elastic, its right half
compression-only. An end force pulls for six runs and presses for five, each started from the
states of the one before. Reference, in numpy: a stretched element's state is divided by 10 down
to 0.001, a pressed one's multiplied by 10 up to 1; the end displacement is F L / (2 E A) (1 + 1 /
state). Compression-only elements take no part in "SEner", so it is that of the elastic half.
"""

REMARKS = """
A run starts from the displacements of the one before, which are up to ten times too long or too
short when the state has changed, and ends at 1e-5 of the residual of that start. The case can't
repeat a run to take up what is left, as the others do, without changing the state once more: up to
1e-4 of the displacement is what the solver's tolerance allows here.
"""
