"""Models and results as VTK grids, and the part itself: what lies inside the level-zero surface."""

from __future__ import annotations

from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory.case_names import case_names, name_of
from vkctl.directory.levels import level_field, off_zero
from vkctl.directory.model import Model, read
from vkctl.directory.numbering import EXCLUDED
from vkctl.directory.results import Results, read_results, solved
from vkctl.shapes.simplices import TETRAHEDRA_PER_TYPE, tetrahedra
from vkctl.shapes.topology import TET4, TYPES, VTK_CELLS

from .fields import point_fields, stress_fields

if TYPE_CHECKING:
    import pyvista


def has_boundary(model: Model) -> bool:
    """Whether the level field leaves part of the mesh empty."""
    return bool((level_field(model) < 0).any())


def mesh_grid(model: Model) -> pyvista.UnstructuredGrid:
    """The active elements as they are, with the model's own fields.

    The file's own field "units" names the system of units that the case file does.
    Points: "level", "node_flags". Cells: "element" (its number), "material", "element_flags". Both
    have "label" where the directory knows what the part's file calls them.
    """
    assert model.element_flags is not None
    pyvista = need("pyvista")
    cells, numbers = {}, []
    active = np.flatnonzero(model.element_flags & EXCLUDED == 0) + 1
    for code, cell in VTK_CELLS.items():
        found, rows = model.elements.of_type(code)
        kept = np.isin(found, active)
        if kept.any():
            cells[cell] = rows[kept] - 1
            numbers.append(found[kept])
    if not numbers:
        raise ValueError("there are no elements to draw: all are left out")
    grid = pyvista.UnstructuredGrid(cells, model.nodes)
    order = np.concatenate(numbers)
    grid.point_data["level"] = level_field(model)
    grid.point_data["node_flags"] = model.node_flags
    grid.cell_data["element"] = order
    grid.cell_data["material"] = model.elements.materials[order - 1]
    grid.cell_data["element_flags"] = model.element_flags[order - 1]
    _note(grid, "units", (model.notes.units if model.notes else None) or "")
    if model.labels is not None:
        grid.point_data["label"] = model.labels.nodes
        grid.cell_data["label"] = model.labels.elements[order - 1]
    return grid


def results_grid(model: Model, results: Results) -> pyvista.UnstructuredGrid:
    """`mesh_grid` with the fields of one load case; cells also have "element_state".

    The file's own fields tell number and name of the load case.
    """
    grid = mesh_grid(model)
    grid.field_data["load_case"] = [results.number]
    _note(grid, "load_case_name", name_of(results.number, case_names(model)))
    fields = {**point_fields(model, results), **stress_fields(model, results)}
    for name, values in fields.items():
        grid.point_data[name] = values
    if results.element_state is not None:
        grid.cell_data["element_state"] = results.element_state[grid.cell_data["element"] - 1]
    return grid


def _note(grid: pyvista.UnstructuredGrid, name: str, text: str) -> None:
    """A text of the file itself, unless it is empty; PyVista's own way takes no umlauts."""
    if text:
        array = need("vtkmodules.vtkCommonCore").vtkStringArray()
        array.SetName(name)
        array.InsertNextValue(text)
        grid.GetFieldData().AddArray(array)


def read_grid(directory: PathLike, number: int) -> pyvista.UnstructuredGrid:
    """`results_grid` of a load case of a working directory."""
    return results_grid(read(directory), read_results(directory, number))


def solved_or_fail(directory: PathLike) -> list[int]:
    """Numbers of the solved load cases; FileNotFoundError if there are none."""
    numbers = solved(directory)
    if not numbers:
        raise FileNotFoundError(f"no solved load case in {directory}")
    return numbers


# --- the part ----------------------------------------------------------------------------------


def simplices(model: Model, fields: dict[str, Array]) -> tuple[Array, Array, dict[str, Array]]:
    """The active elements as 4-node tetrahedra that fit together: (tetrahedra, points, fields).

    `fields` are per node; "level" is added to them, as the solver interpolates it.
    """
    whole = {"level": level_field(model).astype(np.float64), **fields}
    return tetrahedra(model.nodes, active_rows(model), whole, ("level",))


def active_rows(model: Model) -> dict[int, Array]:
    """Nodes of the active elements of each type, from 0."""
    assert model.element_flags is not None
    active = np.flatnonzero(model.element_flags & EXCLUDED == 0) + 1
    found = {}
    for code in TYPES:
        numbers, rows = model.elements.of_type(code)
        found[code] = rows[np.isin(numbers, active)].astype(np.int64) - 1
    return found


def _owners(model: Model) -> Array:
    """The number of the element that each of `simplices` is of."""
    assert model.element_flags is not None
    active = np.flatnonzero(model.element_flags & EXCLUDED == 0) + 1
    parts = []
    for code, count in TETRAHEDRA_PER_TYPE.items():
        numbers = model.elements.of_type(code)[0]
        parts.append(np.repeat(numbers[np.isin(numbers, active)], count))
    return np.concatenate(parts)


def part_grid(model: Model, fields: dict[str, Array] | None = None) -> pyvista.UnstructuredGrid:
    """The part: the active elements cut off at level zero, with `fields` per node interpolated.

    Cells: "element", the number of the element that they are of.
    """
    pyvista = need("pyvista")
    rows, points, extended = simplices(model, fields or {})
    grid = pyvista.UnstructuredGrid({VTK_CELLS[TET4]: rows}, points)
    grid.cell_data["element"] = _owners(model)
    for name, values in extended.items():
        grid.point_data[name] = values
    grid.point_data["level"] = off_zero(grid.point_data["level"])
    if (grid.point_data["level"] > 0).all():
        return grid
    return grid.clip_scalar(scalars="level", value=0.0, invert=False)


def part_surface(model: Model, fields: dict[str, Array] | None = None) -> pyvista.PolyData:
    """Closed surface of the part in triangles, seen from outside counter-clockwise.

    ValueError if nothing of the mesh is material.
    """
    return surface_of(part_grid(model, fields))


def surface_of(solid: pyvista.UnstructuredGrid) -> pyvista.PolyData:
    """Closed surface of a cut grid, as `part_surface`."""
    if solid.n_cells == 0:
        raise ValueError("the level field leaves no material")
    outside = need("vtkmodules.vtkFiltersGeometry").vtkGeometryFilter()
    outside.SetInputData(solid)
    outside.Update()
    surface = need("pyvista").wrap(outside.GetOutput()).triangulate()
    return surface.compute_normals(
        cell_normals=True, point_normals=False, auto_orient_normals=True, split_vertices=False
    )
