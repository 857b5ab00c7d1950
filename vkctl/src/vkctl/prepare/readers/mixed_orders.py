"""Volumes and surfaces with elements of several orders, of which Gmsh hands over one."""

from __future__ import annotations

from collections import Counter
from types import ModuleType

import numpy as np

from ..part import PartError

# What Gmsh counts over all orders, by dimension.
_COUNTED = {2: ("Triangles", "Quadrangles"), 3: ("Tetrahedra", "Hexahedra", "Prisms", "Pyramids")}
_ENTITIES = {2: "surface", 3: "volume"}


def refuse_orders_mixed(gmsh: ModuleType, title: str) -> None:
    """PartError where a volume or a surface has elements that Gmsh doesn't hand over.

    Of an entity's tetrahedra (or hexahedra, ...) it gives those of the first one's type alone.
    """
    for dimension, names in _COUNTED.items():
        _, given, _ = gmsh.model.mesh.getElements(dimension)
        there = sum(int(gmsh.option.getNumber(f"Mesh.Nb{name}")) for name in names)
        if sum(map(len, given)) < there:
            for _, tag in gmsh.model.getEntities(dimension):
                _refuse_mixed(gmsh, title, dimension, tag)


def _refuse_mixed(gmsh: ModuleType, title: str, dimension: int, tag: int) -> None:
    mesh = gmsh.model.mesh
    for kind, given in zip(*mesh.getElements(dimension, tag)[:2], strict=True):
        every, _ = mesh.getElementsByType(kind, tag)  # of this shape, whatever their order
        lost = np.setdiff1d(every, given)
        if not len(lost):
            continue
        counts = {kind: len(given), **Counter(mesh.getElement(one)[0] for one in lost)}
        found = " and ".join(
            f"{count} {mesh.getElementProperties(kind)[0]}" for kind, count in counts.items()
        )
        raise PartError(
            f"{title}: {_ENTITIES[dimension]} {tag}{_groups(gmsh, dimension, tag)} has elements of "
            f"several orders, {found}; give it elements of one order, or each order a "
            f"{_ENTITIES[dimension]} of its own"
        )


def _groups(gmsh: ModuleType, dimension: int, tag: int) -> str:
    groups = gmsh.model.getPhysicalGroupsForEntity(dimension, tag)
    names = [gmsh.model.getPhysicalName(dimension, group) or str(group) for group in groups]
    return f" (of the physical group {', '.join(names)})" if names else ""
