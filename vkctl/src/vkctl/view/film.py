"""Frames of a part that changes: one mesh, one eye and one plotter for all of them."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.shapes.cutting import Surface

from .canvas import Canvas, Scale, put_scale, put_scene, put_title
from .fields import TITLES
from .part_body import MeshBody, cut_part, mesh_body
from .plot import View, field_colours
from .scene import eye, quiet_plotter

if TYPE_CHECKING:
    import pyvista

_FIELD = "level"


@dataclass
class Film:
    """What all frames share. The camera sees the whole mesh, so that the part stays in place."""

    view: View
    body: MeshBody
    plotter: Any
    actor: Any = None  # the part of the frame before


@contextmanager
def film(model: Model, view: View) -> Iterator[Film]:
    """A film of a model's part, whose plotter is closed on leaving the block."""
    made = mesh_body(model)
    plotter = quiet_plotter(Canvas(view.size).scene_size)
    try:
        plotter.suppress_rendering = True  # else everything that is added draws the scene anew
        plotter.render_window.SetMultiSamples(0)  # of two thirds of a frame's time in memory
        seen = need("pyvista").PolyData(model.nodes)
        plotter.add_mesh(seen.outline(), color="gray", line_width=1.0, show_scalar_bar=False)
        towards, up = eye(model.nodes, view.direction)
        plotter.view_vector(towards, viewup=up)
        yield Film(view, made, plotter)
    finally:
        plotter.close()


def cut_out(of: Film, model: Model) -> Surface:
    """The part's surface at the model's levels; ValueError if nothing is material."""
    return cut_part(of.body, model)


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
