"""A picture of the loads and supports of a load case, from what is prepared; no run is needed."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.basics.units import UnitSystem, in_unit
from vkctl.basics.words import counted
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import LoadCase, Model, read
from vkctl.directory.numbering import prescribed_rows
from vkctl.directory.sums import without_noise

from .canvas import Canvas, Colour, Entry, put_legend, put_scene, put_title
from .files import picture_kind, write_picture
from .outer import Outer, active_part, edges_of, outer
from .plot import View
from .scene import Layer, eye, shoot

if TYPE_CHECKING:
    import pyvista

_FORCE: Colour = (200, 30, 30)
_BODY: Colour = (230, 120, 0)
_HELD: Colour = (20, 60, 160)
# Held in some directions, by the mask of them: x is 1, y is 2, z is 4.
_PARTLY: dict[int, Colour] = {
    1: (60, 140, 230),
    2: (0, 175, 200),
    4: (120, 110, 225),
    3: (40, 90, 110),
    5: (150, 190, 245),
    6: (110, 150, 150),
}
_MOVED: Colour = (150, 30, 160)
_SPRING: Colour = (0, 130, 110)
_WARM: Colour = (235, 190, 0)
_ARROW = 0.14  # of the part's extent: the longest arrow
_SHORTEST = 0.3  # of the longest: shorter ones can't be told from dots
_MARK = 0.018  # of the part's extent: a support
_CELLS = 28  # along the part: nodes closer together share an arrow or a mark


@dataclass(frozen=True)
class Symbols:
    """What is drawn in one colour, and the line that the legend says of it."""

    colour: Colour
    text: str
    mesh: pyvista.PolyData | None


def plot_loads(
    directory: PathLike, picture: PathLike, case: int | None = None, view: View | None = None
) -> Path:
    """Draw the forces, supports, springs and temperatures of a load case, the first if not given.

    ValueError where there is no such load case.
    """
    picture_kind(picture)
    model = read(directory)
    number = 1 if case is None else case
    if not 1 <= number <= len(model.load_cases):
        raise ValueError(f"there is no load case {number} in {directory}")
    write_picture(drawn_loads(model, number, view or View()), picture)
    return Path(picture)


def drawn_loads(model: Model, number: int, view: View) -> Array:
    """What `plot_loads` draws, as an array (height, width, 3)."""
    shape = outer(model, active_part(model))
    case = model.load_cases[number - 1]
    _require_nodes(case, len(model.nodes), number)
    found = symbols(model, case, shape)
    layers = [
        Layer(shape.surface, {"color": "gainsboro", "ambient": 0.3}),
        Layer(edges_of(shape.surface), {"color": "gray", "line_width": 1.0}),
    ]
    for one in found:
        if one.mesh is not None:
            colour = [part / 255 for part in one.colour]
            how = {"color": colour, "ambient": 0.3, "line_width": 2.5}
            layers.append(Layer(one.mesh, how, through=True))
    canvas = Canvas(view.size)
    direction = eye(model.nodes, view.direction)
    shot = shoot(layers, canvas.scene_size, direction, np.zeros((0, 3)), shape.surface)
    put_scene(canvas, shot.pixels)
    put_title(canvas, titled(number, case_names(model)) + ": loads and supports")
    put_legend(canvas, [Entry(one.colour, one.text) for one in found])
    return canvas.pixels()


def _require_nodes(case: LoadCase, count: int, number: int) -> None:
    """ValueError where a load case names a node that the model doesn't have."""
    for records in (case.constraints, case.forces2, case.forces3, case.scalars):
        outside = records["Node"][(records["Node"] < 1) | (records["Node"] > count)]
        if len(outside):
            raise ValueError(f"load case {number} names node {outside[0]} of {count}")


def symbols(model: Model, case: LoadCase, shape: Outer) -> list[Symbols]:
    """Everything that acts in a load case, one after the other."""
    extent = float(np.ptp(model.nodes, axis=0).max()) or 1.0
    found = [
        *_forces(model, case.forces2, shape, extent),
        *_body_forces(model, case.forces3, extent),
        *_supports(model, case.constraints, shape, extent),
        *_springs(model, case.constraints, extent),
        *_temperatures(model, case, extent),
    ]
    return found or [Symbols((255, 255, 255), "nothing acts", None)]


# --- forces ------------------------------------------------------------------------------------


def _forces(model: Model, records: Array, shape: Outer, extent: float) -> list[Symbols]:
    """Arrows; those of nodes close together are one arrow of their sum."""
    if not len(records):
        return []
    nodes, vectors = records["Node"] - 1, records["Force"].astype(np.float64)
    text = f"forces: {counted(len(nodes), 'node')}\nsum {_force(model, vectors)}"
    cells = _cells(model.nodes[nodes], extent)
    sums = _summed(cells, vectors)
    places = _nearest_to_middle(cells, model.nodes[nodes])
    if len(sums) < len(nodes):
        text += f"\ndrawn as {counted(len(sums), 'arrow')}, near ones added"
    normals = shape.normals[nodes[places]]
    arrows = _arrows(model.nodes[nodes[places]], sums, normals, extent)
    return [Symbols(_FORCE, text, arrows)]


def _body_forces(model: Model, records: Array, extent: float) -> list[Symbols]:
    """One arrow in the middle of the nodes that they pull at."""
    if not len(records):
        return []
    vectors = records["Force"].astype(np.float64)
    weights = np.linalg.norm(vectors, axis=1)
    if not weights.sum() > 0:
        return []
    middle = weights @ model.nodes[records["Node"] - 1] / weights.sum()
    total = vectors.sum(axis=0)
    arrow = _arrows(middle[None], total[None], np.zeros((1, 3)), 1.6 * extent)
    return [Symbols(_BODY, f"body forces\nsum {_force(model, vectors)}", arrow)]


def _arrows(
    places: Array, vectors: Array, normals: Array, extent: float
) -> pyvista.PolyData | None:
    """Arrows outside of the part: with the tip at the place where they push, else the tail."""
    sizes = np.linalg.norm(vectors, axis=1)
    largest = sizes.max(initial=0.0)
    # The sum of a cell may be nothing but noise of forces that cancel each other.
    kept = sizes > 1e-6 * largest
    if not kept.any() or not np.isfinite(largest):
        return None
    pyvista = need("pyvista")
    lengths = _ARROW * extent * np.maximum(sizes[kept] / largest, _SHORTEST)
    directions = vectors[kept] / sizes[kept, None]
    pushing = (directions * normals[kept]).sum(axis=1) < -0.1
    tails = places[kept] - np.where(pushing, lengths, 0.0)[:, None] * directions
    cloud = pyvista.PolyData(tails)
    cloud["direction"], cloud["length"] = directions, lengths
    slim = pyvista.Arrow(tip_length=0.3, tip_radius=0.09, shaft_radius=0.03)
    return cloud.glyph(orient="direction", scale="length", factor=1.0, geom=slim)


# --- supports ----------------------------------------------------------------------------------


def _supports(model: Model, records: Array, shape: Outer, extent: float) -> list[Symbols]:
    """Cubes where a node is held in all directions, cones where in some, arrows where moved."""
    rows, nodes, axes = prescribed_rows(records)
    held = np.zeros((len(model.nodes), 3), np.bool_)
    shift = np.zeros((len(model.nodes), 3))
    held[nodes, axes] = True
    shift[nodes, axes] = records["Value"][rows, axes]
    moved = (shift != 0).any(axis=1)
    whole = held.all(axis=1) & ~moved
    found = []
    if whole.any():
        text = f"held in x, y and z:\n{counted(int(whole.sum()), 'node')}"
        found.append(Symbols(_HELD, text, _cubes(model, np.flatnonzero(whole), extent)))
    partly = held & (shift == 0) & ~whole[:, None]
    for pattern in np.unique(partly[partly.any(axis=1)], axis=0):
        chosen = np.flatnonzero((partly == pattern).all(axis=1))
        letters = " and ".join(letter for letter, on in zip("xyz", pattern, strict=True) if on)
        text = f"held in {letters}:\n{counted(len(chosen), 'node')}"
        colour = _PARTLY.get(int(pattern @ (1, 2, 4)), _HELD)
        found.append(Symbols(colour, text, _cones(model, chosen, pattern, shape, extent)))
    if moved.any():
        chosen = np.flatnonzero(moved)
        furthest = float(np.linalg.norm(shift, axis=1).max())
        text = f"moved: {counted(len(chosen), 'node')}\nby up to "
        text += in_unit(f"{furthest:.4g}", _units(model), "length")
        places = chosen[_thinned(model.nodes[chosen], extent)]
        arrows = _arrows(model.nodes[places], shift[places], shape.normals[places], 0.8 * extent)
        found.append(Symbols(_MOVED, text, arrows))
    return found


def node_marks(model: Model, nodes: Array) -> pyvista.PolyData:
    """Cubes at nodes, numbered from 0, as many as can be told apart."""
    return _cubes(model, nodes, float(np.ptp(model.nodes, axis=0).max()) or 1.0)


def _cubes(model: Model, nodes: Array, extent: float) -> pyvista.PolyData:
    size = _MARK * extent
    cube = need("pyvista").Cube(x_length=size, y_length=size, z_length=size)
    return _copies(model.nodes[nodes[_thinned(model.nodes[nodes], extent)]], cube)


def _cones(
    model: Model, nodes: Array, pattern: Array, shape: Outer, extent: float
) -> pyvista.PolyData:
    """Cones that point at the nodes along the directions held, from outside where that is told."""
    pyvista = need("pyvista")
    chosen = nodes[_thinned(model.nodes[nodes], extent)]
    parts = []
    for axis in np.flatnonzero(pattern):
        sides = np.where(shape.normals[chosen, axis] < -0.1, 1.0, -1.0)
        for side in (-1.0, 1.0):
            some = chosen[sides == side]
            if not len(some):
                continue
            towards = side * np.eye(3)[axis]
            length = 1.6 * _MARK * extent
            cone = pyvista.Cone(
                center=-0.5 * length * towards,
                direction=towards,
                height=length,
                radius=0.5 * _MARK * extent,
                resolution=12,
            )
            parts.append(_copies(model.nodes[some], cone))
    return pyvista.merge(parts) if len(parts) > 1 else parts[0]


def _springs(model: Model, records: Array, extent: float) -> list[Symbols]:
    """A zigzag along each axis that a spring acts along."""
    rows = records[(records["Kind"] & formats.CONSTRAINT_PENALTY) != 0]
    if not len(rows):
        return []
    nodes = rows["Node"] - 1
    text = f"springs: {counted(len(np.unique(nodes)), 'node')}"
    lines = []
    for k in _thinned(model.nodes[nodes], extent):
        for axis in range(3):
            along = rows["Axis"][k, axis].astype(np.float64)
            length = float(np.linalg.norm(along))
            if rows["DofMask"][k] >> axis & 1 and length > 0:
                lines.append(_zigzag(model.nodes[nodes[k]], along / length, 3 * _MARK * extent))
    return [Symbols(_SPRING, text, need("pyvista").merge(lines) if lines else None)]


def _zigzag(start: Array, along: Array, length: float) -> Any:
    """A line that goes to and fro beside a direction, away from the start."""
    across = np.cross(along, np.eye(3)[int(np.abs(along).argmin())])
    across /= np.linalg.norm(across)
    shares = np.array((0.0, 0.2, 0.26, 0.38, 0.5, 0.62, 0.74, 0.8, 1.0))
    sides = np.array((0.0, 0.0, 1.0, -1.0, 1.0, -1.0, 1.0, 0.0, 0.0))
    points = start - np.outer(shares * length, along) + np.outer(0.16 * length * sides, across)
    return need("pyvista").MultipleLines(points)


def _temperatures(model: Model, case: LoadCase, extent: float) -> list[Symbols]:
    if not len(case.scalars):
        return []
    nodes, values = case.scalars["Node"] - 1, case.scalars["Value"]
    ends = f"{values.min():.4g} to {values.max():.4g}"
    text = f"temperatures: {counted(len(nodes), 'node')}\n{ends}"
    ball = need("pyvista").Sphere(radius=0.3 * _MARK * extent, theta_resolution=8, phi_resolution=8)
    places = model.nodes[nodes[_thinned(model.nodes[nodes], extent)]]
    return [Symbols(_WARM, text, _copies(places, ball))]


# --- as many as can be told apart --------------------------------------------------------------


def _cells(points: Array, extent: float) -> Array:
    """Number of the cell, of a grid over the part, that each point lies in; from 0, none empty."""
    place = np.floor((points - points.min(axis=0)) * (_CELLS / extent)).astype(np.int64)
    found: Array = np.unique(place, axis=0, return_inverse=True)[1].ravel()
    return found


def _summed(cells: Array, vectors: Array) -> Array:
    return np.column_stack([np.bincount(cells, vectors[:, k]) for k in range(3)])


def _nearest_to_middle(cells: Array, points: Array) -> Array:
    """Of each cell the point nearest to the mean of its points."""
    middle = _summed(cells, points) / np.bincount(cells)[:, None]
    away = np.linalg.norm(points - middle[cells], axis=1)
    order = np.lexsort((away, cells))
    return order[np.unique(cells[order], return_index=True)[1]]


def _thinned(points: Array, extent: float) -> Array:
    """Places of points far enough from each other to be told apart."""
    return _nearest_to_middle(_cells(points, extent), points)


def _copies(places: Array, shape: pyvista.PolyData) -> pyvista.PolyData:
    return need("pyvista").PolyData(places).glyph(orient=False, scale=False, geom=shape)


def _units(model: Model) -> UnitSystem | None:
    return model.notes.unit_system if model.notes else None


def _force(model: Model, vectors: Array) -> str:
    """The sum of forces."""
    sums = without_noise(vectors.sum(axis=0), np.linalg.norm(vectors, axis=1).sum())
    text = "(" + ", ".join(f"{value:.5g}" for value in sums) + ")"
    return in_unit(text, _units(model), "force")
