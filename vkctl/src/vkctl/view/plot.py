"""Pictures of results, drawn without a screen."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import called
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import Model, read
from vkctl.directory.results import read_results
from vkctl.stress.fields import field_unit
from vkctl.stress.safety import DRAWN_ALIKE

from .canvas import Canvas, Mark, Scale, number_texts, put_marks, put_scale, put_scene, put_title
from .edges import edge_lines
from .fields import TITLES, Field, shown_fields
from .files import picture_kind, write_picture
from .grid import has_boundary, part_grid, solved_or_fail, surface_of
from .scene import Direction, Layer, Shot, eye, shoot

if TYPE_CHECKING:
    import pyvista

_VISIBLE_PART = 0.08  # of the part's extent: what the largest displacement is drawn as
_SHADES = 256
_NEAR = 1e-6  # of the extent: a place as close to a node as this is the node's


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
    marks: bool = True  # name the places of the largest and the smallest value


@dataclass(frozen=True)
class Extreme:
    """Where a field is largest or smallest."""

    value: float
    place: Array  # (3,), undeformed
    shown: Array  # (3,), deformed


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
    return draw(model, fields, picture, view, titled(number, case_names(model)))


def draw(model: Model, fields: dict[str, Array], picture: PathLike, view: View, title: str) -> Path:
    """Draw `fields` (per node, see `view.fields`) of a model; returns the picture's path."""
    write_picture(drawn(model, fields, view, title), picture)
    return Path(picture)


def drawn(model: Model, fields: dict[str, Array], view: View, title: str) -> Array:
    """What `draw` draws, as an array (height, width, 3)."""
    wide = {name: np.asarray(values, np.float64) for name, values in fields.items()}
    clipped = _clip(wide, view.field)
    solid = part_grid(model, wide)
    surface = surface_of(solid)
    rest = surface.copy()
    scale = _scale(model, surface, view)
    if "displacement" in surface.point_data:
        surface.points = surface.points + scale * surface.point_data["displacement"]
        title += f", deformation x {scale:.3g}" if scale else ", undeformed"
    ends = _extremes(solid, view.field, scale)
    colours = field_colours(ends[0].value, ends[1].value, view.field) if ends else None
    canvas = Canvas(view.size)
    shot = shoot(
        _layers(model, surface, rest, view, ends, colours),
        canvas.scene_size,
        eye(model.nodes, view.direction),
        np.array([end.shown for end in ends]).reshape(-1, 3),
        surface,
    )
    put_scene(canvas, shot.pixels)
    put_title(canvas, title)
    if ends and colours is not None:
        missing = bool(np.isnan(surface.point_data[view.field]).any())
        note = "grey: no value" if missing else ""
        low, high = (end.value for end in ends)
        put_scale(
            canvas, Scale(_heading(model, view), low, high, colours, note, more_above=clipped)
        )
    if view.marks and ends and ends[0].value < ends[1].value:
        marks = _marks(model, ends, shot, surface)
        put_marks(canvas, marks[:1] if clipped else marks)
    return canvas.pixels()


def _clip(fields: dict[str, Array], field: str) -> bool:
    """Bound safety factors, which have no end where there is no stress; whether some were."""
    if field != "safety" or field not in fields:
        return False
    beyond = bool((fields[field] > DRAWN_ALIKE).any())
    fields[field] = np.minimum(fields[field], DRAWN_ALIKE)
    return beyond


def _heading(model: Model, view: View) -> str:
    """What the colours stand for, with its unit."""
    unit = field_unit(model.notes.unit_system if model.notes else None, view.field)
    return f"{TITLES[view.field]} in {unit}" if unit else TITLES[view.field]


def _layers(
    model: Model,
    surface: pyvista.PolyData,
    rest: pyvista.PolyData,
    view: View,
    ends: list[Extreme],
    colours: Array | None,
) -> list[Layer]:
    """The deformed part, and lines where it was before."""
    smooth = not has_boundary(model)
    how = {
        "color": "lightgray",
        "ambient": 0.6,  # shadows that leave the colours what the scale says
        "diffuse": 0.4,
        "smooth_shading": smooth,
        "split_sharp_edges": smooth,
    }
    if ends and colours is not None:
        how |= {
            "scalars": view.field,
            "cmap": need("matplotlib.colors").ListedColormap(colours / 255.0),
            "clim": (ends[0].value, ends[1].value),
            "nan_color": "lightgray",
        }
    outline = rest.extract_feature_edges(feature_angle=40.0) if smooth else rest.outline()
    layers = [Layer(surface, how), Layer(outline, {"color": "gray", "line_width": 1.0})]
    if view.edges:
        lines = edge_lines(rest, surface.points)
        layers.append(Layer(lines, {"color": "black", "line_width": 1.0}))
    return layers


def field_colours(low: float, high: float, field: str = "") -> Array:
    """Colours uint8 (k, 3) from low to high; where both signs occur, white is zero.

    Safety factors are red at 1 and blue from 10 on, whatever the ends are.
    """
    maps = need("matplotlib").colormaps
    if field == "safety":
        shares = np.log(np.maximum(np.linspace(low, high, _SHADES), 1.0)) / np.log(DRAWN_ALIKE)
        chosen = maps["RdYlBu"](shares)
    elif low < 0 < high:
        furthest = max(-low, high)
        shares = 0.5 + 0.5 * np.linspace(low, high, _SHADES) / furthest
        chosen = maps["coolwarm"](shares)
    else:
        chosen = maps["viridis"](np.linspace(0, 1, _SHADES))
    colours: Array = np.rint(255 * chosen[:, :3]).astype(np.uint8)
    return colours


def _extremes(solid: pyvista.UnstructuredGrid, field: str, scale: float) -> list[Extreme]:
    """Smallest and largest value of the part, inside of it as well; none without a value."""
    if field not in solid.point_data:
        return []
    used = np.unique(solid.cell_connectivity)
    values = np.asarray(solid.point_data[field], np.float64)[used]
    used, values = used[np.isfinite(values)], values[np.isfinite(values)]
    found = []
    for row in (int(values.argmin()), int(values.argmax())) if len(values) else ():
        place = np.asarray(solid.points[used[row]], np.float64)
        shift = np.zeros(3)
        if "displacement" in solid.point_data:
            shift = scale * np.asarray(solid.point_data["displacement"][used[row]], np.float64)
        found.append(Extreme(float(values[row]), place, place + shift))
    return found


def _marks(model: Model, ends: list[Extreme], shot: Shot, surface: pyvista.PolyData) -> list[Mark]:
    """The extremes with their values and nodes."""
    texts = number_texts([end.value for end in ends])
    marks = []
    for k, (word, end) in enumerate(zip(("smallest", "largest"), ends, strict=True)):
        lines = [f"{word}: {texts[k]}", node_words(model, end.place)]
        if shot.hidden[k]:
            off = np.linalg.norm(np.asarray(surface.points) - end.shown, axis=1).min()
            inside = off > _NEAR * surface.length
            lines.append("inside the part" if inside else "on a side that isn't seen")
        x, y = shot.places[k].tolist()
        marks.append(Mark((x, y), lines, bool(shot.hidden[k])))
    return marks


def node_words(model: Model, place: Array) -> str:
    """The node at a place or the nearest one, with its label of the mesh."""
    away = np.linalg.norm(model.nodes - place, axis=1)
    nearest = int(away.argmin())
    at = away[nearest] <= _NEAR * (float(np.ptp(model.nodes, axis=0).max()) or 1.0)
    labels = {} if model.labels is None else {"labels": model.labels.nodes}
    return f"{'node' if at else 'near node'} {called(nearest + 1, **labels)}"


def _scale(model: Model, surface: pyvista.PolyData, view: View) -> float:
    if view.scale is not None or "displacement" not in surface.point_data:
        return view.scale or 0.0
    largest = float(np.linalg.norm(surface.point_data["displacement"], axis=1).max(initial=0.0))
    extent = float(np.ptp(model.nodes, axis=0).max())
    return _VISIBLE_PART * extent / largest if largest > 0 else 1.0
