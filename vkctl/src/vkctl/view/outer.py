"""The mesh's own surface, which pictures of what is prepared are drawn on."""

from __future__ import annotations

from dataclasses import dataclass
from typing import TYPE_CHECKING

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import boundary_faces, face_triangles

if TYPE_CHECKING:
    import pyvista


@dataclass(frozen=True)
class Outer:
    """Triangles of the mesh's surface, and where it faces at its nodes."""

    surface: pyvista.PolyData
    normals: Array  # (n, 3) of all nodes, outward unit vectors; zeros inside


def active_part(model: Model) -> Elements:
    """The elements that aren't left out; ValueError where there is none."""
    assert model.element_flags is not None
    return chosen_elements(model, np.flatnonzero(model.element_flags & EXCLUDED == 0) + 1)


def chosen_elements(model: Model, numbers: Array) -> Elements:
    """Some elements as a mesh of their own, on the same nodes; ValueError where there is none."""
    elements = model.elements
    if not len(numbers):
        raise ValueError("there are no elements to draw: all are left out")
    place = np.asarray(numbers) - 1
    return Elements(
        elements.type_codes[place],
        elements.materials[place],
        elements.conn_index[place],
        elements.tet4,
        elements.hex8,
        elements.tet10,
    )


def outer(model: Model, elements: Elements) -> Outer:
    """The surface of elements of a model."""
    triangles = face_triangles(boundary_faces(elements)) - 1
    surface = triangle_mesh(model, triangles)
    corners = model.nodes[triangles]
    across = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    normals = np.zeros_like(model.nodes)
    for axis in range(3):
        parts = np.repeat(across[:, axis], 3)
        normals[:, axis] = np.bincount(triangles.ravel(), parts, len(normals))
    length = np.linalg.norm(normals, axis=1, keepdims=True)
    return Outer(surface, np.divide(normals, length, out=normals, where=length > 0))


def triangle_mesh(model: Model, triangles: Array) -> pyvista.PolyData:
    """Triangles (k, 3) of 0-based nodes as a surface that has no other points."""
    used, local = np.unique(triangles, return_inverse=True)
    rows = local.reshape(-1, 3)
    faces = np.column_stack((np.full(len(rows), 3), rows)).ravel()
    return need("pyvista").PolyData(model.nodes[used], faces)


def edges_of(surface: pyvista.PolyData) -> pyvista.PolyData:
    """Sharp edges and rims."""
    return surface.extract_feature_edges(feature_angle=40.0)
