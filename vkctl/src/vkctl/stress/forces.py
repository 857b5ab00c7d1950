"""Forces that elements put on their nodes, integrated as the solver integrates them."""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.shapes.functions import GRADIENTS

from .points import IntegrationBlock, integration_points
from .solution import Solution


@dataclass(frozen=True)
class ElementForces:
    """Elements of one type: the forces that hold each of them in its deformed state."""

    numbers: Array  # (m,)
    rows: Array  # (m, n) of node numbers
    forces: Array  # (m, n, 3)


def element_forces(solution: Solution, numbers: Array | None = None) -> Iterator[ElementForces]:
    """All active elements, or those of `numbers`, block by block.

    The forces of an element add up to zero, and so do their moments: f = integral of H B's, with
    the smooth presence H of the level field, as the solver multiplies the stiffness by it.
    """
    for block in integration_points(solution, numbers):
        yield _forces_of(solution, block)


def _forces_of(solution: Solution, block: IntegrationBlock) -> ElementForces:
    code, chosen = block.at.code, block.at.numbers
    rows = solution.elements.table(code)[solution.elements.conn_index[chosen - 1] - 1]
    return ElementForces(chosen, rows, _forces(block))


# Places of the six components in the symmetric matrix.
_MATRIX = np.array(((0, 3, 5), (3, 1, 4), (5, 4, 2)))


def _forces(block: IntegrationBlock) -> Array:
    at = block.at
    weights = block.volumes * block.smooth_presences
    stress = at.stresses[..., _MATRIX] * weights[..., None, None]
    pulled = stress @ at.inverses.transpose(0, 1, 3, 2)  # (m, p, component, parameter)
    slopes = np.array([GRADIENTS[at.code](point) for point in block.points])  # (p, n, 3)
    count = len(pulled)
    flat = pulled.transpose(0, 2, 1, 3).reshape(count, 3, -1)
    factors = slopes.transpose(0, 2, 1).reshape(-1, slopes.shape[1])
    forces: Array = (flat @ factors).transpose(0, 2, 1)
    return forces


def internal_forces(solution: Solution, numbers: Array | None = None) -> Array:
    """Sum (n, 3) over all active elements, or those of `numbers`, at the nodes of the model."""
    return summed_forces(solution, integration_points(solution, numbers))


def summed_forces(solution: Solution, blocks: Iterable[IntegrationBlock]) -> Array:
    """Sum (n, 3) at the nodes of the model, of blocks with whatever stresses they have."""
    total = np.zeros_like(solution.nodes)
    for given in blocks:
        block = _forces_of(solution, given)
        nodes, place = np.unique(block.rows, return_inverse=True)
        for k in range(3):
            flat = block.forces[..., k].ravel()
            total[nodes - 1, k] += np.bincount(place.ravel(), flat, len(nodes))
    return total


def elements_at(solution: Solution, nodes: Array) -> Array:
    """Numbers of the active elements that have at least one of these nodes (bool (n,))."""
    found = []
    for code in distinct(solution.elements.type_codes[solution.active]):
        numbers, rows = solution.elements.of_type(int(code))
        touching = nodes[rows - 1].any(axis=1) & solution.active[numbers - 1]
        found.append(numbers[touching])
    return np.sort(np.concatenate([np.empty(0, np.int64), *found]))
