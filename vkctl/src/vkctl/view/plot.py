"""Pictures of results, drawn without a screen."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory.model import Model, read
from vkctl.directory.results import read_results

from .fields import TITLES, Field, shown_fields
from .files import picture_kind, write_picture
from .grid import has_boundary, part_surface, solved_or_fail

if TYPE_CHECKING:
    import pyvista

Direction = tuple[float, float, float]
_VISIBLE_PART = 0.08  # of the part's extent: what the largest displacement is drawn as
_THIN_PART = 0.25  # of its other extents: a part as low as this is a plate


@dataclass(frozen=True)
class View:
    """How a picture is drawn. `scale` exaggerates the deformation, None chooses it.

    Up is z, and y where the part is a plate in x and y that is looked at from above.
    """

    field: Field = "magnitude"
    scale: float | None = None
    edges: bool = False
    size: tuple[int, int] = (1400, 900)
    direction: Direction | None = None  # from the part to the eye; None chooses it


def plot(
    directory: PathLike, picture: PathLike, case: int | None = None, view: View | None = None
) -> Path:
    """Draw the deformed part of a load case, the first solved one if not given, into a .png.

    Colours show `view.field` on the part's surface: the surface of level zero where the level
    field leaves part of the mesh empty, the mesh's own surface otherwise.
    """
    picture_kind(picture)
    model = read(directory)
    numbers = solved_or_fail(directory)
    number = numbers[0] if case is None else case
    if number not in numbers:
        raise ValueError(f"load case {number} has no results in {directory}")
    view = view or View()
    fields = shown_fields(model, read_results(directory, number), view.field)
    return draw(model, fields, picture, view, f"load case {number}")


def draw(model: Model, fields: dict[str, Array], picture: PathLike, view: View, title: str) -> Path:
    """Draw `fields` (per node, see `view.fields`) of a model; returns the picture's path."""
    write_picture(drawn(model, fields, view, title), picture)
    return Path(picture)


def drawn(model: Model, fields: dict[str, Array], view: View, title: str) -> Array:
    """What `draw` draws, as an array (height, width, 3)."""
    pyvista = need("pyvista")
    logger = need("vtkmodules.vtkCommonCore").vtkLogger
    wide = {name: np.asarray(values, np.float64) for name, values in fields.items()}
    surface = part_surface(model, wide)
    scale = _scale(model, surface, view)
    rest = surface.copy()
    if "displacement" in surface.point_data:
        surface.points = surface.points + scale * surface.point_data["displacement"]
    # Without a screen VTK warns once and draws in memory, which is what is wanted.
    logger.SetStderrVerbosity(logger.VERBOSITY_ERROR)
    plotter = pyvista.Plotter(off_screen=True, window_size=list(view.size))
    plotter.set_background("white")
    limits = _range(surface, view.field)
    plotter.add_mesh(
        surface,
        scalars=view.field if view.field in surface.point_data else None,
        cmap="coolwarm" if limits and limits[0] < 0 < limits[1] else "viridis",
        clim=limits,
        show_edges=view.edges,
        nan_color="lightgray",
        smooth_shading=not has_boundary(model),
        split_sharp_edges=not has_boundary(model),
        scalar_bar_args=_scalar_bar(view.field),
    )
    outline = rest.extract_feature_edges(feature_angle=40.0) if not has_boundary(model) else rest
    plotter.add_mesh(
        outline if outline is not rest else rest.outline(), color="gray", line_width=1.0
    )
    if "displacement" in surface.point_data:
        title = f"{title}, deformation x {scale:.3g}"
    plotter.add_text(title, color="black", font_size=11)
    plotter.add_axes(color="black")
    direction, up = _eye(model, view)
    plotter.view_vector(direction, viewup=up)
    plotter.enable_anti_aliasing("ssaa")
    pixels: Array = plotter.screenshot(return_img=True)
    plotter.close()
    return pixels


def _eye(model: Model, view: View) -> tuple[Direction, Direction]:
    """Direction to the eye, and the one that points up in the picture."""
    length, width, height = np.ptp(model.nodes, axis=0)
    plate = height < _THIN_PART * min(length, width)
    chosen = (0.3, -0.4, 1.0) if plate else (-0.6, -1.0, 0.5)
    direction = view.direction or chosen
    steep = abs(direction[2]) > 2 * max(abs(direction[0]), abs(direction[1]))
    return direction, (0.0, 1.0, 0.0) if steep else (0.0, 0.0, 1.0)


def _scale(model: Model, surface: pyvista.PolyData, view: View) -> float:
    if view.scale is not None or "displacement" not in surface.point_data:
        return view.scale or 0.0
    largest = float(np.linalg.norm(surface.point_data["displacement"], axis=1).max(initial=0.0))
    extent = float(np.ptp(model.nodes, axis=0).max())
    return _VISIBLE_PART * extent / largest if largest > 0 else 1.0


def _range(surface: pyvista.PolyData, field: str) -> tuple[float, float] | None:
    """Colour limits: the extremes, or where both signs occur the larger one to both sides."""
    if field not in surface.point_data:
        return None
    values = np.asarray(surface.point_data[field])
    values = values[np.isfinite(values)]
    if not len(values):
        return (0.0, 1.0)
    low, high = float(values.min()), float(values.max())
    if low < 0 < high:
        return (-max(-low, high), max(-low, high))
    return (low, high) if high > low else (low, low + (abs(low) or 1.0))


def _scalar_bar(field: str) -> dict[str, Any]:
    return {
        "title": TITLES[field] + "\n",  # keeps clear of the first label
        "color": "black",
        "fmt": "%.3g",
        "n_labels": 5,
        "vertical": True,
        "position_x": 0.86,
        "position_y": 0.2,
        "height": 0.6,
        "width": 0.05,
        "title_font_size": 18,
        "label_font_size": 16,
    }
