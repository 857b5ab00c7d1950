"""The cantilever of the quick start: about 100,000 equations, two load cases, a picture."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.directory import formats
from vkctl.directory.formats import Array, PathLike
from vkctl.directory.model import LoadCase, Material, Model, read, write
from vkctl.directory.results import LoadCaseLog, digest, read_log, read_results, solved
from vkctl.shapes.boxes import Box, box
from vkctl.shapes.geometry import boundary_faces, face_triangles

if TYPE_CHECKING:
    from matplotlib.figure import Figure

LENGTH, WIDTH = 420.0, 95.0  # mm
CELLS = (84, 19, 19)
E, NU = 210000.0, 0.3  # MPa, steel
BENDING_FORCE = 20000.0  # N, downwards at the tip
TWISTING_MOMENT = 2.0e6  # N mm, about the long axis


def cantilever() -> tuple[Model, Box]:
    """Steel bar of 420 x 95 x 95 mm, clamped at x = 0: bent in case 1, twisted in case 2.

    Both load cases have one pattern, so the second finds matrix and factor ready. All nodes are
    design points with the level 1: the part fills the box.
    """
    part = box("tet4", CELLS, (LENGTH, WIDTH, WIDTH))
    clamped = part.face("x-")
    bending = LoadCase().prescribe(clamped)
    bending.load(*part.traction("x+", (0.0, 0.0, -BENDING_FORCE / WIDTH**2)))
    twisting = LoadCase().prescribe(clamped)
    twisting.load(*part.traction("x+", _whirl))
    model = Model(
        part.nodes,
        part.elements,
        [Material.isotropic(E, NU, name="steel")],
        [bending, twisting],
    )
    model.set_level(1.0)
    return model, part


def _whirl(points: Array) -> Array:
    """Traction around the axis, proportional to the distance, of moment TWISTING_MOMENT."""
    y, z = points[:, 1] - WIDTH / 2, points[:, 2] - WIDTH / 2
    return np.column_stack((np.zeros(len(points)), -z, y)) * TWISTING_MOMENT / (WIDTH**4 / 6)


def write_cantilever(directory: PathLike) -> None:
    """Write the working directory of `cantilever`."""
    write(cantilever()[0], directory)


def beam_deflection() -> float:
    """Tip deflection of the bending case by beam theory with shear (Timoshenko 1921), mm."""
    inertia = WIDTH**4 / 12
    bending = BENDING_FORCE * LENGTH**3 / (3 * E * inertia)
    shear_modulus = E / (2 * (1 + NU))
    return bending + BENDING_FORCE * LENGTH / (5 / 6 * shear_modulus * WIDTH**2)


def summary(directory: PathLike) -> str:
    """A few lines on the log and the results of a run directory."""
    run = digest(read_log(directory))
    lines = []
    for case in run.load_cases:
        lines.append(f"load case {case.number}: {_solver_words(case)}")
        lines += [f"  warning: {text}" for text in case.warnings]
    for number in solved(directory):
        lines.append(f"results of load case {number}:")
        lines += _result_lines(directory, number)
    if run.error:
        lines.append(f"the run stopped: {run.error}")
    elif run.seconds is None:
        lines.append("the run has not ended")
    else:
        lines.append(f"the whole run took {run.seconds:.1f} s")
    return "\n".join(lines)


def _solver_words(case: LoadCaseLog) -> str:
    words = []
    if case.equations_millions is not None:
        words.append(f"{case.equations_millions:.2f} million equations")
    if case.mode is not None:
        words.append("factorised" if case.mode == 2 else "iterative")
    if case.iterations is not None:
        words.append(f"{case.iterations} iterations")
    if "ARQua" in case.data:
        words.append(f"quality {case.data['ARQua']:.3f}")
    if case.seconds is not None:
        words.append(f"{case.seconds:.1f} s")
    return ", ".join(words) or "begun"


def _result_lines(directory: PathLike, number: int) -> list[str]:
    r = read_results(directory, number)
    load = ", ".join(f"{component:.4g}" for component in r.applied_load)
    lines = [
        f"  largest displacement {r.max_displacement:.4g}",
        f"  strain energy        {r.strain_energy:.4g}",
    ]
    if len(r.stress):
        lines.append(f"  nodal stress         {r.stress.min():.4g} to {r.stress.max():.4g}")
    return [*lines, f"  sum of loads         ({load})"]


def picture(directory: PathLike, target: PathLike, exaggeration: float | None = None) -> None:
    """Picture of the deformed part, one view per solved load case.

    Colours show the displacement magnitude. `exaggeration` scales the deformation; if not given
    the largest displacement becomes a tenth of the part's extent.
    """
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    model = read(directory)
    triangles = face_triangles(boundary_faces(model.elements)) - 1
    numbers = [n for n in solved(directory) if _has_displacements(directory, n)]
    if not numbers:
        raise FileNotFoundError(f"no solved load case with displacements in {directory}")
    figure = pyplot.figure(figsize=(7 * len(numbers), 5), layout="constrained")
    for place, number in enumerate(numbers, 1):
        axes = figure.add_subplot(1, len(numbers), place, projection="3d")
        shift = formats.read_displacements(directory, number).astype(np.float64)
        _draw(figure, axes, model.nodes, triangles, shift, exaggeration, f"load case {number}")
    figure.savefig(target, dpi=110)
    pyplot.close(figure)


def _has_displacements(directory: PathLike, number: int) -> bool:
    return Path(directory, formats.numbered("ws.sstate", number)).exists()


def _draw(
    figure: Figure,
    axes: Any,
    nodes: Array,
    triangles: Array,
    shift: Array,
    exaggeration: float | None,
    title: str,
) -> None:
    """One deformed surface with its colour bar."""
    from mpl_toolkits.mplot3d.art3d import Poly3DCollection

    extent = float(np.ptp(nodes, axis=0).max())
    magnitude = np.linalg.norm(shift, axis=1)
    largest = float(magnitude.max()) or 1.0
    factor = 0.1 * extent / largest if exaggeration is None else exaggeration
    moved = nodes + factor * shift
    surface = Poly3DCollection(
        moved[triangles], cmap="viridis", edgecolor="none", antialiased=False
    )
    surface.set_array(magnitude[triangles].mean(axis=1))
    axes.add_collection3d(surface)
    low, high = moved.min(axis=0), moved.max(axis=0)
    axes.set(xlim=(low[0], high[0]), ylim=(low[1], high[1]), zlim=(low[2], high[2]))
    axes.set_box_aspect(high - low, zoom=1.25)
    axes.view_init(elev=18, azim=-65)
    axes.set_axis_off()
    axes.set_title(f"{title}, deformation x {factor:.3g}")
    figure.colorbar(surface, ax=axes, shrink=0.7, label="displacement magnitude")
