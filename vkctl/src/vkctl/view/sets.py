"""A picture of the sets that a directory remembers, from what is prepared; no run is needed."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import counted, printable
from vkctl.directory.formats import NamedSet
from vkctl.directory.model import Model, read
from vkctl.shapes.faces import face_triangles

from .canvas import Canvas, Colour, Entry, put_legend, put_scene, put_title
from .files import picture_kind, write_picture
from .loads import node_marks
from .outer import active_part, chosen_elements, edges_of, outer, triangle_mesh
from .plot import View
from .scene import Layer, eye, shoot

if TYPE_CHECKING:
    import pyvista

_LIFT = 5e-4  # of the part's extent: each set lies so far above the one before
_EMPTY: Colour = (255, 255, 255)


def plot_sets(directory: PathLike, picture: PathLike, view: View | None = None) -> Path:
    """Draw the sets of a directory, each in a colour of its own; ValueError where there is none."""
    picture_kind(picture)
    write_picture(drawn_sets(read(directory), view or View()), picture)
    return Path(picture)


def drawn_sets(model: Model, view: View) -> Array:
    """What `plot_sets` draws, as an array (height, width, 3).

    Sets of all elements that take part are named and not drawn: they would hide the others.
    """
    if not model.sets:
        raise ValueError("there are no sets to draw: the directory remembers none")
    active = active_part(model)
    shape = outer(model, active)
    layers = [
        Layer(shape.surface, {"color": "gainsboro", "ambient": 0.3}),
        Layer(edges_of(shape.surface), {"color": "gray", "line_width": 1.0}),
    ]
    entries, height = [], 0.0
    extent = float(np.ptp(model.nodes, axis=0).max()) or 1.0
    drawn = [one for one in model.sets if len(one) and not _is_all(one, len(active))]
    colours = dict(zip((id(one) for one in drawn), _colours(len(drawn)), strict=True))
    for one in model.sets:
        colour = colours.get(id(one), _EMPTY)
        entries.append(Entry(colour, _words(one, len(active))))
        if id(one) in colours:
            how = {"color": [part / 255 for part in colour], "ambient": 0.4, "diffuse": 0.6}
            mesh = _lifted(_mesh(model, one), height := height + _LIFT * extent)
            layers.append(Layer(mesh, how, through=True))
    canvas = Canvas(view.size)
    direction = eye(model.nodes, view.direction)
    shot = shoot(layers, canvas.scene_size, direction, np.zeros((0, 3)), shape.surface)
    put_scene(canvas, shot.pixels)
    put_title(canvas, counted(len(model.sets), "set"))
    put_legend(canvas, entries)
    return canvas.pixels()


def _is_all(one: NamedSet, elements: int) -> bool:
    return one.kind == "element" and len(one) >= elements


def _words(one: NamedSet, elements: int) -> str:
    text = f"{printable(one.name)}:\n{counted(len(one), one.kind)}"
    return f"{text}, all there are" if _is_all(one, elements) else text


def _mesh(model: Model, one: NamedSet) -> pyvista.PolyData:
    """Faces as they are, elements by their surface, nodes as cubes."""
    if one.kind == "face":
        return triangle_mesh(model, face_triangles(list(one.faces)) - 1)
    if one.kind == "element":
        return outer(model, chosen_elements(model, one.numbers)).surface
    return node_marks(model, one.numbers - 1)


def _lifted(mesh: pyvista.PolyData, height: float) -> pyvista.PolyData:
    """A surface moved outwards, so that it isn't mixed with what else lies at its place."""
    normals = mesh.compute_normals(
        cell_normals=False, consistent_normals=False, split_vertices=False
    ).point_data["Normals"]
    lifted = mesh.copy()
    lifted.points = np.asarray(mesh.points, np.float64) + height * np.asarray(normals)
    return lifted


def _colours(count: int) -> list[Colour]:
    """Ten that can be told apart; more sets go round again."""
    palette = need("matplotlib").colormaps["tab10"]
    found = np.rint(255 * palette(np.arange(count) % 10)[:, :3]).astype(int)
    return [(int(r), int(g), int(b)) for r, g, b in found]
