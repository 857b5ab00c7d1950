"""The optimised part, made smooth, meshed as a body and solved beside what was promised.

    bench/part_as_body.py CASES DIR [--order 2]

Meshes the surface of `vkctl export DIR part.stl --smooth` with Gmsh, its triangles as they are,
finds the sets of the case file on that mesh by their geometry, and solves the load cases in the
direct mode.
Prints a line a load case: compliance (work of the loads) and largest displacement of the optimised
part and of the body, volumes, and by how much the body is softer. DIR is left as it is.
"""

from __future__ import annotations

import argparse
import json
import tempfile
from pathlib import Path
from typing import Any

import gmsh
import numpy as np

from vkctl.directory import model
from vkctl.directory.results import Results, read_results
from vkctl.optimise import history
from vkctl.prepare.build import build_model
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.mesh import make_mesh
from vkctl.prepare.part import MeshOptions
from vkctl.prepare.readers.registry import read_part
from vkctl.running.run import run, set_run_options
from vkctl.view.part_file import part_of, write_part


def main() -> None:
    parser = argparse.ArgumentParser(description=(__doc__ or "").partition("\n")[0])
    parser.add_argument("cases", type=Path)
    parser.add_argument("directory", type=Path)
    parser.add_argument("--order", type=int, choices=(1, 2), default=2, help="of the tetrahedra")
    asked = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        work = Path(folder)
        meshed = mesh_part(asked.directory, work, asked.order)
        solve(asked.cases, meshed, work / "body")
        for number, one in enumerate(model.read(asked.directory).load_cases, 1):
            if one.requested:
                compare(asked.directory, work / "body", number)


def mesh_part(directory: Path, work: Path, order: int) -> Path:
    """The smooth part as a mesh of tetrahedra whose surface is the part's own triangles."""
    state = history.read_state(directory)
    keep = None if state is None else np.array(state.kept, np.int64)
    write_part(part_of(directory, True, keep), work / "part.stl", directory)
    gmsh.initialize(readConfigFiles=False, interruptible=False)
    gmsh.option.setNumber("General.Terminal", 0)
    gmsh.merge(str(work / "part.stl"))
    gmsh.model.mesh.createTopology()
    shells = [tag for _, tag in gmsh.model.getEntities(2)]
    gmsh.model.geo.addVolume([gmsh.model.geo.addSurfaceLoop(shells)])
    gmsh.model.geo.synchronize()
    gmsh.option.setNumber("Mesh.MeshOnlyEmpty", 1)
    gmsh.option.setNumber("Mesh.ElementOrder", order)
    gmsh.model.mesh.generate(3)
    gmsh.write(str(work / "body.msh"))
    gmsh.finalize()
    return work / "body.msh"


def solve(cases: Path, mesh: Path, directory: Path) -> None:
    known = read_cases(cases)
    known.level = None  # all of the body is material
    made = make_mesh(read_part(mesh, MeshOptions()))
    model.write(build_model(made, known).model, directory)
    set_run_options(directory, mode="direct")
    outcome = run(directory)
    if not outcome.ok:
        raise SystemExit(outcome.advice.sentence)


def compare(part: Path, body: Path, number: int) -> None:
    before, after = (told(directory, number) for directory in (part, body))
    said = {
        "load case": number,
        "part": before,
        "body": after,
        "softer, %": round(100 * (after["compliance"] / before["compliance"] - 1), 2),
    }
    print(json.dumps(said), flush=True)


def told(directory: Path, number: int) -> dict[str, Any]:
    results = read_results(directory, number)
    moved = displacements(results)
    forces = model.read(directory).load_cases[number - 1].forces2
    return {
        "compliance": float((forces["Force"] * moved[forces["Node"] - 1]).sum()),
        "largest": float(np.linalg.norm(moved, axis=1).max()),
        "volume": results.material_volume,
    }


def displacements(results: Results) -> np.ndarray:
    if results.displacements is None:
        raise SystemExit(f"load case {results.number} was solved too poorly")
    return np.asarray(results.displacements)


if __name__ == "__main__":
    main()
