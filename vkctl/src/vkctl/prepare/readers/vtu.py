"""Parts read from VTK's unstructured grids.

For the reading process alone: VTK breaks down at some damaged files.
"""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.shapes.cells import HEX20, HEX27, PYRAMID5, PYRAMID13, WEDGE6, WEDGE15
from vkctl.shapes.topology import HEX8, TET4, TET10

from ..part import Part, PartError
from .vtu_counts import check_counts

_NUMPY = "vtkmodules.util.numpy_support"

# VTK cell types: the solver's type and the place of each of the solver's nodes. VTK counts the
# mid-edge nodes of a tetrahedron as the solver does; a voxel counts its corners along the axes.
_SOLIDS = {
    10: (TET4, [0, 1, 2, 3]),
    11: (HEX8, [0, 1, 3, 2, 4, 5, 7, 6]),
    12: (HEX8, [0, 1, 2, 3, 4, 5, 6, 7]),
    24: (TET10, [0, 1, 2, 3, 4, 5, 6, 7, 8, 9]),
}
_SURFACES = {5: [0, 1, 2], 8: [0, 1, 3, 2], 9: [0, 1, 2, 3], 22: [0, 1, 2, 3, 4, 5]}
# Taken where they are to be split, which looks at corners alone.
_CELLS = {
    13: (WEDGE6, list(range(6))),
    14: (PYRAMID5, list(range(5))),
    25: (HEX20, list(range(20))),
    26: (WEDGE15, list(range(15))),
    27: (PYRAMID13, list(range(13))),
    29: (HEX27, list(range(27))),
}
_CELL_SURFACES = {23: list(range(8)), 28: list(range(9))}
_LINES_AND_POINTS = {1: 1, 3: 2, 21: 3}
_MOST_VALUES = 1000  # an integer array of more values than this is data, not a list of sets


def read_vtu(path: PathLike, title: str, limits: bool = True, cells: bool = False) -> Part:
    """Part of a .vtu file.

    Every integer cell array makes sets named ARRAY:VALUE; a boolean or 0/1 array makes a set
    ARRAY too. The same holds for integer point arrays. Real point arrays are node data.
    `cells` takes wedges, pyramids and hexahedra of 20 and 27 nodes too.
    """
    if limits:
        check_counts(Path(path), title)
    grid = _grid(path, title)
    points = need(_NUMPY).vtk_to_numpy(grid.GetPoints().GetData())
    part = Part(np.arange(1, len(points) + 1), np.array(points, np.float64), [])
    taken = _taken(cells)
    types, rows_of = _collect_cells(part, grid, taken)
    for name, array in _arrays(grid.GetCellData()):
        if len(array) == len(types):
            _cell_sets(part, name, array, types, rows_of, taken)
    for name, array in _arrays(grid.GetPointData()):
        if len(array) == len(points):
            _point_array(part, name, array)
    return part


_Taken = tuple[dict[int, tuple[int, list[int]]], dict[int, list[int]]]  # solids, surface cells


def _taken(cells: bool) -> _Taken:
    if cells:
        return {**_SOLIDS, **_CELLS}, {**_SURFACES, **_CELL_SURFACES}
    return _SOLIDS, _SURFACES


def _grid(path: PathLike, title: str) -> Any:
    reader = need("vtkmodules.vtkIOXML").vtkXMLUnstructuredGridReader()
    faults: list[object] = []
    reader.AddObserver("ErrorEvent", lambda *_: faults.append(None))
    reader.SetFileName(str(path))
    reader.Update()
    grid = reader.GetOutput()
    if faults or reader.GetErrorCode():
        raise PartError(f"{title}: can't be read as a VTK file; it may be damaged")
    if not grid.GetNumberOfPoints():
        raise PartError(f"{title} holds no grid; it may be damaged")
    return grid


def _arrays(data: Any) -> list[tuple[str, Array]]:
    """The arrays of numbers that have a name."""
    found = [data.GetArray(place) for place in range(data.GetNumberOfArrays())]
    as_array = need(_NUMPY).vtk_to_numpy
    return [(a.GetName(), as_array(a)) for a in found if a is not None and a.GetName()]


def _collect_cells(
    part: Part, grid: Any, taken: _Taken
) -> tuple[Array, dict[int, tuple[Array, Array]]]:
    """Fill in the solids, in runs of one type; types, and (cells, node rows) of each type."""
    as_array = need(_NUMPY).vtk_to_numpy
    cells_there = grid.GetCells()
    types = as_array(grid.GetCellTypesArray()) if grid.GetNumberOfCells() else np.empty(0, np.uint8)
    starts = as_array(cells_there.GetOffsetsArray()).astype(np.int64)
    flat = as_array(cells_there.GetConnectivityArray()).astype(np.int64)
    if len(starts) != len(types) + 1 or np.any(np.diff(starts) < 0) or starts[-1] > len(flat):
        raise PartError("the table of cells doesn't fit together; the file may be damaged")
    rows_of = {}
    solids, flat_types = taken
    for kind in distinct(types):
        cells = np.flatnonzero(types == kind)
        table = {**{k: p for k, (_, p) in solids.items()}, **flat_types}
        places = table.get(int(kind), list(range(_LINES_AND_POINTS.get(int(kind), 0))))
        if not places:
            kinds = need("vtkmodules.vtkCommonDataModel").vtkCellTypeUtilities
            title = kinds.GetClassNameFromTypeId(int(kind))
            part.unsupported[title.removeprefix("vtk")] = len(cells)
            continue
        if np.any(np.diff(starts)[cells] != len(places)):
            raise PartError("cells have too many or too few nodes; the file may be damaged")
        rows_of[int(kind)] = cells, flat[starts[cells][:, None] + np.array(places)] + 1
    change = np.flatnonzero(np.diff(types)) + 1
    for run in np.split(np.arange(len(types)), change):
        kind = int(types[run[0]]) if len(run) else 0
        if kind in solids and kind in rows_of:
            cells, rows = rows_of[kind]
            first = np.searchsorted(cells, run[0])
            part.solids.append((solids[kind][0], run + 1, rows[first : first + len(run)]))
    return types, rows_of


def _values(array: Array) -> Array:
    """The values of an array that names sets; none if it is data."""
    if array.ndim != 1 or array.dtype.kind not in "biu" or not len(array):
        return np.empty(0, np.int64)
    values = distinct(array)
    return values if len(values) <= _MOST_VALUES else values[:0]


def _names(name: str, values: Array) -> list[tuple[str, Array]]:
    """(set name, value) of each value of an array; a mask gives a set of the array's name too."""
    named = [(f"{name}:{int(value)}", value) for value in values]
    if len(values) and set(values.tolist()) <= {0, 1} and values[-1]:
        named.append((name, values[-1]))
    return named


def _cell_sets(
    part: Part,
    name: str,
    array: Array,
    types: Array,
    rows_of: dict[int, tuple[Array, Array]],
    taken: _Taken,
) -> None:
    for title, value in _names(name, _values(array)):
        chosen = array == value
        solids = chosen & np.isin(types, list(taken[0]))
        if np.any(solids):
            part.element_sets[title] = np.flatnonzero(solids) + 1
        flat = [rows[chosen[cells]] for kind, (cells, rows) in rows_of.items() if kind in taken[1]]
        if any(len(rows) for rows in flat):
            part.surfaces[title] = [rows for rows in flat if len(rows)]
        thin = [
            rows[chosen[cells]].ravel()
            for kind, (cells, rows) in rows_of.items()
            if kind in _LINES_AND_POINTS and np.any(chosen[cells])
        ]
        if thin:
            part.node_sets[title] = distinct(np.concatenate(thin))


def _point_array(part: Part, name: str, array: Array) -> None:
    if array.ndim == 1 and array.dtype.kind in "biuf":
        part.node_data[name] = array.astype(np.float64)
    for title, value in _names(name, _values(array)):
        part.node_sets[title] = np.flatnonzero(array == value) + 1
