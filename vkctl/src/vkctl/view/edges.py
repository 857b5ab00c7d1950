"""Edges of elements on a part's surface, which is drawn in triangles."""

from __future__ import annotations

from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array

if TYPE_CHECKING:
    import pyvista

_BENT = np.cos(np.radians(30.0))  # two faces of one element meet at more, its own triangles at less
_CUT = 1e-6  # of the largest level: what cutting at level zero leaves of it


def element_edges(surface: pyvista.PolyData) -> Array:
    """Pairs (k, 2) of the surface's points: edges between elements, and between an element's faces.

    The surface has the cell data "element" and the point data "level" of `part_grid`. Where level
    zero cuts an element, the triangles of the cut are one face.
    """
    triangles = surface.faces.reshape(-1, 4)[:, 1:].astype(np.int64)
    ends = np.sort(np.stack((triangles, np.roll(triangles, -1, axis=1)), axis=2), axis=2)
    keys = (ends[..., 0] * surface.n_points + ends[..., 1]).ravel()
    order = np.argsort(keys, kind="stable")
    met = np.flatnonzero(keys[order][1:] == keys[order][:-1])
    one, other = order[met] // 3, order[met + 1] // 3
    element = np.asarray(surface.cell_data["element"])
    inner = (element[one] == element[other]) & ~_corner(surface, triangles, one, other)
    drawn = np.ones(len(keys), np.bool_)
    drawn[order[met[inner]]] = drawn[order[met[inner] + 1]] = False
    pairs: Array = ends.reshape(-1, 2)[drawn][np.unique(keys[drawn], return_index=True)[1]]
    return pairs


def _corner(surface: pyvista.PolyData, triangles: Array, one: Array, other: Array) -> Array:
    """Mask of the pairs of triangles that lie on two faces of an element."""
    level = np.abs(np.asarray(surface.point_data["level"]))
    cut = (level <= _CUT * level.max(initial=0.0))[triangles].all(axis=1)
    points = np.asarray(surface.points, np.float64)
    a, b, c = (points[triangles[:, k]] for k in range(3))
    across = np.cross(b - a, c - a)
    length = np.linalg.norm(across, axis=1, keepdims=True)
    normals = np.divide(across, length, out=np.zeros_like(across), where=length > 0)
    bent = (normals[one] * normals[other]).sum(axis=1) < _BENT
    found: Array = bent & ~(cut[one] & cut[other])
    return found


def edge_lines(surface: pyvista.PolyData, points: Array) -> pyvista.PolyData:
    """The edges as lines between places of the surface's points."""
    pairs = element_edges(surface)
    cells = np.column_stack((np.full(len(pairs), 2), pairs)).ravel()
    return need("pyvista").PolyData(points, lines=cells)
