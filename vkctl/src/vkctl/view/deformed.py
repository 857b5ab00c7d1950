"""A picture of the deformed part, one view per solved load case."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats
from vkctl.directory.formats import file_names
from vkctl.directory.model import read
from vkctl.directory.results import solved
from vkctl.shapes.faces import boundary_faces, face_triangles

from .files import write_figure


def picture(directory: PathLike, target: PathLike, exaggeration: float | None = None) -> None:
    """Picture of the deformed part, one view per solved load case.

    Colours show the displacement magnitude. `exaggeration` scales the deformation; if not given
    the largest displacement becomes a tenth of the part's extent.
    """
    need("matplotlib").use("Agg")
    pyplot = need("matplotlib.pyplot")

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
    write_figure(figure, target, 110)
    pyplot.close(figure)


def _has_displacements(directory: PathLike, number: int) -> bool:
    return Path(directory, formats.numbered(file_names.DISPLACEMENTS_STEM, number)).exists()


def _draw(
    figure: Any,
    axes: Any,
    nodes: Array,
    triangles: Array,
    shift: Array,
    exaggeration: float | None,
    title: str,
) -> None:
    """One deformed surface with its colour bar."""
    collections = need("mpl_toolkits.mplot3d.art3d")

    extent = float(np.ptp(nodes, axis=0).max())
    magnitude = np.linalg.norm(shift, axis=1)
    largest = float(magnitude.max()) or 1.0
    factor = 0.1 * extent / largest if exaggeration is None else exaggeration
    moved = nodes + factor * shift
    surface = collections.Poly3DCollection(
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
