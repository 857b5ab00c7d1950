"""Values that are limited, each a smooth function of the displacements with its derivative.

The largest of many displacements or stresses is no smooth function. In its place stands their
power mean with a high exponent, times what the largest one is over it (C. Le, J. Norato,
T. Bruns, C. Ha, D. Tortorelli, Struct. Multidisc. Optim. 41 (2010) 605-620).
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, replace

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.stress.forces import summed_forces
from vkctl.stress.law import stresses
from vkctl.stress.measures import von_mises
from vkctl.stress.nodal import nodal_stress
from vkctl.stress.points import IntegrationBlock, integration_points
from vkctl.stress.solution import Solution

from .sensitivity import Gain, mutual_work

_EXPONENT = 8.0  # of the power means


@dataclass(frozen=True)
class Value:
    """A limited value at a design."""

    measured: float  # what the limit is for: the largest one
    smooth: float  # the power mean, or the same where nothing is averaged
    pull: Array  # (n, 3) derivative of the smooth one by the displacements of nodes
    gain: Gain = mutual_work
    of_forces: bool = False  # it is a work of the nodal forces, and changes with them

    def along(self, displacements: Array) -> Array:
        """What the value changes by with the forces that follow the design, beside the adjoint."""
        return displacements if self.of_forces else np.zeros_like(displacements)


def work_of_forces(model: Model, solution: Solution, case: int) -> Value:
    """The compliance: what the nodal forces of a load case do along its displacements."""
    forces = nodal_forces(model, case)
    work = float((forces * solution.displacements).sum())
    return Value(work, work, forces, of_forces=True)


def nodal_forces(model: Model, case: int) -> Array:
    """Forces (n, 3) of a load case that the solver applies."""
    assert model.node_flags is not None
    total = np.zeros((len(model.nodes), 3))
    for records in (model.load_cases[case - 1].forces2, model.load_cases[case - 1].forces3):
        np.add.at(total, records["Node"] - 1, records["Force"].astype(np.float64))
    total[model.node_flags & np.int16(formats.NODE_NO_LOADS) != 0] = 0.0
    return total


def largest_displacement(solution: Solution, nodes: Array, direction: Array | None) -> Value:
    """Of nodes (numbers) along a direction of unit length, or of whatever direction."""
    moved = solution.displacements[nodes - 1]
    along = np.linalg.norm(moved, axis=1) if direction is None else moved @ direction
    values = np.maximum(along, 0.0)
    smooth, weights = _power_mean(values, np.full(len(values), 1.0 / len(values)))
    if direction is None:
        ways = moved / np.where(along > 0, along, 1.0)[:, None]
    else:
        ways = np.broadcast_to(direction, moved.shape)
    pull = np.zeros_like(solution.displacements)
    pull[nodes - 1] = weights[:, None] * ways
    return Value(float(values.max()), smooth, pull)


def _power_mean(values: Array, shares: Array) -> tuple[float, Array]:
    """The mean of values with shares that add up to 1, and its derivative by each value."""
    largest = values.max(initial=0.0)
    if largest <= 0:
        return 0.0, np.zeros_like(values)
    scaled = values / largest
    mean = float((shares * scaled**_EXPONENT).sum() ** (1 / _EXPONENT))
    return largest * mean, shares * (scaled / mean) ** (_EXPONENT - 1)


def largest_stress(solution: Solution, nodes: Array) -> Value:
    """Von Mises stress of the material at the nodes of a mask (n,), and of elements between them.

    Measured are the stresses recovered at nodes inside the part. The power mean is over the
    solver's integration points, weighted with their volumes; where little material is present it
    takes the stress times the root of the presence.
    """
    chosen = _elements_between(solution, nodes)
    blocks = list(integration_points(solution, chosen))
    volume = sum(float(block.volumes.sum()) for block in blocks)
    flat = [_relaxed(block).ravel() for block in blocks]
    shares = [block.volumes.ravel() / volume for block in blocks]
    smooth, weights = _power_mean(
        np.concatenate([np.empty(0), *flat]), np.concatenate([np.empty(0), *shares])
    )
    ends = np.cumsum([len(one) for one in flat])[:-1]
    by_block = [
        one.reshape(block.volumes.shape)
        for one, block in zip(np.split(weights, ends), blocks, strict=True)
    ]
    looked_at = np.zeros(len(solution.elements))
    looked_at[chosen - 1] = 1.0 / volume if volume else 0.0

    def gain(ours: IntegrationBlock, adjoint: IntegrationBlock) -> Array:
        relaxed = _relaxed(ours)
        share = looked_at[ours.at.numbers - 1, None]
        steep = share * (relaxed / (smooth or 1.0)) ** (_EXPONENT - 1)
        own = 0.5 * von_mises(ours.at.stresses) / np.sqrt(ours.smooth_presences)
        return mutual_work(ours, adjoint) - steep * own

    pull = summed_forces(solution, _pulling(solution, blocks, by_block))
    return Value(_largest_recovered(solution, nodes), smooth, pull, gain)


def _relaxed(block: IntegrationBlock) -> Array:
    relaxed: Array = von_mises(block.at.stresses) * np.sqrt(block.smooth_presences)
    return relaxed


def _elements_between(solution: Solution, nodes: Array) -> Array:
    """Numbers of the active elements all of whose nodes are in a mask."""
    found = []
    for code in np.unique(solution.elements.type_codes[solution.active]):
        numbers, rows = solution.elements.of_type(int(code))
        found.append(numbers[nodes[rows - 1].all(axis=1) & solution.active[numbers - 1]])
    return np.sort(np.concatenate([np.empty(0, np.int64), *found]))


def _pulling(
    solution: Solution, blocks: list[IntegrationBlock], weights: list[Array]
) -> Iterator[IntegrationBlock]:
    """Blocks with stresses whose nodal forces are the derivative by the displacements."""
    for block, weight in zip(blocks, weights, strict=True):
        materials = solution.elements.materials[block.at.numbers - 1].astype(np.int64)
        factors = solution.factors[block.at.numbers - 1]
        slopes = stresses(solution.laws, materials, factors, _von_mises_slopes(block.at.stresses))
        # The forces are summed with volume times presence, which the weights hold already.
        scale = weight / (block.volumes * np.sqrt(block.smooth_presences))
        yield replace(block, at=replace(block.at, stresses=slopes * scale[..., None]))


def _von_mises_slopes(stress: Array) -> Array:
    """Derivatives of the von Mises stress by the six components; zero where it is zero."""
    size = von_mises(stress)[..., None]
    mean = stress[..., :3].mean(axis=-1, keepdims=True)
    slopes = np.concatenate((1.5 * (stress[..., :3] - mean), 3.0 * stress[..., 3:]), axis=-1)
    found: Array = slopes / np.where(size > 0, size, 1.0)
    return found


def _largest_recovered(solution: Solution, nodes: Array) -> float:
    return float(recovered(solution, nodes).max(initial=0.0))


def recovered(solution: Solution, nodes: Array) -> Array:
    """Von Mises stresses (n,) at those nodes of a mask that lie in the part, 0 at others."""
    merged = nodal_stress(solution).merged()
    values = np.where(merged.inside & nodes, von_mises(merged.stress), 0.0)
    return np.where(np.isnan(values), 0.0, values)
