"""Unstructured meshes of plane outlines with a thickness, by Gmsh."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import gmsh
import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.topology import HEX8, TET4, TET10

from .mesh import Mesh, orient

# Gmsh's type numbers, and where it has the solver's nodes: of 10-node tetrahedra it exchanges the
# last two.
_TYPES: dict[int, tuple[int, list[int]]] = {
    TET4: (4, list(range(4))),
    HEX8: (5, list(range(8))),
    TET10: (11, [0, 1, 2, 3, 4, 5, 6, 7, 9, 8]),
}

Outline = Callable[[Any], int]  # draws into Gmsh's kernel of geometry, gives the surface's tag


def meshed(code: int, outline: Outline, size: float, thickness: float, layers: int) -> Mesh:
    """The outline in free triangles or quadrilaterals of a size; hexahedra stand in layers on it,
    tetrahedra fill the volume freely."""
    gmsh.initialize(interruptible=False)
    try:
        gmsh.option.setNumber("General.Verbosity", 1)
        gmsh.option.setNumber("Mesh.MeshSizeMin", size)
        gmsh.option.setNumber("Mesh.MeshSizeMax", size)
        gmsh.model.add("part")
        surface = outline(gmsh.model.occ)
        straight = [layers] if code == HEX8 else []
        gmsh.model.occ.extrude([(2, surface)], 0, 0, thickness, straight, recombine=code == HEX8)
        gmsh.model.occ.synchronize()
        if code == HEX8:
            gmsh.option.setNumber("Mesh.RecombinationAlgorithm", 3)  # quadrilaterals only
            gmsh.option.setNumber("Mesh.RecombineAll", 1)
        gmsh.model.mesh.generate(3)
        if code == TET10:
            gmsh.model.mesh.setOrder(2)
        return _taken(code)
    finally:
        gmsh.finalize()


def _taken(code: int) -> Mesh:
    kind, places = _TYPES[code]
    _, tags = gmsh.model.mesh.getElementsByType(kind)
    if not len(tags):
        raise RuntimeError("Gmsh made no elements of the wanted type")
    width = len(places)
    numbers, table = np.unique(np.asarray(tags, np.int64), return_inverse=True)
    rows = table.reshape(-1, width)[:, places]
    every, coordinates, _ = gmsh.model.mesh.getNodes()
    where: Array = np.argsort(every)[np.searchsorted(np.sort(every), numbers)]
    nodes = np.asarray(coordinates).reshape(-1, 3)[where]
    return Mesh(nodes, {code: orient(code, nodes, rows)})
