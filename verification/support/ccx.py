"""Runs the same mesh through CalculiX, as an independent program."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
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


def _deck(
    mesh: Mesh, e: float, nu: float, fixed: Fixed, forces: Array, heat: tuple[float, Array] | None
) -> str:
    lines = ["*NODE, NSET=ALL"]
    lines += [f"{i},{x:.9g},{y:.9g},{z:.9g}" for i, (x, y, z) in enumerate(mesh.nodes, 1)]
    number = 0
    for code, table in mesh.tables.items():
        lines.append(f"*ELEMENT, TYPE={ELEMENTS[code]}, ELSET=SOLID")
        for row in table + 1:
            number += 1
            lines.append(f"{number}," + ",".join(map(str, row)))
    lines += ["*MATERIAL, NAME=M", "*ELASTIC", f"{e:.12g},{nu:.12g}"]
    if heat:
        lines += ["*EXPANSION, ZERO=0.", f"{heat[0]:.9g}", "*INITIAL CONDITIONS, TYPE=TEMPERATURE"]
        lines += ["ALL,0."]
    lines += ["*SOLID SECTION, ELSET=SOLID, MATERIAL=M", "*STEP", "*STATIC", "*BOUNDARY"]
    lines += [f"{n + 1},{d + 1},{d + 1},{value:.9g}" for n, d, value in fixed]
    lines.append("*CLOAD")
    lines += [
        f"{n + 1},{d + 1},{np.float32(forces[n, d]):.9g}" for n, d in np.argwhere(forces != 0.0)
    ]
    if heat:
        lines.append("*TEMPERATURE")
        lines += [f"{i},{np.float32(t):.9g}" for i, t in enumerate(heat[1], 1)]
    lines += ["*NODE PRINT, NSET=ALL", "U", "*END STEP"]
    return "\n".join(lines) + "\n"


def solve(
    mesh: Mesh,
    e: float,
    nu: float,
    fixed: Fixed,
    forces: Array,
    heat: tuple[float, Array] | None = None,
) -> Array:
    """Displacements (n, 3), to the seven digits of the result file.

    `forces` (n, 3); `heat` the expansion
    coefficient and the nodal temperatures.
    """
    with tempfile.TemporaryDirectory(prefix="vk-ccx-") as name:
        Path(name, "job.inp").write_text(_deck(mesh, e, nu, fixed, forces, heat))
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
    u = np.zeros_like(mesh.nodes)
    u[values[:, 0].astype(int) - 1] = values[:, 1:]
    return u
