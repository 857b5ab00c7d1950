"""A closed surface of triangles (.stl) as a body of tetrahedra, for the reading process alone.

Only surfaces that vkctl has written come here: strangers' parts have no such ending.
"""

from __future__ import annotations

import math
from types import ModuleType

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.shapes.measures import NEARLY_NO_VOLUME

from ..part import MeshOptions, Part, PartError
from .element_count import Extents, Face, expected
from .gmsh import Tell, collect, failure, memory_words, rounded, session

_TRIANGLES_PER_SQUARE = 4 / math.sqrt(3)  # equilateral ones, of their side
_FILLED = 0.999  # of the surface's volume; a mesh with less has holes
_NEARLY_FLAT = 10 * NEARLY_NO_VOLUME
_TET4 = 4  # as Gmsh calls its type
_FRONTAL = 4  # and its mesher that goes inwards from the surface


def mesh_surface(
    path: PathLike, title: str, options: MeshOptions, *, most_bytes: int, tell: Tell
) -> Part:
    """The body within the surface, whose own triangles are those of its mesh.

    `options.size` is the largest edge inside; without it edges grow out of the surface's own.
    """
    with session(options.threads) as gmsh:
        try:
            gmsh.merge(str(path))
            gmsh.model.mesh.createTopology()
            shells = _shells(gmsh)
            for walls in _bodies(shells):
                gmsh.model.geo.addVolume([gmsh.model.geo.addSurfaceLoop(walls)])
            gmsh.model.geo.synchronize()
            corners = np.concatenate(list(shells.values()))
            _announce(title, corners, options, most_bytes, tell)
            gmsh.option.setNumber("Mesh.MeshOnlyEmpty", 1)
            if options.size is not None:
                gmsh.option.setNumber("Mesh.MeshSizeMax", options.size)
            gmsh.model.mesh.generate(3)
            if _has_flat(gmsh):
                _mend(gmsh)
            if options.order > 1:
                gmsh.model.mesh.setOrder(options.order)
        except PartError:
            raise
        except Exception as error:
            raise failure(gmsh, title, error) from None
        part = collect(gmsh, False)
    _refuse_unfilled(title, part, _enclosed(corners))
    # Gmsh's entities of this mesh aren't those of the part that the surface was cut out of.
    part.node_sets, part.element_sets, part.surfaces = {}, {}, {}
    part.meshed = True
    return part


def _mend(gmsh: ModuleType) -> None:
    """Take flat tetrahedra away, in three times as long; with another mesher if they stay."""
    gmsh.model.mesh.optimize("Netgen", force=True)
    if _has_flat(gmsh):
        gmsh.model.mesh.clear(gmsh.model.getEntities(3))
        gmsh.option.setNumber("Mesh.Algorithm3D", _FRONTAL)
        gmsh.model.mesh.generate(3)
        gmsh.model.mesh.optimize("Netgen", force=True)


def _has_flat(gmsh: ModuleType) -> bool:
    """Whether a tetrahedron is next to one that would be refused."""
    points = _points_by_label(gmsh)
    _, rows = gmsh.model.mesh.getElementsByType(_TET4)
    corners = points[np.reshape(np.asarray(rows, np.int64), (-1, 4))]
    edges = corners[:, 1:] - corners[:, :1]
    longest = np.linalg.norm(edges, axis=2).max(axis=1, initial=0.0)
    return bool(np.any(np.abs(np.linalg.det(edges)) / 6 <= _NEARLY_FLAT * longest**3))


def _shells(gmsh: ModuleType) -> dict[int, Array]:
    """Corners (f, 3, 3) of each piece of the surface that hangs together, by Gmsh's tag."""
    where = _points_by_label(gmsh)
    found = {}
    for _, tag in gmsh.model.getEntities(2):
        _, rows = gmsh.model.mesh.getElementsByType(2, tag)
        found[tag] = where[np.reshape(np.asarray(rows, np.int64), (-1, 3))]
    return found


def _points_by_label(gmsh: ModuleType) -> Array:
    """Where the node of each label is, 0 where there is none."""
    labels, points, _ = gmsh.model.mesh.getNodes(returnParametricCoord=False)
    where = np.zeros((int(np.max(labels, initial=0)) + 1, 3))
    where[np.asarray(labels, np.int64)] = np.reshape(points, (-1, 3))
    return where


def _bodies(shells: dict[int, Array]) -> list[list[int]]:
    """Tags of each body's shells: the outer one, then the walls of the cavities within it."""
    volumes = {tag: _enclosed(corners) for tag, corners in shells.items()}
    found = {
        tag: [tag] for tag in sorted(volumes, key=lambda tag: volumes[tag]) if volumes[tag] > 0
    }
    for tag, corners in shells.items():
        if volumes[tag] <= 0:
            around = next((outer for outer in found if _is_within(corners, shells[outer])), None)
            if around is not None:
                found[around].append(tag)
    return list(found.values())


def _is_within(inner: Array, outer: Array) -> bool:
    low, high = outer.min(axis=(0, 1)), outer.max(axis=(0, 1))
    return bool(np.all(inner >= low) and np.all(inner <= high))


def _enclosed(corners: Array) -> float:
    """Volume within a surface, negative for the walls of a cavity."""
    return float(np.linalg.det(corners - corners.mean(axis=(0, 1))).sum()) / 6


def _announce(
    title: str, corners: Array, options: MeshOptions, most_bytes: int, tell: Tell
) -> None:
    """Tell how many elements there will be; PartError where the memory isn't there for them."""
    across = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    area = float(np.linalg.norm(across, axis=1).sum()) / 2
    own = math.sqrt(_TRIANGLES_PER_SQUARE * area / max(len(corners), 1))
    size = min(own, options.size or own)
    extents = Extents(_enclosed(corners), (Face(area, size=own),))
    count = expected(extents, size, options)
    text = (
        f"about {rounded(count.elements)} elements expected, {memory_words(count.bytes)} of memory"
    )
    if most_bytes and count.bytes > most_bytes:
        raise PartError(
            f"{title}: {text}, but {memory_words(most_bytes)} are there: take a larger size"
        )
    tell("estimate", {"elements": count.elements, "text": text})


def _refuse_unfilled(title: str, part: Part, wanted: float) -> None:
    """Where the surface meets itself Gmsh may leave some of it empty without a word."""
    place = np.argsort(part.labels)
    found = 0.0
    for _, _, rows in part.solids:
        corners = part.points[place[np.searchsorted(part.labels[place], rows[:, :4])]]
        found += abs(float(np.linalg.det(corners[:, 1:] - corners[:, :1]).sum())) / 6
    if not part.solids:
        raise PartError(f"{title}: Gmsh makes no tetrahedra within it")
    if found < _FILLED * wanted:
        raise PartError(f"{title}: Gmsh fills {100 * found / wanted:.1f} % of it only")
