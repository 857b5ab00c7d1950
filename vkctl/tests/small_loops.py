"""Small parts for the optimisation loop."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import program_under_test

from vkctl.directory.model import Material, Model
from vkctl.shapes.boxes import box
from vkctl.view.grid import mesh_grid

VK_RUND = program_under_test.program()
NOBODY = np.empty(0, np.int64)

# One thread: models this small gain nothing from more.
OPTIONS = '\n[options]\n"Sys.MaxNumCompThreads" = 1\n'

SMALL = """
part = "part.vtu"

[materials.unit]
E = 1.0
nu = 0.3

[node_sets.wall]
where = "x < 0.01"

[node_sets.tip]
where = "x > 11.99 and y < 0.01"

[node_sets.top_tip]
where = "x > 11.99 and y > 5.99"

[node_sets.far]
where = "x > 9.99 and y > 3.99"

[supports.wall]
set = "wall"

[loads.down]
type = "force"
set = "tip"
value = [0, -1, 0]

[loads.along]
type = "force"
set = "top_tip"
value = [2, 0, 0]
"""

ONE_CASE = '\n[[load_case]]\nname = "down"\nloads = ["down"]\n'
TWO_CASES = ONE_CASE + '\n[[load_case]]\nname = "along"\nloads = ["along"]\n'


def write_small(
    folder: Path, settings: str = "", load_cases: str = ONE_CASE, mode: str | None = "iterative"
) -> Path:
    """A case file of a plate of 12 x 6 x 1 hexahedra.

    `mode` is taken where the settings name none; None leaves the choice to the loop. That goes by
    times, so a busy machine may choose otherwise, and the last digits of one step may end in
    another part.
    """
    folder.mkdir(parents=True, exist_ok=True)
    part = box("hex8", (12, 6, 1), (12.0, 6.0, 1.0))
    mesh_grid(Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)])).save(
        folder / "part.vtu"
    )
    cases = folder / "cases.toml"
    solver = "" if mode is None or "mode = " in settings else f'mode = "{mode}"\n'
    cases.write_text(SMALL + load_cases + OPTIONS + "\n[optimise]\n" + solver + settings)
    return cases


def script(path: Path, text: str) -> Path:
    path.write_text(f"#!/bin/sh\nreal={VK_RUND}\n{text}\n")
    path.chmod(0o755)
    return path
