"""Parts read from VTK's unstructured grids."""

from __future__ import annotations

import warnings
from pathlib import Path

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.shapes.topology import HEX8, TET4, TET10

from ..part import Part, PartError

# VTK cell types: the solver's type and the place of each of the solver's nodes. VTK counts the
# mid-edge nodes of a tetrahedron as the solver does; a voxel counts its corners along the axes.
_SOLIDS = {
    10: (TET4, [0, 1, 2, 3]),
    11: (HEX8, [0, 1, 3, 2, 4, 5, 7, 6]),
    12: (HEX8, [0, 1, 2, 3, 4, 5, 6, 7]),
    24: (TET10, [0, 1, 2, 3, 4, 5, 6, 7, 8, 9]),
}
_SURFACES = {5: [0, 1, 2], 8: [0, 1, 3, 2], 9: [0, 1, 2, 3], 22: [0, 1, 2, 3, 4, 5]}
_LINES_AND_POINTS = {1: 1, 3: 2, 21: 3}
_MOST_VALUES = 1000  # an integer array of more values than this is data, not a list of sets


def read_vtu(path: PathLike) -> Part:
    """Part of a .vtu file.

    Every integer cell array makes sets named ARRAY:VALUE; a boolean or 0/1 array makes a set
    ARRAY too. The same holds for integer point arrays. Real point arrays are node data.
    """
    pyvista = need("pyvista")
    try:
        with warnings.catch_warnings():  # of a damaged file, which gives no grid
            warnings.simplefilter("ignore")
            grid = pyvista.read(Path(path))
    except Exception as error:
        raise PartError(f"{path}: can't be read as a VTK file: {error}") from None
    if not isinstance(grid, pyvista.UnstructuredGrid):
        raise PartError(f"{path} holds a {type(grid).__name__}, not an unstructured grid")
    if not grid.n_points:
        raise PartError(f"{path} holds no grid; it may be damaged")
    labels = np.arange(1, grid.n_points + 1)
    part = Part(labels, np.array(grid.points, np.float64), [])
    rows_of = _collect_cells(part, grid)
    for name in grid.cell_data:
        _cell_sets(part, name, np.asarray(grid.cell_data[name]), grid.celltypes, rows_of)
    for name in grid.point_data:
        _point_array(part, name, np.asarray(grid.point_data[name]))
    return part


def _collect_cells(part: Part, grid) -> dict[int, tuple[Array, Array]]:  # type: ignore[no-untyped-def]
    """Fill in the solids, in runs of one type; (cells, node rows) of each VTK type."""
    vtk = need("vtk")
    types = np.asarray(grid.celltypes)
    as_array = need("vtkmodules.util.numpy_support").vtk_to_numpy
    starts = as_array(grid.GetCells().GetOffsetsArray())
    flat = as_array(grid.GetCells().GetConnectivityArray())
    rows_of = {}
    for kind in distinct(types):
        cells = np.flatnonzero(types == kind)
        table = {**{k: p for k, (_, p) in _SOLIDS.items()}, **_SURFACES}
        places = table.get(int(kind), list(range(_LINES_AND_POINTS.get(int(kind), 0))))
        if not places:
            title = vtk.vtkCellTypeUtilities.GetClassNameFromTypeId(int(kind))
            part.unsupported[title.removeprefix("vtk")] = len(cells)
            continue
        rows_of[int(kind)] = cells, flat[starts[cells][:, None] + np.array(places)] + 1
    change = np.flatnonzero(np.diff(types)) + 1
    for run in np.split(np.arange(len(types)), change):
        kind = int(types[run[0]]) if len(run) else 0
        if kind in _SOLIDS and kind in rows_of:
            cells, rows = rows_of[kind]
            first = np.searchsorted(cells, run[0])
            part.solids.append((_SOLIDS[kind][0], run + 1, rows[first : first + len(run)]))
    return rows_of


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
    part: Part, name: str, array: Array, types: Array, rows_of: dict[int, tuple[Array, Array]]
) -> None:
    for title, value in _names(name, _values(array)):
        chosen = array == value
        solids = chosen & np.isin(types, list(_SOLIDS))
        if np.any(solids):
            part.element_sets[title] = np.flatnonzero(solids) + 1
        flat = [rows[chosen[cells]] for kind, (cells, rows) in rows_of.items() if kind in _SURFACES]
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
