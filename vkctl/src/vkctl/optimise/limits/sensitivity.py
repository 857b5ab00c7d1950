"""How a value of a load case changes with the level field: the law of the solver, differentiated.

A value J of the displacements u, with the adjoint displacements a that K a = dJ/du has, changes
with the level F at a point of the solver's rule, of volume dV, by

    dJ = -(stress(u) . strain(a)) H'(F) dF dV + what J says of H itself,

where H is the presence that the stiffness is multiplied by. Stresses hold what temperatures and
initial strains free; the adjoint displacements are those of dJ/du alone, zero where displacements
are prescribed. Which rule an element takes depends on its levels too: it is held here, since it
changes at levels where next to nothing is present.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass, replace

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.levels import MEAN_LEVEL
from vkctl.directory.model import Model
from vkctl.shapes.functions import shape_values
from vkctl.shapes.topology import CORNERS_PER_TYPE, HEX8, TET4
from vkctl.stress.points import IntegrationBlock, integration_points
from vkctl.stress.solution import Solution

# The solver's weights of an element's volume and of its material, in its criterion.
_OF_VOLUME, _OF_MATERIAL = float(np.float32(0.1)), float(np.float32(0.9))

# Gain (m, p) of a value's decrease by presence, per volume, at the points of a block; of the
# block in the load case's displacements and the same in the adjoint ones.
Gain = Callable[[IntegrationBlock, IntegrationBlock], Array]


def mutual_work(ours: IntegrationBlock, adjoint: IntegrationBlock) -> Array:
    """Stress of one solution times the strain of the other: what presence takes off the value."""
    work: Array = (ours.at.stresses * adjoint.at.strains).sum(axis=-1)
    return work


@dataclass(frozen=True)
class Sensitivity:
    """Of one value, per design point."""

    gradient: Array  # by the levels of the list that the solver reads
    criterion: Array  # decrease by presence per volume, averaged as the solver does its criterion


def sensitivity(
    model: Model, solution: Solution, adjoint: Array, gain: Gain = mutual_work
) -> Sensitivity:
    """Of a value with the adjoint displacements (n, 3), at the model's levels."""
    nodal = np.zeros(len(model.nodes))
    sums = np.zeros((2, len(model.tp)))
    for ours, other in _pairs(solution, adjoint):
        gains = gain(ours, other)
        numbers, code = ours.at.numbers, ours.at.code
        rows = solution.elements.table(code)[solution.elements.conn_index[numbers - 1] - 1] - 1
        _add_slopes(nodal, ours, rows, np.where(solution.levelled[numbers - 1, None], gains, 0.0))
        _add_criteria(sums, model, ours, rows, gains)
    return Sensitivity(_by_list(model, nodal), _averaged(sums))


def material_slopes(model: Model, solution: Solution) -> Array:
    """How the smooth volume, the integral of H, changes with the levels of the list."""
    nodal = np.zeros(len(model.nodes))
    for block in integration_points(solution):
        numbers, code = block.at.numbers, block.at.code
        rows = solution.elements.table(code)[solution.elements.conn_index[numbers - 1] - 1] - 1
        follows = solution.levelled[numbers - 1, None]
        _add_slopes(nodal, block, rows, np.where(follows, -np.ones_like(block.levels), 0.0))
    return _by_list(model, nodal)


def at_adjoint(solution: Solution, adjoint: Array) -> Solution:
    """The same part in displacements that nothing but nodal forces cause."""
    free = replace(solution.laws, initial=np.zeros_like(solution.laws.initial))
    return replace(solution, displacements=adjoint, temperatures=None, laws=free)


def _pairs(
    solution: Solution, adjoint: Array
) -> Iterator[tuple[IntegrationBlock, IntegrationBlock]]:
    """Blocks of both, of the same elements."""
    other = at_adjoint(solution, adjoint)
    return zip(integration_points(solution), integration_points(other), strict=True)


def _add_slopes(nodal: Array, block: IntegrationBlock, rows: Array, gains: Array) -> None:
    corners = CORNERS_PER_TYPE[block.at.code]
    shapes = shape_values(HEX8 if block.at.code == HEX8 else TET4, block.points)
    slopes = -(gains * block.presence_slopes * block.volumes) @ shapes
    nodal += np.bincount(rows[:, :corners].ravel(), slopes.ravel(), len(nodal))


def _add_criteria(
    sums: Array, model: Model, block: IntegrationBlock, rows: Array, gains: Array
) -> None:
    """An element's criterion goes to the design points of all its nodes, as in the solver."""
    assert model.node_tp_index is not None
    presences = block.smooth_presences
    material = (presences * block.volumes).sum(axis=1)
    weighted = _OF_VOLUME * block.volumes.sum(axis=1) + _OF_MATERIAL * material
    criteria = (gains * presences**2 * block.volumes).sum(axis=1) / weighted
    points = model.node_tp_index[rows]
    chosen = points > 0
    spread = np.broadcast_to(criteria[:, None], points.shape)[chosen]
    sums[0] += np.bincount(points[chosen] - 1, spread, sums.shape[1])
    sums[1] += np.bincount(points[chosen] - 1, minlength=sums.shape[1])


def _averaged(sums: Array) -> Array:
    """Means; points that no element touches take the least, as in the solver."""
    touched = sums[1] > 0
    means: Array = sums[0] / np.maximum(sums[1], 1)
    means[~touched] = means[touched].min(initial=np.inf) if touched.any() else 0.0
    return means


def _by_list(model: Model, nodal: Array) -> Array:
    """Slopes by the list of design points, which is scaled to a mean magnitude, from nodal ones."""
    assert model.node_tp_index is not None
    listed = model.tp.astype(np.float64)
    total = np.abs(listed).sum()
    if total == 0:
        return np.zeros_like(listed)
    scale = MEAN_LEVEL * len(listed) / total
    chosen = model.node_tp_index > 0
    points = model.node_tp_index[chosen] - 1
    direct = np.bincount(points, nodal[chosen], len(listed))
    slopes: Array = scale * (direct - (direct @ listed) * np.sign(listed) / total)
    return slopes
