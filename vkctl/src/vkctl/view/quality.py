"""A picture of the shapes of the elements, from what is prepared; no run is needed."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import called, counted
from vkctl.check.quality import SLIVER, measure
from vkctl.directory.model import Model, read
from vkctl.shapes.measures import element_centroids
from vkctl.shapes.topology import TYPES

from .canvas import Canvas, Mark, Scale, put_marks, put_scale, put_scene, put_title
from .files import picture_kind, write_picture
from .grid import mesh_grid
from .plot import View
from .scene import Layer, eye, shoot

if TYPE_CHECKING:
    import pyvista

_BINS = 20
_SHADES = 256


def plot_quality(directory: PathLike, picture: PathLike, view: View | None = None) -> Path:
    """Draw the mesh coloured by the quality of its elements, beside how many are of which."""
    picture_kind(picture)
    write_picture(drawn_quality(read(directory), view or View()), picture)
    return Path(picture)


def element_quality(model: Model) -> Array:
    """Quality of each element (m,): 1 is regular, 0 flat, inverted or folded; NaN of no type.

    Of tetrahedra the mean ratio, of hexahedra the smallest scaled Jacobian at a corner, as
    `vkctl check` has them.
    """
    found = np.full(len(model.elements), np.nan)
    for code in TYPES:
        numbers, rows = model.elements.of_type(code)
        if len(numbers):
            shape = measure(code, model.nodes, rows)
            spoilt = shape.repeated | shape.flat | shape.mirrored | shape.inverted
            spoilt |= shape.folded_corner
            found[numbers - 1] = np.where(spoilt, 0.0, np.clip(shape.quality, 0.0, 1.0))
    return found


def drawn_quality(model: Model, view: View) -> Array:
    """What `plot_quality` draws, as an array (height, width, 3)."""
    grid = mesh_grid(model)
    numbers = np.asarray(grid.cell_data["element"])
    quality = element_quality(model)[numbers - 1]
    grid.cell_data["quality"] = quality
    surface = _surface(grid)
    colours = _colours()
    worst = int(np.nanargmin(quality))
    middle = element_centroids(model.nodes, model.elements)[numbers[worst] - 1]
    canvas = Canvas(view.size)
    how = {
        "scalars": "quality",
        "cmap": need("matplotlib.colors").ListedColormap(colours / 255.0),
        "clim": (0.0, 1.0),
        "show_edges": True,
        "edge_color": "gray",
        "line_width": 0.5,
        "ambient": 0.6,
        "diffuse": 0.4,
    }
    direction = eye(model.nodes, view.direction)
    shot = shoot([Layer(surface, how)], canvas.scene_size, direction, middle[None], surface)
    put_scene(canvas, shot.pixels)
    put_title(canvas, f"quality of {counted(len(numbers), 'element')}")
    put_scale(canvas, _scale(quality, colours))
    number = int(numbers[worst])
    labels = {} if model.labels is None else {"labels": model.labels.elements}
    lines = [f"worst: {quality[worst]:.3g}", f"element {called(number, **labels)}"]
    if number not in surface.cell_data["element"]:
        lines.append("inside the part")
    x, y = shot.places[0].tolist()
    put_marks(canvas, [Mark((x, y), lines, bool(shot.hidden[0]))])
    return canvas.pixels()


def _scale(quality: Array, colours: Array) -> Scale:
    """From 0 to 1 whatever there is, so that meshes can be compared."""
    counts = np.histogram(quality, _BINS, (0.0, 1.0))[0]
    poor = int((quality < SLIVER).sum())
    note = (
        f"longest bar: {counted(int(counts.max()), 'element')}\nmean {quality.mean():.3g}\n"
        f"{poor or 'none'} below {SLIVER}, where they count as slivers"
    )
    return Scale("1 regular, 0 flat or inverted", 0.0, 1.0, colours, note, counts=counts)


def _colours() -> Array:
    chosen = need("matplotlib").colormaps["RdYlBu"](np.linspace(0, 1, _SHADES))
    colours: Array = np.rint(255 * chosen[:, :3]).astype(np.uint8)
    return colours


def _surface(grid: pyvista.UnstructuredGrid) -> pyvista.PolyData:
    outside = need("vtkmodules.vtkFiltersGeometry").vtkGeometryFilter()
    outside.SetInputData(grid)
    outside.Update()
    return need("pyvista").wrap(outside.GetOutput())
