"""The face that a plane cuts through the part: its area and centre."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.simplices import tetrahedra
from vkctl.shapes.topology import TYPES
from vkctl.stress import Solution

# Edges (ends) of a tetrahedron that a plane crosses, its corners ordered from the furthest beyond
# the plane to the furthest behind: by how many corners are beyond, one triangle after the other.
_CROSSED = {
    1: (((0, 1), (0, 2), (0, 3)),),
    2: (((0, 2), (0, 3), (1, 3)), ((0, 2), (1, 3), (1, 2))),
    3: (((0, 3), (1, 3), (2, 3)),),
}


@dataclass(frozen=True)
class Section:
    """The cut through the material, which ends at level zero; the centre is NaN without an area."""

    area: float
    centre: Array  # (3,)


def section(solution: Solution, numbers: Array, distances: Array) -> Section:
    """The section of elements `numbers` by the plane at which `distances` (n,) of nodes are 0.

    Elements are taken as 4-node tetrahedra, in which level and distance are linear.
    """
    area, moment = 0.0, np.zeros(3)
    for levelled in (False, True):
        chosen = numbers[solution.levelled[numbers - 1] == levelled]
        codes = solution.elements.type_codes[chosen - 1]
        tables = {
            code: _rows(solution, code, chosen[codes == code]).astype(np.int64) for code in TYPES
        }
        levels = solution.levels if levelled else np.ones(len(solution.nodes))
        fields = {"level": levels, "distance": distances}
        rows, points, extended = tetrahedra(solution.nodes, tables, fields, ("level",))
        for corners, at in _triangles(rows, points, extended["distance"], extended["level"]):
            areas, centres = _material(corners, at)
            area += float(areas.sum())
            moment += areas @ centres
    return Section(area, moment / area if area > 0 else np.full(3, np.nan))


def _rows(solution: Solution, code: int, numbers: Array) -> Array:
    elements = solution.elements
    found: Array = elements.table(code)[elements.conn_index[numbers - 1] - 1] - 1
    return found


def _triangles(
    rows: Array, points: Array, distances: Array, levels: Array
) -> list[tuple[Array, Array]]:
    """Triangles of the plane in tetrahedra: corners (k, 3, 3), levels there (k, 3)."""
    order = np.argsort(-distances[rows], axis=1, kind="stable")
    rows = np.take_along_axis(rows, order, axis=1)
    beyond = (distances[rows] > 0).sum(axis=1)
    found = []
    for count, triangles in _CROSSED.items():
        some = rows[beyond == count]
        for edges in triangles:
            ends = some[:, np.array(edges)]  # (k, 3, 2)
            first, second = distances[ends[..., 0]], distances[ends[..., 1]]
            step = first / (first - second)
            corners = _between(points[ends[..., 0]], points[ends[..., 1]], step[..., None])
            found.append((corners, _between(levels[ends[..., 0]], levels[ends[..., 1]], step)))
    return found


def _between(first: Array, second: Array, step: Array) -> Array:
    value: Array = first + step * (second - first)
    return value


def _material(corners: Array, levels: Array) -> tuple[Array, Array]:
    """Areas and centres of what triangles hold of the material, where the level isn't negative."""
    order = np.argsort(-levels, axis=1, kind="stable")
    levels = np.take_along_axis(levels, order, axis=1)
    corners = np.take_along_axis(corners, order[..., None], axis=1)
    inside = (levels >= 0).sum(axis=1)
    whole, middle = _area(corners), corners.mean(axis=1)
    areas = np.where(inside == 3, whole, 0.0)
    moments = np.where(inside[:, None] == 3, whole[:, None] * middle, 0.0)
    # One corner inside: the triangle there. Two: all but the triangle at the third.
    for count, tip in ((1, 0), (2, 2)):
        some = inside == count
        others = [k for k in range(3) if k != tip]
        at = levels[some]
        steps = at[:, [tip]] / (at[:, [tip]] - at[:, others])
        peak = corners[some][:, [tip]]
        ends = _between(peak, corners[some][:, others], steps[..., None])
        triangle = np.concatenate((peak, ends), axis=1)
        part = _area(triangle)
        product = part[:, None] * triangle.mean(axis=1)
        if count == 2:
            part, product = whole[some] - part, whole[some, None] * middle[some] - product
        areas[some], moments[some] = part, product
    with np.errstate(invalid="ignore", divide="ignore"):
        centres = np.where(areas[:, None] > 0, moments / areas[:, None], 0.0)
    return areas, centres


def _area(corners: Array) -> Array:
    sides = corners[:, 1:] - corners[:, :1]
    found: Array = 0.5 * np.linalg.norm(np.cross(sides[:, 0], sides[:, 1]), axis=1)
    return found
