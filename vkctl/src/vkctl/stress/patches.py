"""Polynomials through the stresses around each node, fitted by least squares.

The stresses are taken where those of an element are most accurate: at the middle of 4-node
tetrahedra and hexahedra, and at the four points of a rule inside 10-node tetrahedra. A patch is
what lies in the elements at a node. (After Zienkiewicz and Zhu, Int. J. Numer. Meth. Eng. 33, 1992,
1331-1364.)

A fit says how far it can be trusted at a place by its leverage there: the variance that its value
would have from a unit variance of the stresses it was made of.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes.rules import COARSE, solver_rule
from vkctl.shapes.topology import HEX8, TET4, TET10

from .points import blocks, evaluate
from .solution import Solution

LINEAR, QUADRATIC = 3, 9  # terms of a polynomial beside the constant
_SAMPLES = {
    TET4: np.full((1, 3), 0.25),
    HEX8: np.zeros((1, 3)),
    TET10: solver_rule(TET10, COARSE)[0],
}
# Of the variance of the terms: keeps what a patch doesn't determine finite. It shows as leverage.
_RIDGE = 1e-10
_NODES = 1 << 14  # at a time
_PAIRS = ((0, 0), (1, 1), (2, 2), (0, 1), (1, 2), (0, 2))


@dataclass(frozen=True)
class Region:
    """Elements of one material, in numbers of the nodes that they touch, from 0."""

    nodes: Array  # (k,) numbers in the model, ascending
    tables: dict[int, tuple[Array, Array]]  # by type: element numbers, rows of local nodes
    sampled: dict[int, Array]  # by type: mask of the elements whose stress counts
    terms: int  # LINEAR or QUADRATIC

    def corners(self, code: int) -> int:
        """How many nodes of an element have a patch; quadratic ones leave mid-edge nodes out."""
        return 4 if self.terms == QUADRATIC else self.tables[code][1].shape[1]


@dataclass(frozen=True)
class Patches:
    """A polynomial for each node: mean + slope . (terms - centre), terms of scaled offsets."""

    places: Array  # (k, 3) of the nodes
    scales: Array  # (k, 3)
    counts: Array  # (k,) of stresses; 0 for a node without a patch
    centres: Array  # (k, t)
    inverses: Array  # (k, t, t) of the terms' covariance
    means: Array  # (k, 6)
    slopes: Array  # (k, t, 6)

    def at(self, patch: Array, points: Array) -> tuple[Array, Array]:
        """Values (q, 6) and leverages (q,) of patches at points (q, 3)."""
        offset = _terms((points - self.places[patch]) / self.scales[patch], self.slopes.shape[1])
        offset -= self.centres[patch]
        spread = (offset[:, None] @ self.inverses[patch] @ offset[:, :, None])[:, 0, 0]
        with np.errstate(divide="ignore"):
            leverages = (1 + spread) / self.counts[patch]
        values = self.means[patch] + (offset[:, None] @ self.slopes[patch])[:, 0]
        return values, leverages

    def eccentricities(self, patch: Array) -> Array:
        """Squared distance of nodes from the middle of their patches, in standard deviations."""
        linear = self.inverses[patch]
        centre = self.centres[patch, :LINEAR]
        if linear.shape[1] != LINEAR:
            # The covariance of the linear terms alone is a block of the inverse's inverse.
            linear = np.linalg.inv(np.linalg.inv(linear)[:, :LINEAR, :LINEAR])
        squared: Array = (centre[:, None] @ linear @ centre[:, :, None])[:, 0, 0]
        return squared


def _terms(x: Array, count: int) -> Array:
    """Terms (..., count) of offsets (..., 3)."""
    if count == LINEAR:
        return x.copy()
    products = [x[..., i] * x[..., j] for i, j in _PAIRS]
    return np.concatenate((x, np.stack(products, axis=-1)), axis=-1)


def fit_patches(solution: Solution, region: Region) -> Patches:
    """Fit the patches of all nodes of a region."""
    places = solution.nodes[region.nodes - 1]
    scales = _scales(region, places)
    terms = region.terms
    upper = np.triu_indices(terms)
    sums = np.zeros((len(places), 1 + terms + len(upper[0]) + 6 + 6 * terms))
    for code, (numbers, rows) in region.tables.items():
        mask, corners = region.sampled[code], region.corners(code)
        points = _SAMPLES[code]
        chosen, table = numbers[mask], rows[mask, :corners]
        start = 0
        for some in blocks(chosen, 2 * len(points) * corners):
            nodes = table[start : start + len(some)]
            start += len(some)
            at = evaluate(solution, code, some, points)
            finite = np.isfinite(at.stresses).all(axis=(1, 2))  # not of an element without volume
            nodes, stress = nodes[finite], at.stresses[finite]
            offsets = at.positions[finite][:, None] - places[nodes][:, :, None]
            x = _terms(offsets / scales[nodes][:, :, None], terms)
            _add(sums, nodes, _moments(x, stress, upper))
    return _solved(places, scales, sums, terms, upper)


def _moments(x: Array, stress: Array, upper: tuple[Array, Array]) -> Array:
    """Sums over an element's samples, for each of its nodes: (m * c, columns)."""
    m, c, s, t = x.shape
    squares = 1 + t + len(upper[0])  # where they end
    found = np.empty((m, c, squares + 6 + 6 * t))
    found[..., 0] = s
    found[..., squares : squares + 6] = stress.sum(axis=1)[:, None]
    with_stress = found[..., squares + 6 :].reshape(m, c, t, 6)  # a view
    if s == 1:
        only = x[:, :, 0]
        found[..., 1 : 1 + t] = only
        for column, (i, j) in enumerate(zip(*upper, strict=True), 1 + t):
            np.multiply(only[..., i], only[..., j], out=found[..., column])
        np.multiply(only[..., None], stress[:, :, None], out=with_stress)
    else:
        turned = x.transpose(0, 1, 3, 2)
        found[..., 1 : 1 + t] = x.sum(axis=2)
        found[..., 1 + t : squares] = (turned @ x)[..., upper[0], upper[1]]
        np.matmul(turned, stress[:, None], out=with_stress)
    return found.reshape(m * c, found.shape[2])


def _add(sums: Array, nodes: Array, values: Array) -> None:
    """Add a row of values for each entry of `nodes` to that node's sums."""
    if not nodes.size:
        return
    order = np.argsort(nodes, axis=None, kind="stable")
    touched, first, counts = np.unique(nodes.ravel()[order], return_index=True, return_counts=True)
    most = np.argsort(-counts, kind="stable")  # the nodes of most entries first
    touched, first, counts = touched[most], first[most], counts[most]
    total = values[order[first]]
    for turn in range(1, int(counts[0])):  # the next entry of all nodes that have one
        some = first[: np.searchsorted(-counts, -turn)]
        total[: len(some)] += values[order[some + turn]]
    sums[touched] += total


def _scales(region: Region, places: Array) -> Array:
    """Mean extent of the elements at each node along the axes, (k, 3), never 0."""
    total, counts = np.zeros((len(places), 3)), np.zeros(len(places))
    for _, rows in region.tables.values():
        extent = np.zeros((len(rows), 3))
        for first in range(0, len(rows), _NODES):
            some = slice(first, first + _NODES)
            extent[some] = np.ptp(places[rows[some]], axis=1)
        for column in rows.T:
            counts += np.bincount(column, minlength=len(places))
            for k in range(3):
                total[:, k] += np.bincount(column, extent[:, k], len(places))
    scales = total / np.maximum(counts, 1)[:, None]
    floor = 1e-6 * scales.max(axis=1, keepdims=True)
    return np.where(scales > floor, scales, np.where(floor > 0, floor, 1.0))


def _solved(
    places: Array, scales: Array, sums: Array, terms: int, upper: tuple[Array, Array]
) -> Patches:
    """Patches of the summed moments."""
    count = len(places)
    edges = np.cumsum((1, terms, len(upper[0]), 6))
    inverses = np.zeros((count, terms, terms))
    slopes = np.zeros((count, terms, 6))
    centres, means = np.zeros((count, terms)), np.zeros((count, 6))
    for first in range(0, count, _NODES):
        some = slice(first, first + _NODES)
        block = sums[some] / np.maximum(sums[some, :1], 1)
        _, x, xx, s, xs = np.split(block, edges, axis=1)
        spread = np.empty((len(block), terms, terms))
        spread[:, upper[0], upper[1]] = spread[:, upper[1], upper[0]] = xx
        spread -= x[:, :, None] * x[:, None]
        spread += _RIDGE * np.eye(terms)
        finite = np.isfinite(spread).all(axis=(1, 2))
        spread[~finite] = np.eye(terms)
        inverses[some] = np.linalg.inv(spread)
        slopes[some] = inverses[some] @ (xs.reshape(-1, terms, 6) - x[:, :, None] * s[:, None])
        centres[some], means[some] = x, s
    return Patches(places, scales, sums[:, 0].copy(), centres, inverses, means, slopes)
