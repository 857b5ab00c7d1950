"""Parts and case files for the tests of `vkctl new`."""

from __future__ import annotations

import signal
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from types import ModuleType

import gmsh
import numpy as np
import program_under_test
import pyvista

from vkctl.prepare import CaseFileError, PartMesh, Prepared, build, make_mesh, read_cases, read_part

ROOT = Path(__file__).resolve().parents[2]

# Length, width, height of the plate and radius of the hole through its middle.
PLATE = (4.0, 2.0, 1.0)
RADIUS = 0.5

CASES = """
[materials.steel]
E = 210000.0
nu = 0.3

[supports.clamp]
set = "left"
"""


@contextmanager
def gmsh_session() -> Iterator[ModuleType]:
    gmsh.initialize(readConfigFiles=False, interruptible=False)
    gmsh.option.setNumber("General.Terminal", 0)
    try:
        yield gmsh
    finally:
        gmsh.finalize()
        # Gmsh has taken back that a broken pipe is told by an error instead of ending the process.
        signal.signal(signal.SIGPIPE, signal.SIG_IGN)


def _write_all(directory: Path) -> None:
    gmsh.option.setNumber("Mesh.SaveGroupsOfNodes", 1)
    gmsh.option.setNumber("Mesh.SaveGroupsOfElements", 1)
    for ending in ("msh", "inp", "vtk"):
        gmsh.write(str(directory / f"part.{ending}"))
    pyvista.read(directory / "part.vtk").save(directory / "part.vtu")


def plate(directory: Path, order: int = 2) -> Path:
    """Tetrahedra of a plate with a hole as part.msh, part.inp, part.vtu and part.step.

    Groups: volume "body", surface "left" (x = 0).
    """
    directory.mkdir(parents=True, exist_ok=True)
    with gmsh_session():
        gmsh.model.occ.addBox(0, 0, 0, *PLATE, tag=1)
        hole = gmsh.model.occ.addCylinder(PLATE[0] / 2, PLATE[1] / 2, -1, 0, 0, 3, RADIUS)
        gmsh.model.occ.cut([(3, 1)], [(3, hole)])
        gmsh.model.occ.synchronize()
        gmsh.write(str(directory / "part.step"))
        left = [
            t for d, t in gmsh.model.getEntities(2) if _at_left(gmsh.model.getBoundingBox(d, t))
        ]
        gmsh.model.addPhysicalGroup(2, left, name="left")
        gmsh.model.addPhysicalGroup(3, [1], name="body")
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.5)
        gmsh.option.setNumber("Mesh.ElementOrder", order)
        gmsh.model.mesh.generate(3)
        _write_all(directory)
    return directory


def _at_left(bounds: tuple[float, ...]) -> bool:
    return bounds[3] < 1e-3


def brick(directory: Path, kind: str, cells: tuple[int, int, int] = (6, 3, 2)) -> Path:
    """A plate without a hole of "hex8", "tet4" or "tet10", with the same groups."""
    directory.mkdir(parents=True, exist_ok=True)
    with gmsh_session():
        gmsh.model.geo.addPoint(0, 0, 0, tag=1)
        quads = kind == "hex8"
        swept = [(0, 1)]
        for axis, (length, count) in enumerate(zip(PLATE[::-1], cells[::-1], strict=True)):
            step = [0.0, 0.0, 0.0]
            step[2 - axis] = length
            made = gmsh.model.geo.extrude(swept, *step, numElements=[count], recombine=quads)
            if axis == 2:
                left = [tag for _, tag in swept]
            swept = [e for e in made if e[0] == axis + 1]
        gmsh.model.geo.synchronize()
        gmsh.model.addPhysicalGroup(2, left, name="left")
        gmsh.model.addPhysicalGroup(3, [swept[0][1]], name="body")
        gmsh.option.setNumber("Mesh.ElementOrder", 2 if kind == "tet10" else 1)
        gmsh.model.mesh.generate(3)
        _write_all(directory)
    return directory


def mesh_of(path: Path) -> PartMesh:
    return make_mesh(read_part(path))


def case_file(directory: Path, text: str, base: str = CASES) -> Path:
    directory.mkdir(parents=True, exist_ok=True)
    path = directory / "cases.toml"
    path.write_text(base + text, encoding="utf-8")
    return path


def prepared(part: Path, directory: Path, text: str, base: str = CASES) -> Prepared:
    return build(part, case_file(directory, text, base))


def problems(action: Callable[[], object]) -> list[tuple[int, str]]:
    """(line, message) of each mistake that `action` finds."""
    try:
        action()
    except CaseFileError as error:
        return [(p.line, str(p)) for p in error.problems]
    return []


def schema_problems(directory: Path, text: str, base: str = "") -> list[tuple[int, str]]:
    return problems(lambda: read_cases(case_file(directory, text, base)))


def forces(case: object, nodes: np.ndarray) -> np.ndarray:
    """Nodal forces (n, 3) of both sections of a load case."""
    total = np.zeros((len(nodes), 3))
    for section in (case.forces2, case.forces3):  # type: ignore[attr-defined]
        total[section["Node"] - 1] += section["Force"]
    return total


def solve(directory: Path) -> None:
    """Run the solver, which has to end well."""
    program = program_under_test.program()
    assert program.is_file(), f"no solver at {program}: build it, or tell its path in VK_RUND"
    done = program_under_test.start(directory)
    assert done.status == 0, done.out + done.err
