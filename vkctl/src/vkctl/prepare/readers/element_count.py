"""How many elements a part will be meshed with, before it is.

The numbers are fitted to meshes of boxes, plates, spheres and bored blocks: counts come out within
a quarter where one size holds everywhere, within a factor of two where curvature refines. Fields
of mesh sizes in a script aren't seen.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, replace
from types import ModuleType

import numpy as np

from vkctl.basics.types import Array

from ..part import MeshOptions

_VOLUME_PER_TETRAHEDRON = 0.23  # in cubes of the size
_TETRAHEDRA_PER_SQUARE = 2.5  # more of them at a face, for each square of the size
_TRIANGLES_PER_SQUARE = 2.45
_REFINED_PER_SQUARE = 8.0  # where a face is finer than the part: the size grows away from it
_BYTES_PER_TRIANGLE = 1800.0
_BYTES_PER_TETRAHEDRON = {1: 1100.0, 2: 2600.0}  # by order, the model made of the mesh included
_BYTES_AT_LEAST = 1.5e8
_SAMPLES = (0.1, 0.5, 0.9)  # of a face's parameters, where its curvature is looked at
_LARGEST_SIZE = 1e22


@dataclass(frozen=True)
class Face:
    """A face's area, and the sizes that its elements have at most."""

    area: float
    radius: float = math.inf  # the smallest of curvature
    size: float = math.inf  # what the geometry itself demands


@dataclass(frozen=True)
class Extents:
    """What the count of elements follows from."""

    volume: float
    faces: tuple[Face, ...]
    hexahedra: bool = False


@dataclass(frozen=True)
class Expected:
    """Counts to expect, and the memory that the mesh and the model made of it need."""

    elements: float
    triangles: float
    bytes: float


def expected(extents: Extents, size: float, options: MeshOptions) -> Expected:
    """Elements of a part of these extents at a largest edge length `size`."""
    least = options.smallest_size or 0.0
    if extents.hexahedra:
        return _of_hexahedra(extents, options)
    plain = refined = triangles = 0.0
    refined_area = finest = 0.0
    for face in extents.faces:
        curved = 2 * math.pi * face.radius / options.per_circle if options.per_circle else math.inf
        own = max(min(size, face.size, curved), least)
        triangles += _TRIANGLES_PER_SQUARE * face.area / own**2
        if own < 0.9 * size:
            refined += _REFINED_PER_SQUARE * face.area / own**2
            refined_area += face.area
            finest += face.area / own**3
        else:
            plain += _TETRAHEDRA_PER_SQUARE * face.area / own**2
    inside = extents.volume / (_VOLUME_PER_TETRAHEDRON * size**3)
    if refined_area:
        # Where nearly all faces are refined their size fills the part.
        whole = sum(face.area for face in extents.faces)
        share = (refined_area / whole) ** 4
        filled = extents.volume / _VOLUME_PER_TETRAHEDRON * finest / refined_area + refined / 4
        refined = share * filled + (1 - share) * min(refined, filled)
    elements = inside + plain + refined
    per_element = _BYTES_PER_TETRAHEDRON[options.order]
    memory = _BYTES_AT_LEAST + _BYTES_PER_TRIANGLE * triangles + per_element * elements
    return Expected(elements, triangles, memory)


def _of_hexahedra(extents: Extents, options: MeshOptions) -> Expected:
    """Layers that a script demands: what is seen of them outside goes on inside."""
    whole = sum(face.area for face in extents.faces)
    cells = [face.area / face.size**2 for face in extents.faces]
    elements = extents.volume * (sum(cells) / whole) ** 1.5
    memory = _BYTES_AT_LEAST + _BYTES_PER_TRIANGLE * sum(cells)
    return Expected(
        elements, sum(cells), memory + 2 * _BYTES_PER_TETRAHEDRON[options.order] * elements
    )


def fitting_size(
    extents: Extents, size: float, options: MeshOptions, most_bytes: float
) -> float | None:
    """The smallest size, in two digits, whose mesh fits into the memory; None if none does."""
    low, high = math.log(size), math.log(size) + 30
    if expected(extents, math.exp(high), options).bytes > most_bytes:
        return None
    for _ in range(60):
        middle = (low + high) / 2
        fits = expected(extents, math.exp(middle), options).bytes <= most_bytes
        low, high = (low, middle) if fits else (middle, high)
    digit = 10.0 ** (math.floor(high / math.log(10)) - 1)
    return math.ceil(math.exp(high) / digit) * digit


def measured(gmsh: ModuleType) -> Extents:
    """Extents of the geometry that Gmsh has loaded."""
    try:
        volume = sum(gmsh.model.occ.getMass(*solid) for solid in gmsh.model.getEntities(3))
        areas = {tag: gmsh.model.occ.getMass(2, tag) for _, tag in gmsh.model.getEntities(2)}
    except Exception:  # of geometry that isn't OpenCASCADE's
        return _of_coarsest_mesh(gmsh)
    faces = tuple(
        Face(area, _radius(gmsh, tag), _size_at_points(gmsh, tag)) for tag, area in areas.items()
    )
    return Extents(volume, faces)


def _radius(gmsh: ModuleType, tag: int) -> float:
    """The smallest radius of curvature of a face, at a few of its points."""
    try:
        low, high = gmsh.model.getParametrizationBounds(2, tag)
        points = [
            (low[0] + u * (high[0] - low[0]), low[1] + v * (high[1] - low[1]))
            for u in _SAMPLES
            for v in _SAMPLES
        ]
        curvature = np.abs(gmsh.model.getCurvature(2, tag, np.ravel(points)))
    except Exception:  # of a face without parameters
        return math.inf
    largest = float(curvature.max(initial=0.0))
    return 1 / largest if 0 < largest < math.inf else math.inf


def _size_at_points(gmsh: ModuleType, tag: int) -> float:
    """The mean of the sizes that a script gives the corners of a face; infinite without any."""
    if not gmsh.option.getNumber("Mesh.MeshSizeFromPoints"):
        return math.inf
    corners = gmsh.model.getBoundary([(2, tag)], recursive=True)
    sizes = np.asarray(gmsh.model.mesh.getSizes(corners)) if corners else np.empty(0)
    given = sizes[(sizes > 0) & (sizes < _LARGEST_SIZE)]
    return float(given.mean()) if len(given) else math.inf


def _of_coarsest_mesh(gmsh: ModuleType) -> Extents:
    """Extents of a surface mesh as coarse as the geometry lets it be; its sizes are the most."""
    kept = {
        name: gmsh.option.getNumber(name)
        for name in ("Mesh.MeshSizeMax", "Mesh.MeshSizeFromPoints", "Mesh.ElementOrder")
    }
    for name, value in zip(kept, (_LARGEST_SIZE, 0, 1), strict=True):
        gmsh.option.setNumber(name, value)
    gmsh.model.mesh.generate(2)
    labels, points, _ = gmsh.model.mesh.getNodes()
    where = np.zeros((int(np.max(labels, initial=0)) + 1, 3))
    where[np.asarray(labels, np.int64)] = np.reshape(points, (-1, 3))
    low, high = np.reshape(gmsh.model.getBoundingBox(-1, -1), (2, 3))
    middle = (low + high) / 2
    faces, inside, quadrangles = [], {}, 0
    for _, tag in gmsh.model.getEntities(2):
        corners, squares = _triangles(gmsh, tag, where)
        normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
        area = float(np.linalg.norm(normals, axis=1).sum()) / 2
        inside[tag] = abs(float(np.einsum("ij,ij->", corners[:, 0] - middle, normals)) / 6)
        size = math.sqrt(area * (1.0 if squares else _TRIANGLES_PER_SQUARE) / max(len(corners), 1))
        faces.append(Face(area, size=size * (math.sqrt(2) if squares else 1.0)))
        quadrangles += squares
    # Of pyramids over the faces: exact where all faces are seen from the middle, too much else.
    around = [
        tag
        for solid in gmsh.model.getEntities(3)
        for _, tag in gmsh.model.getBoundary([solid], oriented=False)
    ]
    volume = min(sum(inside[abs(tag)] for tag in around), float(np.prod(high - low)))
    gmsh.model.mesh.clear()
    for name, value in kept.items():
        gmsh.option.setNumber(name, value)
    with_sizes = [
        replace(face, size=min(face.size, _size_at_points(gmsh, tag)))
        for face, (_, tag) in zip(faces, gmsh.model.getEntities(2), strict=True)
    ]
    return Extents(volume, tuple(with_sizes), hexahedra=quadrangles > 0)


def _triangles(gmsh: ModuleType, tag: int, where: Array) -> tuple[Array, int]:
    """Corners (k, 3, 3) of a face's triangles, quadrangles cut in two, and how many those were."""
    kinds, _, rows = gmsh.model.mesh.getElements(2, tag)
    found, squares = [np.empty((0, 3), np.int64)], 0
    for kind, flat in zip(kinds, rows, strict=True):
        width = {2: 3, 3: 4}.get(int(kind))
        if width is None:
            continue
        table = np.asarray(flat, np.int64).reshape(-1, width)
        found.append(table[:, :3])
        if width == 4:
            found.append(table[:, [0, 2, 3]])
            squares += len(table)
    return where[np.concatenate(found)], squares
