"""Thin regions of linear elements, which come out too stiff where they are bent.

A linear element can't bend: it shears instead, the more so the longer it is than thick (R. H.
MacNeal, Finite Elements: Their Design and Performance, 1994, chapter 6). In n layers of hexahedra
of the length a and the thickness h, a plate's bending stiffness is too large by

    ((1 + (1 - nu) / 2 (a / h)^2) / (1 - nu^2) - 1) / n^2

of itself, here for a Poisson's ratio of 0.3. For tetrahedra, whose strain is constant,
(3 + (a / h)^2) / n^2 fits bars and plates of both regular and free meshes.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted
from vkctl.directory.formats import file_names
from vkctl.directory.numbering import prescribed_rows
from vkctl.shapes.groups import groups_of_links
from vkctl.shapes.topology import HEX8, TET4

from .findings import Finding, warning
from .inputs import ActiveMesh, Inputs, elements_listed
from .walls import Walls, chosen, find_walls, joined

_SLENDER = 5.0  # extent of a region in thicknesses from which it is called thin
_WORTH_TELLING = 0.1  # part of a deflection that is lost
_PUSHED = 1e-4  # part of the squared loads that is normal to a region and can bend it
_SMOOTH = 0.5  # cosine between the normals of neighbouring faces of one region
_POISSON = 0.3


@dataclass(frozen=True)
class Region:
    """A smooth piece of surface over thin material: means over its faces by their areas."""

    number: int
    thickness: float
    extent: float
    across: float
    excess: float


def excess_of(code: Array, aspect: Array, across: Array) -> Array:
    """By how much of itself the bending stiffness of linear elements is too large.

    `aspect` is an element's length along the plate over its thickness, `across` their number.
    """
    of_hexahedra = (1 + (1 - _POISSON) / 2 * aspect**2) / (1 - _POISSON**2) - 1
    excess: Array = np.where(code == HEX8, of_hexahedra, 3 + aspect**2) / across**2
    return excess


def lost(excess: Array | float) -> Array:
    """The part of a deflection that is missing."""
    part: Array = np.asarray(excess / (1 + excess))
    return part


def check_thin(inputs: Inputs) -> Iterator[Finding]:
    """Regions that are thin, are pushed across, and have too few linear elements across."""
    mesh = inputs.mesh
    if mesh is None or not np.isfinite(mesh.nodes[mesh.used]).all():
        return
    pushes = _pushes(inputs)
    deepest = mesh.extent / _SLENDER
    found = [w for code in (TET4, HEX8) if (w := find_walls(mesh, code, deepest)) is not None]
    if not found or not pushes:
        return
    walls = joined(found)
    points = mesh.nodes[walls.corners - 1]
    widest = np.linalg.norm(points.max(axis=1) - points.min(axis=1), axis=1)
    excess = excess_of(walls.code, widest * walls.across / walls.thickness, walls.across)
    walls = chosen(walls, lost(excess) >= _WORTH_TELLING)
    region = _regions(walls)
    thin = _thin_and_pushed(mesh, walls, region, pushes)
    if thin:
        elements = distinct(walls.element[np.isin(region, [t.number for t in thin])])
        yield _finding(mesh, elements, max(thin, key=lambda t: t.excess))


def _finding(mesh: ActiveMesh, elements: Array, worst: Region) -> Finding:
    across = counted(max(1, round(worst.across)), "element")
    text = (
        f"{elements_listed(mesh, elements)} are linear and lie in thin regions: at worst "
        f"{worst.thickness:.3g} thick, {worst.extent:.3g} long, with {across} across. Where it is "
        f"bent, deflections may come out up to {100 * lost(worst.excess):.0f} % too small."
    )
    hint = "Use 10-node tetrahedra there, or more elements across."
    return warning("thin-linear", text, file_names.ELEMENTS, hint)


def _pushes(inputs: Inputs) -> list[Array]:
    """For each load case the mean of d d^T over its loads' directions d, a matrix (3, 3)."""
    found = []
    for number in inputs.sound_maps:
        sections = inputs.maps[number]
        forces = np.concatenate((sections.forces2["Force"], sections.forces3["Force"]))
        forces = forces[np.isfinite(forces).all(axis=1)].astype(np.float64)
        rows, _, direction = prescribed_rows(sections.constraints)
        moved = sections.constraints["Value"][rows, direction]
        total = forces.T @ forces
        if np.trace(total) == 0:
            total = np.diag(np.bincount(direction, moved.astype(np.float64) ** 2, 3))
        if np.trace(total) == 0 and len(sections.scalars):
            total = np.eye(3)  # heat bends any way
        if np.isfinite(total).all() and np.trace(total) > 0:
            found.append(total / np.trace(total))
    return found


def _thin_and_pushed(
    mesh: ActiveMesh, walls: Walls, region: Array, pushes: list[Array]
) -> list[Region]:
    """The regions that are thin and that some load case pushes across."""
    count = int(region.max(initial=-1)) + 1
    points = mesh.nodes[walls.corners - 1]
    low, high = np.full((count, 3), np.inf), np.full((count, 3), -np.inf)
    np.minimum.at(low, region, points.min(axis=1))
    np.maximum.at(high, region, points.max(axis=1))
    extent = (high - low).max(axis=1, initial=0.0)
    area = np.bincount(region, walls.area, count)

    def mean(values: Array) -> Array:
        found: Array = np.bincount(region, walls.area * values, count) / area
        return found

    length = np.ptp(
        (points * _long_axes(points, region, count)[region][:, None]).sum(axis=2), axis=1
    )
    excess = mean(excess_of(walls.code, length * walls.across / walls.thickness, walls.across))
    thickness, across = mean(walls.thickness), mean(walls.across)
    pushed = np.zeros(count, np.bool_)
    for push in pushes:
        pushed |= mean(np.einsum("ki,ij,kj->k", walls.normal, push, walls.normal)) > _PUSHED
    return [
        Region(int(k), float(thickness[k]), float(extent[k]), float(across[k]), float(excess[k]))
        for k in np.flatnonzero(
            pushed & (extent >= _SLENDER * thickness) & (lost(excess) >= _WORTH_TELLING)
        )
    ]


def _long_axes(points: Array, region: Array, count: int) -> Array:
    """The direction in which each region is longest (count, 3): bending is strongest along it."""
    middle = points.mean(axis=1)
    share = np.bincount(region, minlength=count)[:, None]
    centre = np.column_stack([np.bincount(region, middle[:, k], count) for k in range(3)]) / share
    arm = middle - centre[region]
    spread = np.empty((count, 3, 3))
    for i in range(3):
        for j in range(3):
            spread[:, i, j] = np.bincount(region, arm[:, i] * arm[:, j], count)
    axes: Array = np.linalg.eigh(spread)[1][:, :, 2]
    return axes


def _regions(walls: Walls) -> Array:
    """Number of the smooth piece of surface that each wall belongs to."""
    count = len(walls.element)
    ends = np.sort(np.stack((walls.corners, np.roll(walls.corners, -1, axis=1)), axis=2), axis=2)
    edges = ends.reshape(-1, 2).astype(np.int64)
    keys = edges @ np.array((int(edges.max(initial=0)) + 1, 1))
    wall = np.repeat(np.arange(count), 4)
    order = np.argsort(keys, kind="stable")
    same = np.flatnonzero(keys[order][1:] == keys[order][:-1])
    a, b = wall[order[same]], wall[order[same + 1]]
    smooth = (walls.normal[a] * walls.normal[b]).sum(axis=1) > _SMOOTH
    return groups_of_links(count, a[smooth], b[smooth])
