"""A mesh as tetrahedra, from which the part is cut out at level zero."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.levels import level_field, off_zero
from vkctl.directory.model import Model
from vkctl.shapes.cutting import Body, Surface, body, surface
from vkctl.shapes.simplices import at_points, tetrahedra

from .grid import active_rows


@dataclass(frozen=True)
class MeshBody:
    """What doesn't change with the levels: made once for many surfaces."""

    rows: dict[int, Array]  # nodes of the elements that aren't left out, by type
    body: Body


def mesh_body(model: Model) -> MeshBody:
    rows = active_rows(model)
    tets, points, _ = tetrahedra(model.nodes, rows, {})
    return MeshBody(rows, body(points, tets, len(model.nodes)))


def cut_part(of: MeshBody, model: Model) -> Surface:
    """The surface at level zero and, where the mesh ends before it, of the mesh.

    ValueError if nothing is material.
    """
    levels = at_points(level_field(model).astype(np.float64), of.rows, of_corners=True)
    found = surface(of.body, off_zero(levels))
    if not len(found.triangles):
        raise ValueError("the level field leaves no material")
    return found
