"""Body forces that act where the level field has material, as much as stiffness is present there.

f = integral of H N b over the elements, with the smooth presence H of the level F, by which the
solver multiplies the stiffness, at the points of its finer rule. So weight and stiffness go
together: what is left outside weighs as little as it carries.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.functions import shape_values
from vkctl.shapes.measures import determinants
from vkctl.shapes.rules import FINE, solver_rule
from vkctl.shapes.topology import CORNERS_PER_TYPE, HEX8, TET4, TYPES

from .points import presence_slopes, smooth_presences
from .solution import option_of


@dataclass(frozen=True)
class HeavyCells:
    """Elements of one type that have a body force; nodes are 0-based here."""

    rows: Array  # (m, n)
    forces: Array  # (m, 3) per volume of full material
    follows: Array  # bool (m,): follows the level field
    volumes: Array  # (m, p) that belong to the points
    shapes: Array  # (p, n)
    level_shapes: Array  # (p, c): of the corners, which carry the level

    def levels(self, nodes: Array) -> Array:
        """Levels (m, p) at the points; 1 in elements that don't follow."""
        corners = self.rows[:, : self.level_shapes.shape[1]]
        # Not by a product of matrices, whose threads would go on spinning beside the solver.
        found = np.einsum("mc,pc->mp", nodes[corners], self.level_shapes)
        levels: Array = np.where(self.follows[:, None], found, 1.0)
        return levels

    def along(self, displacements: Array) -> Array:
        """Body force times displacement (m, p): the work of a volume of full material."""
        work = np.einsum("mnk,mk->mn", displacements[self.rows], self.forces)
        found: Array = np.einsum("mn,pn->mp", work, self.shapes)
        return found


@dataclass(frozen=True)
class Weight:
    """The body forces of a load case, ready to be summed at whatever levels (n,) of nodes."""

    cells: tuple[HeavyCells, ...]
    slope: float  # of the presence over the level
    point_of: Array  # (n,), 0-based design point of each node, -1 without one
    touching: Array  # per design point, elements that its nodes belong to

    def nodal_forces(self, levels: Array) -> Array:
        """Forces (n, 3)."""
        total = np.zeros((len(levels), 3))
        for cells in self.cells:
            present = smooth_presences(cells.levels(levels), self.slope) * cells.volumes
            shares = np.einsum("mp,pn->mn", present, cells.shapes)
            for k in range(3):
                flat = (shares * cells.forces[:, k, None]).ravel()
                total[:, k] += np.bincount(cells.rows.ravel(), flat, len(levels))
        return total

    def slopes(self, levels: Array, displacements: Array) -> Array:
        """How the work of the forces along fixed displacements changes with each level (n,)."""
        total = np.zeros(len(levels))
        for cells in self.cells:
            steep = presence_slopes(cells.levels(levels), self.slope) * cells.volumes
            steep *= np.where(cells.follows[:, None], cells.along(displacements), 0.0)
            corners = cells.rows[:, : cells.level_shapes.shape[1]]
            values = np.einsum("mp,pc->mc", steep, cells.level_shapes)
            total += np.bincount(corners.ravel(), values.ravel(), len(levels))
        return total

    def work(self, displacements: Array) -> Array:
        """Mean work per volume of full material around each design point.

        Where nothing is present it counts as it is: material would weigh there too. Elements are
        averaged as in the solver's criterion.
        """
        total = np.zeros(len(self.touching))
        for cells in self.cells:
            work = (cells.along(displacements) * cells.volumes).sum(axis=1)
            points = self.point_of[cells.rows]
            chosen = points >= 0
            means = np.broadcast_to((work / cells.volumes.sum(axis=1))[:, None], points.shape)
            total += np.bincount(points[chosen], means[chosen], len(total))
        found: Array = total / np.maximum(self.touching, 1)
        return found


def weight_of(model: Model, forces: Array) -> Weight:
    """Of body forces (m, 3) per volume, an element each."""
    assert model.element_flags is not None and model.node_tp_index is not None
    follows = model.element_flags & formats.ELEMENT_NO_LEVEL == 0
    active = model.element_flags & EXCLUDED == 0
    point_of = model.node_tp_index.astype(np.int64) - 1
    touching = np.zeros(len(model.tp))
    found = []
    for code in TYPES:
        numbers, rows = model.elements.of_type(code)
        touched = point_of[rows[active[numbers - 1]] - 1]
        touching += np.bincount(touched[touched >= 0], minlength=len(touching))
        heavy = np.any(forces[numbers - 1] != 0, axis=1)
        if not heavy.any():
            continue
        numbers, rows = numbers[heavy], rows[heavy]
        points, weights = solver_rule(code, FINE)
        found.append(
            HeavyCells(
                rows.astype(np.int64) - 1,
                forces[numbers - 1].astype(np.float64),
                follows[numbers - 1],
                determinants(model.nodes, rows, code, points) * weights,
                _shapes(code, points),
                _shapes(HEX8 if code == HEX8 else TET4, points)[:, : CORNERS_PER_TYPE[code]],
            )
        )
    return Weight(tuple(found), option_of(model, "Sta.MatSlopeFactor"), point_of, touching)


def _shapes(code: int, points: Array) -> Array:
    return np.array([shape_values(code, point) for point in points])
