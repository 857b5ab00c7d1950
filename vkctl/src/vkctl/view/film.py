"""Frames of a part that changes: one mesh, one eye and one plotter for all of them."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.directory.levels import level_field, off_zero
from vkctl.directory.model import Model
from vkctl.shapes.cutting import Body, Surface, body, surface
from vkctl.shapes.simplices import at_points, tetrahedra

from .canvas import Canvas, Scale, put_scale, put_scene, put_title
from .fields import TITLES
from .grid import active_rows
from .plot import View, field_colours
from .scene import eye, quiet_plotter

if TYPE_CHECKING:
    import pyvista

_FIELD = "level"


@dataclass
class Film:
    """What all frames share. The camera sees the whole mesh, so that the part stays in place."""

    view: View
    rows: dict[int, Array]  # nodes of the elements that are drawn, by type
    body: Body
    plotter: Any
    actor: Any = None  # the part of the frame before


@contextmanager
def film(model: Model, view: View) -> Iterator[Film]:
    """A film of a model's part, whose plotter is closed on leaving the block."""
    rows = active_rows(model)
    tets, points, _ = tetrahedra(model.nodes, rows, {})
    made = body(points, tets, len(model.nodes))
    plotter = quiet_plotter(Canvas(view.size).scene_size)
    try:
        plotter.suppress_rendering = True  # else everything that is added draws the scene anew
        plotter.render_window.SetMultiSamples(0)  # of two thirds of a frame's time in memory
        seen = need("pyvista").PolyData(points[: len(model.nodes)])
        plotter.add_mesh(seen.outline(), color="gray", line_width=1.0, show_scalar_bar=False)
        towards, up = eye(model.nodes, view.direction)
        plotter.view_vector(towards, viewup=up)
        yield Film(view, rows, made, plotter)
    finally:
        plotter.close()


def cut_out(of: Film, model: Model) -> Surface:
    """The part's surface at the model's levels; ValueError if nothing is material."""
    levels = at_points(level_field(model).astype(np.float64), of.rows, of_corners=True)
    found = surface(of.body, off_zero(levels))
    if not len(found.triangles):
        raise ValueError("the level field leaves no material")
    return found


def as_mesh(part: Surface) -> pyvista.PolyData:
    mesh = need("pyvista").PolyData.from_regular_faces(part.points, part.triangles)
    mesh.point_data[_FIELD] = part.levels
    return mesh


def frame(of: Film, mesh: pyvista.PolyData, title: str) -> Array:
    """The part of `as_mesh` as a picture (height, width, 3)."""
    canvas, plotter = Canvas(of.view.size), of.plotter
    low, high = 0.0, float(mesh.point_data[_FIELD].max())
    colours = field_colours(low, high)
    if of.actor is not None:
        plotter.remove_actor(of.actor, render=False)
    of.actor = plotter.add_mesh(
        mesh,
        scalars=_FIELD,
        cmap=need("matplotlib.colors").ListedColormap(colours / 255.0),
        clim=(low, high),
        show_edges=of.view.edges,
        ambient=0.6,
        diffuse=0.4,
        show_scalar_bar=False,
        reset_camera=False,
        render=False,
    )
    plotter.suppress_rendering = False
    plotter.render()
    pixels = plotter.screenshot(return_img=True)
    plotter.suppress_rendering = True
    put_scene(canvas, pixels)
    put_title(canvas, title)
    put_scale(canvas, Scale(TITLES[_FIELD], low, high, colours))
    return canvas.pixels()
