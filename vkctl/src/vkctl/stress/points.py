"""Strains and stresses at points of elements, and the presence of the material there."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.functions import GRADIENTS, shape_values
from vkctl.shapes.rules import COARSE, FINE, FINE_ABOVE, solver_rule
from vkctl.shapes.topology import HEX8, TET4, TET10, TET10_EDGES, TYPES

from .law import stresses
from .measures import mean_normal, von_mises
from .solution import Solution

_BLOCK = 1 << 16  # points at a time
_FLOOR = float(np.float32(0.001))  # of the presence
_LARGE = 1e3  # number beyond which the fourth term of its arctangent is below rounding
_SHARPER = 1000.0  # slope of the sharp presence over that of the smooth one
HALF = 0.5  # share of material above which an element counts as present


@dataclass(frozen=True)
class PointBlock:
    """Some elements of one type at the same parameter points, strains without free ones.

    Stresses are those of the material itself, whether much or little of it is present.
    """

    code: int
    numbers: Array  # (m,) of the elements
    positions: Array  # (m, p, 3)
    strains: Array  # (m, p, 6), mechanical, engineering shears
    stresses: Array  # (m, p, 6)
    determinants: Array  # (m, p)
    inverses: Array  # (m, p, 3, 3): row i, column j is the derivative of parameter i by axis j

    @property
    def energies(self) -> Array:
        """Strain energy densities (m, p)."""
        half: Array = 0.5 * (self.strains * self.stresses).sum(axis=-1)
        return half


def evaluate(solution: Solution, code: int, numbers: Array, points: Array) -> PointBlock:
    """Elements `numbers` of a type at parameter points (p, 3)."""
    elements = solution.elements
    rows = elements.table(code)[elements.conn_index[numbers - 1] - 1] - 1
    shape = _shapes(code, points)
    places = solution.nodes[rows]
    slopes = np.array([GRADIENTS[code](point) for point in points])  # (p, n, 3)
    jacobian = _parametric(places, slopes)
    inverse, determinants = _inverses(jacobian)
    strains = np.empty((*determinants.shape, 6))
    with np.errstate(all="ignore"):  # displacements may be damaged: such strains are no numbers
        moved = _parametric(solution.displacements[rows], slopes)
        gradient = np.einsum("epki,epij->epkj", moved, inverse)
        for k in range(3):
            strains[..., k] = gradient[..., k, k]
        for place, (i, j) in enumerate(((0, 1), (1, 2), (0, 2)), 3):
            strains[..., place] = gradient[..., i, j] + gradient[..., j, i]
        strains[..., :3] -= _free_strains(solution, numbers, rows, shape)
    materials = elements.materials[numbers - 1].astype(np.int64)
    found = stresses(solution.laws, materials, solution.factors[numbers - 1], strains)
    return PointBlock(code, numbers, shape @ places, strains, found, determinants, inverse)


def _shapes(code: int, points: Array) -> Array:
    """Shape functions (p, n)."""
    return np.array([shape_values(code, point) for point in points])


def _parametric(values: Array, slopes: Array) -> Array:
    """Derivatives (m, p, 3, 3) of nodal vectors (m, n, 3): component, parameter."""
    count, width = len(slopes), slopes.shape[1]
    factors = slopes.transpose(1, 0, 2).reshape(width, -1)
    product = values.transpose(0, 2, 1) @ factors
    found: Array = product.reshape(-1, 3, count, 3).transpose(0, 2, 1, 3)
    return found


def _inverses(matrices: Array) -> tuple[Array, Array]:
    """Inverses by cofactors, and determinants; an element without volume has no finite ones."""
    a, b, c = (matrices[..., k, :] for k in range(3))
    cofactors = np.stack((np.cross(b, c), np.cross(c, a), np.cross(a, b)), axis=-1)
    determinants = (a * cofactors[..., 0]).sum(axis=-1)
    with np.errstate(all="ignore"):
        inverses = cofactors / determinants[..., None, None]
    return inverses, determinants


def _free_strains(solution: Solution, numbers: Array, rows: Array, shape: Array) -> Array:
    """Thermal and initial normal strains (m, p, 3)."""
    place = solution.elements.materials[numbers - 1].astype(np.int64) - 1
    initial = solution.laws.initial[place][:, None, None]
    if solution.temperatures is None:
        return np.broadcast_to(initial, (len(rows), len(shape), 3))
    temperatures = solution.temperatures[rows] @ shape.T
    found: Array = temperatures[..., None] * solution.laws.expansion[place][:, None] + initial
    return found


# --- the solver's integration points -----------------------------------------------------------


@dataclass(frozen=True)
class IntegrationBlock:
    """A block at the points that the solver integrates with."""

    at: PointBlock
    volumes: Array  # (m, p) that belong to the points
    levels: Array  # (m, p)
    slope: float  # of the presence over the level
    points: Array  # (p, 3), the parameters

    @property
    def presences(self) -> Array:
        """The sharp ones (m, p), from 0.001 outside the part to 1 inside."""
        return sharp_presences(self.levels, self.slope)

    @property
    def smooth_presences(self) -> Array:
        """Those that the stiffness is multiplied by (m, p)."""
        return smooth_presences(self.levels, self.slope)

    @property
    def presence_slopes(self) -> Array:
        """Derivatives of the smooth presences by the level (m, p)."""
        return presence_slopes(self.levels, self.slope)


def integration_points(
    solution: Solution, numbers: Array | None = None
) -> Iterator[IntegrationBlock]:
    """All active elements, or those of `numbers`, at the solver's points, block by block.

    Elements come type by type and rule by rule, in ascending order within.
    """
    chosen = solution.active.copy()
    if numbers is not None:
        chosen[:] = False
        chosen[numbers - 1] = solution.active[numbers - 1]
    for code in TYPES:
        of_type = np.flatnonzero(chosen & (solution.elements.type_codes == code)) + 1
        fine = np.zeros(len(of_type), np.bool_)
        for first in range(0, len(of_type), _BLOCK):
            some = of_type[first : first + _BLOCK]
            fine[first : first + _BLOCK] = element_levels(solution, code, some).max(1) > FINE_ABOVE
        for order, taken in ((COARSE, of_type[~fine]), (FINE, of_type[fine])):
            points, weights = solver_rule(code, order)
            for some in blocks(taken, len(points)):
                at = evaluate(solution, code, some, points)
                shape = _shapes(HEX8 if code == HEX8 else TET4, points)
                levels = element_levels(solution, code, some) @ shape.T  # linear on both tetrahedra
                volumes = at.determinants * weights
                yield IntegrationBlock(at, volumes, levels, solution.slope, points)


def blocks(numbers: Array, points: int) -> Iterator[Array]:
    """Numbers in blocks of as many elements as keep memory bounded."""
    size = max(_BLOCK // points, 1)
    for first in range(0, len(numbers), size):
        yield numbers[first : first + size]


def element_levels(solution: Solution, code: int, numbers: Array) -> Array:
    """Levels at the nodes that carry them, (m, 8) or of the corners (m, 4)."""
    elements = solution.elements
    corners = 8 if code == HEX8 else 4
    rows = elements.table(code)[elements.conn_index[numbers - 1] - 1, :corners] - 1
    levels: Array = np.where(solution.levelled[numbers - 1, None], solution.levels[rows], 1.0)
    return levels


def nodes_inside(solution: Solution, code: int, numbers: Array, rows: Array) -> Array:
    """The nodes among `rows` (m, n), of elements of a type, where their level isn't negative."""
    levels = element_levels(solution, code, numbers)
    if code == TET10:
        levels = np.concatenate((levels, levels[:, TET10_EDGES].mean(axis=2)), axis=1)
    inside: Array = rows[levels >= 0]
    return inside


def sharp_presences(levels: Array, slope: float) -> Array:
    """Presences by which the solver sums volumes and energies, from 0.001 to 1, of levels."""
    return _presences(_arctangents(_SHARPER * slope * levels))


def smooth_presences(levels: Array, slope: float) -> Array:
    """Presences by which the solver multiplies the stiffness, from 0.001 to 1, of levels."""
    return _presences(np.arctan(slope * levels))


def presence_slopes(levels: Array, slope: float) -> Array:
    """Derivatives of the smooth presences by the level."""
    found: Array = (1 - _FLOOR) * slope / np.pi / (1 + (slope * levels) ** 2)
    return found


def _arctangents(values: Array) -> Array:
    """Of numbers that are large but for a few, for which three terms of the series suffice."""
    flat = np.ravel(values)
    with np.errstate(divide="ignore", over="ignore", invalid="ignore"):
        inverse = 1.0 / flat
        found = inverse * inverse
        found /= 3.0
        found -= 1.0
        found *= inverse
    found += np.copysign(0.5 * np.pi, flat)
    near = np.flatnonzero(np.abs(flat) < _LARGE)
    found[near] = np.arctan(flat[near])
    return found.reshape(np.shape(values))


def _presences(arctangents: Array) -> Array:
    """How much of the material is present, from arctangents of the level times a slope."""
    step: Array = np.atleast_1d(arctangents)  # often of millions: in place
    step /= np.pi
    step += 0.5
    step *= 1 - _FLOOR
    step += _FLOOR
    return step.reshape(np.shape(arctangents))


@dataclass(frozen=True)
class ElementMeans:
    """Means over the material of each element, as the solver forms them; NaN where inactive."""

    share: Array  # (m,) of the element that is material
    von_mises: Array  # (m,)
    mean_normal: Array  # (m,)
    energy: Array  # (m,), the element's strain energy


def element_means(solution: Solution, numbers: Array | None = None) -> ElementMeans:
    """Means and energies of all active elements, or of those of `numbers`."""
    count = len(solution.elements)
    found = ElementMeans(*(np.full(count, np.nan) for _ in range(4)))
    for block in integration_points(solution, numbers):
        place, weights = block.at.numbers - 1, block.volumes * block.presences
        material = weights.sum(axis=1)
        with np.errstate(all="ignore"):  # of an element without volume there is no mean
            found.share[place] = material / block.volumes.sum(axis=1)
            for values, of_points in (
                (found.von_mises, von_mises(block.at.stresses)),
                (found.mean_normal, mean_normal(block.at.stresses)),
            ):
                values[place] = (of_points * weights).sum(axis=1) / material
        found.energy[place] = (block.at.energies * weights).sum(axis=1)
    return found
