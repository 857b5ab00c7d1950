"""What acts in a load case as places and arrows, few enough to be looked at."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.formats import CONSTRAINT_PENALTY
from vkctl.directory.model import LoadCase, Model

_MOST_POINTS = 400
_CELLS = 8  # over the part's longest side: forces in one of them make one arrow


@dataclass(frozen=True)
class Marks:
    """Places of forces with their sums and displacements, (k, 3) each.

    Of nodes that are held, on springs, or have a temperature, places and displacements (k, 6).
    """

    supports: Array
    springs: Array
    temperatures: Array
    places: Array
    forces: Array
    shifts: Array


def marks_of(model: Model, case: LoadCase, displacement: Array | None = None) -> Marks:
    """What holds a part and what pulls at it.

    Of many nodes some are shown. Forces nearby are added up, where they act on average;
    those that act on the volume make one arrow in its middle.
    """
    on_spring = springs(case)
    still = np.zeros_like(model.nodes) if displacement is None else displacement
    points = np.concatenate((model.nodes, still), axis=1, dtype=np.float64)
    size = float(np.ptp(model.nodes, axis=0).max()) / _CELLS or 1.0
    means, sums = _gathered(points, case.forces2, size)
    middle, total = _gathered(points, case.forces3, np.inf)
    means, sums = np.concatenate((means, middle)), np.concatenate((sums, total))
    nodes = case.constraints["Node"]
    return Marks(
        _some(points, nodes[~on_spring]),
        _some(points, nodes[on_spring]),
        _some(points, case.scalars["Node"]),
        means[:, :3],
        sums,
        means[:, 3:],
    )


def springs(case: LoadCase) -> Array:
    """Mask of the constraints that are springs."""
    found: Array = (case.constraints["Kind"] & CONSTRAINT_PENALTY) != 0
    return found


def _some(points: Array, nodes: Array) -> Array:
    known = np.unique(nodes).astype(np.int64)
    known = known[(known >= 1) & (known <= len(points))]
    found: Array = points[known[:: max(1, -(-len(known) // _MOST_POINTS))] - 1]
    return found


def _gathered(points: Array, records: Array, size: float) -> tuple[Array, Array]:
    """Where forces act, weighted by their size, and their sums, one for each cell of a grid.

    `points` (n, 6) are the nodes' places and displacements.
    """
    known = (records["Node"] >= 1) & (records["Node"] <= len(points))
    known &= (records["Force"] != 0).any(axis=1)
    some = points[records["Node"][known] - 1]
    forces = records["Force"][known].astype(np.float64)
    if not len(some):
        return np.empty((0, 6)), np.empty((0, 3))
    cells = np.floor((some[:, :3] - points[:, :3].min(axis=0)) / size).astype(np.int64)
    place = np.unique(cells, axis=0, return_inverse=True)[1].ravel()
    weights = np.linalg.norm(forces, axis=1)
    total = np.bincount(place, weights)
    means = [np.bincount(place, weights * column) / total for column in some.T]
    sums = [np.bincount(place, column) for column in forces.T]
    return np.stack(means, axis=1), np.stack(sums, axis=1)
