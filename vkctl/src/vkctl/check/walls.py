"""Walls: outer faces of linear elements, each with the way to the opposite one.

From the middle of each outer face a ray goes inwards, from element to element, to where it comes
out: how far that is and how many elements lie between.
"""

from __future__ import annotations

from dataclasses import dataclass, fields

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.faces import face_keys, row_identities
from vkctl.shapes.topology import FACES, HEX8, TET4

from .inputs import ActiveMesh

_MOST_CROSSED = {TET4: 24, HEX8: 12}  # elements that a ray goes through before it gives up
_FACING = 0.7  # cosine between a ray and the normal of the face that it leaves by
_OPPOSITE = np.array((1, 0, 4, 5, 2, 3))  # faces of a hexahedron
_OUTSIDE, _SEAM = -1, -2  # of faces without a partner: the surface, elements of another type


@dataclass
class Walls:
    """Outer faces that have an opposite one: a row for each."""

    element: Array  # number
    corners: Array  # (k, 4) node numbers; the last of a triangle is its first
    normal: Array  # (k, 3), outwards
    area: Array
    thickness: Array
    across: Array  # elements between the two faces
    code: Array  # type of the element


def chosen(walls: Walls, mask: Array) -> Walls:
    return Walls(*(getattr(walls, field.name)[mask] for field in fields(Walls)))


def joined(parts: list[Walls]) -> Walls:
    return Walls(*(np.concatenate([getattr(w, f.name) for w in parts]) for f in fields(Walls)))


@dataclass(frozen=True)
class Rays:
    """From the middle of each of some faces inwards, no further than `deepest`."""

    face: Array  # rows of the table of faces
    origin: Array  # (k, 3)
    direction: Array  # (k, 3)
    deepest: float


def find_walls(mesh: ActiveMesh, code: int, deepest: float) -> Walls | None:
    """The outer faces of the elements of a linear type from which a ray finds an opposite one."""
    numbers, rows = mesh.blocks.get(code, (None, None))
    if numbers is None or rows is None or not len(rows):
        return None
    local = FACES[code]
    faces = rows[:, local].reshape(-1, local.shape[1])
    partner = _partners(faces)
    other = np.zeros(len(mesh.nodes) + 1, np.bool_)
    for kind, (_, table) in mesh.blocks.items():
        if kind != code:
            other[table] = True
    outer = np.flatnonzero(partner == _OUTSIDE)
    partner[outer[other[faces[outer]].all(axis=1)]] = _SEAM
    outer = outer[partner[outer] == _OUTSIDE]
    corners = mesh.nodes[faces[outer] - 1]
    middle = corners.mean(axis=1)
    first, second = ((0, 2), (1, 3)) if code == HEX8 else ((0, 1), (0, 2))
    spanned = 0.5 * np.cross(
        corners[:, first[1]] - corners[:, first[0]], corners[:, second[1]] - corners[:, second[0]]
    )
    area = np.linalg.norm(spanned, axis=1)
    normal = spanned / np.maximum(area, 1e-300)[:, None]
    cross = _cross_hexahedra if code == HEX8 else _cross_tetrahedra
    rays = Rays(outer, middle, -normal, deepest)
    depth, across = cross(mesh.nodes, rows, faces, partner, rays)
    seen = np.isfinite(depth) & (depth > 0)
    codes = np.full(len(outer), code)
    shown = faces[outer] if code == HEX8 else faces[outer][:, [0, 1, 2, 0]]
    walls = Walls(numbers[outer // len(local)], shown, normal, area, depth, across, codes)
    return chosen(walls, seen)


def _partners(faces: Array) -> Array:
    """The face that each face lies on, _OUTSIDE where it is on none."""
    keys = row_identities(face_keys(faces))
    order = np.argsort(keys, kind="stable")
    same = np.flatnonzero(keys[order][1:] == keys[order][:-1])
    partner = np.full(len(faces), _OUTSIDE)
    partner[order[same]], partner[order[same + 1]] = order[same + 1], order[same]
    return partner


def _cross_hexahedra(
    nodes: Array, rows: Array, faces: Array, partner: Array, rays: Rays
) -> tuple[Array, Array]:
    """Depth of each ray, NaN where it finds no end, and how many elements it crosses."""
    depth, across = np.full(len(rays.face), np.nan), np.ones(len(rays.face))
    going, face = np.arange(len(rays.face)), rays.face
    for crossed in range(1, _MOST_CROSSED[HEX8] + 1):
        out = face - face % 6 + _OPPOSITE[face % 6]
        at = nodes[faces[out] - 1].mean(axis=1) - rays.origin[going]
        along = (at * rays.direction[going]).sum(axis=1)
        facing = along > _FACING * np.linalg.norm(at, axis=1)
        ends = partner[out] == _OUTSIDE
        depth[going[ends]] = np.where(facing, along, np.nan)[ends]
        across[going[ends]] = crossed
        goes_on = (partner[out] >= 0) & (along < rays.deepest)
        going, face = going[goes_on], partner[out[goes_on]]
        if not len(going):
            break
    return depth, across


def _cross_tetrahedra(
    nodes: Array, rows: Array, faces: Array, partner: Array, rays: Rays
) -> tuple[Array, Array]:
    """The same; elements across are the depth over the mean extent of the crossed ones."""
    depth, across = np.full(len(rays.face), np.nan), np.ones(len(rays.face))
    extents = np.zeros(len(rays.face))
    going, element = np.arange(len(rays.face)), rays.face // 4
    for crossed in range(1, _MOST_CROSSED[TET4] + 1):
        corners = nodes[rows[element] - 1]
        leaves_by, distance, facing, extent = _leave(
            corners, rays.origin[going], rays.direction[going]
        )
        extents[going] += extent
        out = 4 * element + leaves_by
        ends = partner[out] == _OUTSIDE
        place = going[ends]
        depth[place] = np.where(facing, distance, np.nan)[ends]
        across[place] = depth[place] * crossed / np.maximum(extents[place], 1e-300)
        goes_on = (partner[out] >= 0) & (distance < rays.deepest)
        going, element = going[goes_on], partner[out[goes_on]] // 4
        if not len(going):
            break
    return depth, across


def _leave(corners: Array, origin: Array, ray: Array) -> tuple[Array, Array, Array, Array]:
    """Where rays leave the tetrahedra (k, 4, 3) that they go through.

    The face that they leave by, the distance from their origin, whether the face stands across
    them, and the extent of the tetrahedra along them.
    """
    along = ((corners - origin[:, None]) * ray[:, None]).sum(axis=2)
    side = corners[:, FACES[TET4]]
    outward = np.cross(side[:, :, 1] - side[:, :, 0], side[:, :, 2] - side[:, :, 0])
    size = np.linalg.norm(outward, axis=2)
    slope = (outward * ray[:, None]).sum(axis=2)
    reach = ((side[:, :, 0] - origin[:, None]) * outward).sum(axis=2)
    leaving = slope > 1e-9 * size
    distances = np.where(leaving, reach / np.where(leaving, slope, 1.0), np.inf)
    leaves_by = distances.argmin(axis=1)
    each = np.arange(len(corners))
    facing = slope[each, leaves_by] > _FACING * size[each, leaves_by]
    return leaves_by, distances[each, leaves_by], facing, np.ptp(along, axis=1)
