"""A surface with fewer triangles, where there are more than a browser can turn."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need

if TYPE_CHECKING:
    import pyvista

_TRIES = 8
_ENOUGH = 0.8  # of the triangles allowed: no finer one is looked for


def simplified(surface: pyvista.PolyData, most: int) -> pyvista.PolyData:
    """At most `most` triangles between points of the surface, which keep their data.

    Points in one cell of a regular grid become one of them; the grid is as fine as `most` allows.
    """
    low, high = 1, 1 << 14  # cells over the longest side: enough, and too many
    cells = max(2, int(np.sqrt(most / 6)))
    best = None
    for _ in range(_TRIES):
        found = _binned(surface, cells)
        if found.n_cells > most:
            high = cells
            cells = max(low, int(cells * np.sqrt(_ENOUGH * most / found.n_cells)))
        else:
            low = cells
            if best is None or found.n_cells > best.n_cells:
                best = found
            if found.n_cells > _ENOUGH * most:
                break
            cells = int(cells * min(2.0, np.sqrt(0.95 * most / max(found.n_cells, 1)))) + 1
        cells = min(max(cells, low), high - 1) if high > low + 1 else low
    return best if best is not None else _binned(surface, 1)


def _binned(surface: pyvista.PolyData, cells: int) -> Any:
    """The surface with one of the points in each cell of a grid for all of them."""
    extents = np.array(surface.bounds).reshape(3, 2) @ np.array((-1.0, 1.0))
    size = float(extents.max()) / cells or 1.0
    module = need("vtkmodules.vtkFiltersCore")
    binned = module.vtkBinnedDecimation()
    binned.SetInputData(surface)
    binned.SetPointGenerationModeToUseInputPoints()
    binned.ProducePointDataOn()
    binned.AutoAdjustNumberOfDivisionsOff()
    # Two layers at least, or both sides of a thin part would become one.
    binned.SetNumberOfDivisions(*(max(2, int(np.ceil(extent / size))) for extent in extents))
    binned.Update()
    return need("pyvista").wrap(binned.GetOutput())
