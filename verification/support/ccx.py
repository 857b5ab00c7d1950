"""Runs the same mesh through CalculiX, as an independent program."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.topology import HEX8, TET4, TET10

from .mesh import Mesh

ELEMENTS = {TET4: "C3D4", HEX8: "C3D8", TET10: "C3D10"}
# Both number the nodes of all three types alike: 10-node tetrahedra have their mid-edge nodes
# on 1-2, 2-3, 3-1, 1-4, 2-4, 3-4.

Fixed = list[tuple[int, int, float]]  # node, direction, value, 0-based


def available() -> bool:
    return shutil.which("ccx") is not None


@dataclass
class Step:
    """A load case: displacements, forces (n, 3) and temperatures (n,) of its own."""

    fixed: Fixed
    forces: Array
    heat: Array | None = None


@dataclass
class Job:
    """A mesh of one material. `springs`: node, axis, and a stiffness that is one for an axis."""

    mesh: Mesh
    elastic: list[str]
    steps: list[Step]
    expansion: float = 0.0
    springs: list[tuple[int, int, float]] = field(default_factory=list)


def isotropic(e: float, nu: float) -> list[str]:
    return ["*ELASTIC", f"{e:.12g},{nu:.12g}"]


def orthotropic(
    moduli: Sequence[float], ratios: Sequence[float], shear: Sequence[float]
) -> list[str]:
    """Of E1, E2, E3, then nu12, nu13, nu23, then G12, G13, G23."""
    values = [f"{value:.12g}" for value in (*moduli, *ratios, *shear)]
    return ["*ELASTIC, TYPE=ENGINEERING CONSTANTS", ",".join(values[:8]), f"{values[8]},0."]


def _elements(job: Job) -> list[str]:
    lines, number = [], 0
    for code, table in job.mesh.tables.items():
        lines.append(f"*ELEMENT, TYPE={ELEMENTS[code]}, ELSET=SOLID")
        for row in table + 1:
            number += 1
            lines.append(f"{number}," + ",".join(map(str, row)))
    for axis in sorted({axis for _, axis, _ in job.springs}):
        name = f"SPRINGS{axis + 1}"
        lines.append(f"*ELEMENT, TYPE=SPRING1, ELSET={name}")
        of_axis = [spring for spring in job.springs if spring[1] == axis]
        for node, _, _ in of_axis:
            number += 1
            lines.append(f"{number},{node + 1}")
        lines += [f"*SPRING, ELSET={name}", f"{axis + 1}", f"{of_axis[0][2]:.9e},0."]
    return lines


def _step(step: Step) -> list[str]:
    lines = ["*STEP", "*STATIC", "*BOUNDARY, OP=NEW"]
    lines += [f"{n + 1},{d + 1},{d + 1},{value:.9g}" for n, d, value in step.fixed]
    lines.append("*CLOAD, OP=NEW")
    places = np.argwhere(step.forces != 0.0)
    lines += [f"{n + 1},{d + 1},{np.float32(step.forces[n, d]):.9g}" for n, d in places]
    if step.heat is not None:
        lines.append("*TEMPERATURE")
        lines += [f"{i},{np.float32(t):.9g}" for i, t in enumerate(step.heat, 1)]
    return [*lines, "*NODE PRINT, NSET=ALL", "U", "*END STEP"]


def _deck(job: Job) -> str:
    lines = ["*NODE, NSET=ALL"]
    lines += [f"{i},{x:.9g},{y:.9g},{z:.9g}" for i, (x, y, z) in enumerate(job.mesh.nodes, 1)]
    lines += [*_elements(job), "*MATERIAL, NAME=M", *job.elastic]
    if any(step.heat is not None for step in job.steps):
        lines += ["*EXPANSION, ZERO=0.", f"{job.expansion:.9g}"]
        lines += ["*INITIAL CONDITIONS, TYPE=TEMPERATURE", "ALL,0."]
    lines += ["*SOLID SECTION, ELSET=SOLID, MATERIAL=M"]
    if len(job.elastic) > 2:  # its directions are those of the axes
        lines[-1] += ", ORIENTATION=AXES"
        lines[-1:-1] = ["*ORIENTATION, NAME=AXES", "1.,0.,0.,0.,1.,0."]
    return "\n".join([*lines, *(line for step in job.steps for line in _step(step))]) + "\n"


def solve(job: Job) -> list[Array]:
    """Displacements (n, 3) of each step, to the seven digits of the result file."""
    with tempfile.TemporaryDirectory(prefix="vk-ccx-") as name:
        Path(name, "job.inp").write_text(_deck(job))
        done = subprocess.run(
            ["ccx", "job"],
            cwd=name,
            capture_output=True,
            text=True,
            env={**os.environ, "OMP_NUM_THREADS": "2"},
        )
        result = Path(name, "job.dat")
        if done.returncode or not result.exists():
            raise RuntimeError(f"ccx stopped with {done.returncode}\n{done.stdout[-2000:]}")
        rows = [line.split() for line in result.read_text().splitlines()]
    values = np.array([row for row in rows if len(row) == 4 and row[0].isdigit()], float)
    if len(values) != len(job.steps) * len(job.mesh.nodes):
        raise RuntimeError(f"ccx wrote {len(values)} displacements")
    found = []
    for part in np.split(values, len(job.steps)):
        u = np.zeros_like(job.mesh.nodes)
        u[part[:, 0].astype(int) - 1] = part[:, 1:]
        found.append(u)
    return found
