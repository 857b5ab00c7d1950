"""Yielding material over ten restarts, against the same law iterated on one bar."""

from __future__ import annotations

import numpy as np
from support import fem, solver
from support.closed import hold, push
from support.figures import Figure
from support.mesh import NAMES, TYPES, Mesh, block, faces_where, model
from support.page import Check, Result, Table, compare, number

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, prescribed

TITLE = "Yielding over ten restarts"
E, NU, YIELD, HARDENING = 1000.0, 0.3, 2.0, 0.1
SIZE = np.array([4.0, 1.0, 1.0])
RUNS = 11  # the first and ten restarts
FORCE, STRETCH = 2.4, 0.012  # 1.2 and 1.5 times what first yields

Run = tuple[float, float, Array]  # after it: end displacement, nodal stress, element states
Law = tuple[list[float], list[float], list[float]]  # states, end displacements, stresses


def update(state: np.float32, stress: float, factor: float = 1.0) -> np.float32:
    """State after a run in which the element's von Mises stress was `stress`."""
    limit = YIELD * factor
    elastic = stress / float(state)
    secant = (limit + float(np.float32(HARDENING)) * (elastic - limit)) / elastic
    return np.float32(
        min(max(np.float32(0.5 * (float(state) + secant)), np.float32(0.001)), np.float32(1.0))
    )


def iterate(pulled: bool) -> Law:
    """State before, end displacement and stress of each run of one bar.

    The stress that enters the law is the material's; the presence factor carries what is left.
    """
    state, states, ends, stresses = np.float32(1.0), [], [], []
    for _ in range(RUNS):
        stress = FORCE / solver.FULL if pulled else E * float(state) * STRETCH / SIZE[0]
        states.append(float(state))
        ends.append(stress * SIZE[0] / (E * float(state)))
        stresses.append(stress)
        state = update(state, stress)
    return states, ends, stresses


def bar(code: int, pulled: bool) -> tuple[Mesh, LoadCase]:
    """A bar under an end force or an end displacement, free sideways."""
    mesh = block(code, (4, 1, 1), lambda g: g * SIZE)
    case = LoadCase()
    for letter, k in (("x", 0), ("y", 1), ("z", 2)):
        hold(case, mesh, letter, lambda *x, k=k: x[k] < 1e-5)
    if pulled:
        end = faces_where(mesh, lambda x, y, z: x > SIZE[0] - 1e-5)
        push(case, fem.face_load(mesh, end, lambda p, n: FORCE * n))
    else:
        end = mesh.where(lambda x, y, z: x > SIZE[0] - 1e-5)
        rows = prescribed(end + 1, "x", [STRETCH, 0.0, 0.0])
        case.constraints = np.concatenate((case.constraints, rows))
    return mesh, case


def runs(code: int, pulled: bool, options: dict[str, float] | None = None) -> list[Run]:
    mesh, case = bar(code, pulled)
    steel = Material.yielding(E, NU, YIELD, hardening_ratio=HARDENING)
    place = solver.Workplace(model(mesh, [steel], [case], options=options))
    corner = mesh.at(tuple(SIZE))
    found = []
    for _ in range(RUNS):
        answer = place.solve()[0]
        found.append((answer.u[corner, 0], answer.stress[corner], answer.element_states()))
    return found


def compare_runs(name: str, found: list[Run], wanted: Law) -> list[Check]:
    """Largest relative deviation over all runs, of displacement, stress and state."""
    states, ends, stresses = map(np.array, wanted)
    displacement = np.abs([u for u, _, _ in found] / ends - 1).max()
    stress = np.abs([s for _, s, _ in found] / stresses - 1).max()
    after = np.append(states[1:], update(np.float32(states[-1]), stresses[-1]))
    state = np.abs([v / s - 1 for (_, _, v), s in zip(found, after, strict=True)]).max()
    return [
        Check(f"{name}, end displacement over eleven runs", displacement, 2e-5),
        Check(f"{name}, stress over eleven runs", stress, 2e-5),
        Check(f"{name}, states of all elements over eleven runs", state, 2e-5),
    ]


def run(quick: bool) -> Result:
    checks, curves = [], {}
    for pulled, name in ((True, "end force"), (False, "end displacement")):
        wanted = iterate(pulled)
        for code in TYPES:
            found = runs(code, pulled)
            checks += compare_runs(f"{NAMES[code]}, {name}", found, wanted)
        last = [float(states.mean()) for _, _, states in found]
        curves[name] = (list(range(1, RUNS + 1)), last)
    share = FORCE / solver.FULL
    limit = HARDENING * share / (share - YIELD * (1 - HARDENING))
    ratio = 0.5 * (1 + YIELD * (1 - HARDENING) / share)
    closed = limit + (1 - limit) * ratio**RUNS
    name = "end force, state after eleven runs, closed form"
    checks.append(compare(name, curves["end force"][1][-1], closed, 1e-5))
    plain = runs(TYPES[0], True, {"Sta.YieldStressFac": 0.0})[-1]
    name = "yield factor 0: elastic to the end"
    checks.append(compare(name, plain[0], share * SIZE[0] / E, 1e-5))
    by_force, by_stretch = (curves[n][1] for n in ("end force", "end displacement"))
    rows = [[str(k + 1), number(by_force[k], 4), number(by_stretch[k], 4)] for k in range(RUNS)]
    table = Table(["after run", "state, end force", "state, end displacement"], rows)
    figure = Figure("yielding", "run", "state", curves, "element state over the runs", "")
    return Result(TITLE, TEXT, checks, [table], [figure], REMARKS)


TEXT = """
A bar of 4 by 1 by 1, E = 1000, Poisson's ratio 0.3, yield stress 2, hardening ratio 0.1, free
sideways. It is run, requested again by clearing the done bit and run from its saved state, ten
times, under an end force of 1.2 times first yield and under an end displacement of three times
first yield. Reference: the law iterated in numpy, state' = (state + (Y + h (e - Y)) / e) / 2 with
e = stress / state, held between 0.001 and 1, in single precision.
"""

REMARKS = """
Under a force the stress s is fixed and the law is linear in the state: it moves to h s / (s - Y
(1 - h)) = 0.399 with the ratio (1 + Y (1 - h) / s) / 2 = 0.875 a run, so that eleven runs leave
a quarter of the way. Under a displacement the secant is fixed and the ratio is 1/2. The stress of
the law is the material's own, without the presence factor: 1 / 0.999364 of force over area.
"""
