"""The part in three dimensions for the page's viewer: its surface, its inside, fields, marks."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.ask import Extreme
from vkctl.ask.told import unit_of
from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import called
from vkctl.directory.model import Model
from vkctl.stress.safety import DRAWN_ALIKE
from vkctl.view.edges import element_edges
from vkctl.view.fields import TITLES
from vkctl.view.grid import part_grid

from .facts import CaseFacts
from .marks import marks_of
from .packed import packed_numbers, packed_values
from .simplify import simplified
from .units import shown_unit

if TYPE_CHECKING:
    import pyvista

MOST_TRIANGLES = 1_000_000  # of the surface; a finer one is simplified
MOST_NUMBERS = 60_000_000  # at points, over all load cases: what a browser has memory for
MOST_TETRAHEDRA = 400_000  # of the inside; of a finer one the surface alone is shown
_COLOURS = 32  # that a scale is told by
_DISPLACEMENT = "displacement"


@dataclass(frozen=True)
class Scene:
    """What the viewer draws, ready for JSON, and how much of it was left out."""

    values: dict[str, Any]
    triangles: int  # drawn
    found: int  # of the part's surface
    has_inside: bool


@dataclass(frozen=True)
class _Shape:
    """Rows of the solid's points that are drawn, and what is made of them, by place in them."""

    rows: Array
    triangles: Array  # (k, 3)
    edges: Array  # (k, 2), of elements; empty where the triangles have no others
    tetrahedra: Array  # (k, 4), empty where the surface alone is shown
    found: int


def make_scene(
    model: Model,
    cases: Sequence[CaseFacts],
    units: UnitSystem | None,
    most: int = MOST_TRIANGLES,
) -> Scene:
    """The scene of solved load cases; ValueError where nothing is material."""
    solid = part_grid(model, _all_fields(cases))
    if solid.n_cells == 0:
        raise ValueError("the level field leaves no material")
    numbers = sum(3 + len(case.fields) for case in cases)
    most = max(1, min(most, 2 * MOST_NUMBERS // max(numbers, 1)))
    shape = _shape(solid, most)
    names = list(dict.fromkeys(name for case in cases for name in case.fields))
    values = {
        "points": packed_values(np.asarray(solid.points)[shape.rows]),
        "triangles": packed_numbers(shape.triangles),
        "edges": packed_numbers(shape.edges),
        "tetrahedra": packed_numbers(shape.tetrahedra),
        "low": model.nodes.min(axis=0).tolist(),
        "high": model.nodes.max(axis=0).tolist(),
        "length": unit_of(units, "length"),
        "fields": [
            {"name": name, "title": _title(name), "unit": shown_unit(units, name)} for name in names
        ],
        "cases": [_case(model, case, solid, shape.rows) for case in cases],
        "colours": {"one": _colours("viridis"), "two": _colours("coolwarm")},
    }
    drawn = len(shape.triangles)
    return Scene(values, drawn, shape.found, len(shape.tetrahedra) > 0)


def _title(field: str) -> str:
    alike = f", {DRAWN_ALIKE:g} and more alike" if field == "safety" else ""
    return TITLES[field] + alike


def _all_fields(cases: Sequence[CaseFacts]) -> dict[str, Array]:
    """Fields of all load cases side by side, so that the part is cut out once."""
    fields = {}
    for case in cases:
        for name, values in case.fields.items():
            fields[_key(case, name)] = values
        if case.displacement is not None:
            fields[_key(case, _DISPLACEMENT)] = case.displacement
    return fields


def _key(case: CaseFacts, name: str) -> str:
    return f"{case.number} {name}"


def _shape(solid: pyvista.UnstructuredGrid, most: int) -> _Shape:
    """The solid's surface, simplified where it is too fine, and its inside where it isn't."""
    bare = need("pyvista").UnstructuredGrid(solid)
    bare.clear_data()
    bare.point_data["row"] = np.arange(solid.n_points)
    bare.point_data["level"] = solid.point_data["level"]
    bare.cell_data["element"] = solid.cell_data["element"]
    outside = need("vtkmodules.vtkFiltersGeometry").vtkGeometryFilter()
    outside.SetInputData(bare)
    outside.Update()
    surface = need("pyvista").wrap(outside.GetOutput()).triangulate()
    found = surface.n_cells
    if found > most:
        surface = simplified(surface, most)
        none = np.empty((0, 2), np.int64), np.empty((0, 4), np.int64)
        return _Shape(*_numbered(surface, *none), found)
    tetrahedra = np.empty((0, 4), np.int64)
    if bare.n_cells <= MOST_TETRAHEDRA:
        tetrahedra = _tetrahedra(bare)
    if len(tetrahedra) > MOST_TETRAHEDRA:
        tetrahedra = tetrahedra[:0]
    edges = element_edges(surface)
    if 2 * len(edges) >= 3 * found:
        edges = edges[:0]
    return _Shape(*_numbered(surface, edges, tetrahedra), found)


def _tetrahedra(solid: pyvista.UnstructuredGrid) -> Array:
    """Rows of the solid's cells, cut into tetrahedra where level zero cut them otherwise."""
    vtk = need("pyvista").CellType.TETRA
    whole = solid if (solid.celltypes == vtk).all() else solid.triangulate()
    rows: Array = whole.cells_dict.get(int(vtk), np.empty((0, 4), np.int64))
    return rows.astype(np.int64)


def _numbered(
    surface: pyvista.PolyData, edges: Array, tetrahedra: Array
) -> tuple[Array, Array, Array, Array]:
    """Rows of the points in use, those of the surface first, and cells by places among them.

    Edges are of the surface's points, tetrahedra of the solid's.
    """
    triangles = surface.point_data["row"][surface.faces.reshape(-1, 4)[:, 1:]]
    outer = np.unique(triangles)
    inner = np.setdiff1d(tetrahedra, outer)
    rows = np.concatenate((outer, inner))
    places = np.zeros(int(rows.max(initial=0)) + 1, np.int64)
    places[rows] = np.arange(len(rows))
    lines = places[surface.point_data["row"][edges]]
    return rows, places[triangles], lines, places[tetrahedra]


def _case(
    model: Model,
    case: CaseFacts,
    solid: pyvista.UnstructuredGrid,
    rows: Array,
) -> dict[str, Any]:
    displacement = None
    if case.displacement is not None:
        displacement = packed_values(solid.point_data[_key(case, _DISPLACEMENT)][rows])
    return {
        "number": case.number,
        "title": case.title,
        "displacement": displacement,
        "largest": _largest(case.displacement),
        "fields": {
            name: {
                **packed_values(solid.point_data[_key(case, name)][rows]),
                "limits": _limits(solid.point_data[_key(case, name)]),
                "peaks": [_peak(model, case, one) for one in case.extremes if one.field == name],
            }
            for name in case.fields
        },
        **_marks(model, case),
    }


def _largest(displacement: Array | None) -> float:
    if displacement is None or not len(displacement):
        return 0.0
    return float(np.linalg.norm(displacement.astype(np.float64), axis=1).max())


def _limits(values: Array) -> list[float]:
    """The least and the largest value of the whole part, its inside too."""
    known = values[np.isfinite(values)]
    return [float(known.min()), float(known.max())] if len(known) else [0.0, 0.0]


def _peak(model: Model, case: CaseFacts, peak: Extreme) -> dict[str, Any]:
    labels = {} if model.labels is None else {"labels": model.labels.nodes}
    shift = case.displacement[peak.node - 1] if case.displacement is not None else np.zeros(3)
    return {
        "end": peak.end,
        "value": peak.value,
        "node": called(peak.node, **labels),
        "place": list(peak.place),
        "shift": shift.astype(np.float64).tolist(),
    }


def _marks(model: Model, case: CaseFacts) -> dict[str, Any]:
    if not 1 <= case.number <= len(model.load_cases):
        return {"supports": [], "springs": [], "temperatures": [], "loads": []}
    marks = marks_of(model, model.load_cases[case.number - 1], case.displacement)
    loads = np.concatenate((marks.places, marks.forces, marks.shifts), axis=1)
    return {
        "supports": marks.supports.tolist(),
        "springs": marks.springs.tolist(),
        "temperatures": marks.temperatures.tolist(),
        "loads": loads.tolist(),
    }


def _colours(name: str) -> list[list[float]]:
    """Red, green and blue of a scale, from its least value on."""
    found = need("matplotlib").colormaps[name](np.linspace(0, 1, _COLOURS))[:, :3]
    return np.round(found, 4).tolist()  # type: ignore[no-any-return]
