"""Stresses at nodes, recovered from those inside the elements around them.

Each material is recovered on its own, and only from elements that are more than half material. A
node in the middle of its patch takes the value of its own polynomial. Others, on surfaces and
interfaces, take the mean of the polynomials of the nodes beside them, each weighted by how far it
can be trusted there. Where none can, in a part one element thick, the elements' own stresses at the
node are averaged. Nodes just outside, of elements that are less than half material, take the
polynomials that their neighbours trusted most, or the mean of their neighbours: a picture needs
them to colour the surface.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.directory.levels import NEAREST_LEVEL
from vkctl.shapes.topology import HEX8, HEX8_SIGNS, TET4, TET10, TET10_EDGES, TET_CORNERS, TYPES

from .law import energy_densities
from .measures import von_mises
from .patches import LINEAR, QUADRATIC, Patches, Region, fit_patches
from .points import HALF, element_levels, element_means, evaluate, nodes_inside
from .solution import Solution

_CENTRAL = 1.0  # eccentricity up to which a node lies in the middle of its patch
_TRUSTED = 3.0  # leverage up to which a polynomial counts at a place
_TRUSTED_OUTSIDE = 8.0  # the same outside the part, an element further off
_BLOCK = 1 << 14  # elements at a time
_CORNERS = np.array(TET_CORNERS)
# Parameters of an element's nodes.
_NODE_POINTS = {
    TET4: _CORNERS,
    HEX8: HEX8_SIGNS,
    TET10: np.concatenate((_CORNERS, _CORNERS[TET10_EDGES].mean(axis=1))),
}


@dataclass(frozen=True)
class MaterialStress:
    """Stresses of one material at the nodes that it has a part in."""

    material: int
    nodes: Array  # (k,) numbers, ascending
    stress: Array  # (k, 6): xx, yy, zz, xy, yz, xz
    energy: Array  # (k,) strain energy densities
    inside: Array  # bool (k,): not just beyond the part's surface


@dataclass(frozen=True)
class NodalStress:
    """Stresses at nodes, a part for each material. Nodes outside all materials are in none."""

    count: int  # of the model's nodes
    parts: list[MaterialStress]

    def merged(self) -> MaterialStress:
        """One value a node, all nodes in order; NaN and material 0 outside.

        Where materials meet it is the value of the one with the larger von Mises stress, of those
        inside the part where there are such.
        """
        stress = np.full((self.count, 6), np.nan)
        energy = np.full(self.count, np.nan)
        inside = np.zeros(self.count, np.bool_)
        highest = np.full(self.count, -np.inf)
        for part in self.parts:
            equivalent = von_mises(part.stress)
            place = part.nodes - 1
            # Those of nodes outside stand behind all that are inside.
            rank = np.where(part.inside, equivalent, -1 / (1 + equivalent))
            taken = rank > highest[place]
            highest[place[taken]] = rank[taken]
            stress[place[taken]], energy[place[taken]] = part.stress[taken], part.energy[taken]
            inside[place] |= part.inside
        return MaterialStress(0, np.arange(1, self.count + 1), stress, energy, inside)


def nodal_stress(solution: Solution) -> NodalStress:
    """Recover the stresses at all nodes that lie in or beside material."""
    whole, partly = _present(solution)
    materials = solution.elements.materials
    parts = []
    for material in distinct(materials[whole | partly]):
        chosen = materials == material
        region = _region(solution, chosen & (whole | partly), whole)
        stress = _recovered(solution, region)
        factors = _nodal_factors(solution, region)
        energy = energy_densities(solution.laws, int(material), stress, factors)
        inside = _inside(solution, region)
        parts.append(MaterialStress(int(material), region.nodes, stress, energy, inside))
    return NodalStress(len(solution.nodes), parts)


def _present(solution: Solution) -> tuple[Array, Array]:
    """Elements more than half of which is material, and others with some: masks (m,)."""
    highest = np.full(len(solution.elements), -np.inf)
    lowest = np.full(len(solution.elements), np.inf)
    for code in TYPES:
        numbers = np.flatnonzero(solution.active & (solution.elements.type_codes == code)) + 1
        for first in range(0, len(numbers), _BLOCK):
            some = numbers[first : first + _BLOCK]
            levels = element_levels(solution, code, some)
            highest[some - 1], lowest[some - 1] = levels.max(axis=1), levels.min(axis=1)
    whole = solution.active & (lowest > 0)
    cut = np.flatnonzero(solution.active & (lowest <= 0) & (highest >= 0)) + 1
    if len(cut):
        shares = element_means(solution, cut).share
        whole[cut - 1] = shares[cut - 1] > HALF
    margin = NEAREST_LEVEL * np.abs(solution.levels).max(initial=0.0)
    return whole, solution.active & (highest > -margin) & ~whole


def _inside(solution: Solution, region: Region) -> Array:
    """Mask of the nodes of a region at which an element has no negative level."""
    if (solution.levels >= 0).all():
        return np.ones(len(region.nodes), np.bool_)
    inside = np.zeros(len(region.nodes), np.bool_)
    for code, (numbers, rows) in region.tables.items():
        inside[nodes_inside(solution, code, numbers, rows)] = True
    return inside


def _region(solution: Solution, chosen: Array, whole: Array) -> Region:
    """The chosen elements, numbered by the nodes that they touch."""
    elements = solution.elements
    tables, sampled = {}, {}
    used = np.zeros(len(solution.nodes), np.bool_)
    for code in TYPES:
        numbers = np.flatnonzero(chosen & (elements.type_codes == code)) + 1
        if len(numbers):
            rows = elements.table(code)[elements.conn_index[numbers - 1] - 1]
            used[rows.ravel() - 1] = True
            tables[code], sampled[code] = (numbers, rows), whole[numbers - 1]
    local = np.cumsum(used) - 1
    tables = {code: (numbers, local[rows - 1]) for code, (numbers, rows) in tables.items()}
    terms = QUADRATIC if list(tables) == [TET10] else LINEAR
    return Region(np.flatnonzero(used) + 1, tables, sampled, terms)


def _recovered(solution: Solution, region: Region) -> Array:
    """Stresses (k, 6) at the nodes of a region; NaN where nothing reaches."""
    patches = fit_patches(solution, region)
    found = np.full((len(region.nodes), 6), np.nan)
    everyone = np.arange(len(region.nodes))
    for first in range(0, len(everyone), _BLOCK):
        _take_own(found, patches, everyone[first : first + _BLOCK])
    if region.terms == QUADRATIC:
        _take_ends(found, region, patches)
    best = _take_neighbours(found, region, patches)
    _take_elements(found, solution, region)
    _take_further(found, region, patches, best)
    _take_means(found, region)
    return found


def _take_own(found: Array, patches: Patches, nodes: Array) -> None:
    """Values of the nodes that lie in the middle of their patches."""
    values, leverages = patches.at(nodes, patches.places[nodes])
    central = (patches.counts[nodes] > 0) & (leverages <= 1)
    central[central] = patches.eccentricities(nodes[central]) <= _CENTRAL
    found[nodes[central]] = values[central]


def _take_ends(found: Array, region: Region, patches: Patches) -> None:
    """Mid-edge nodes whose edge ends in central nodes: the mean of both ends' polynomials."""
    rows = region.tables[TET10][1]
    mids, first = np.unique(rows[:, 4:].ravel(), return_index=True)
    ends = rows[:, TET10_EDGES].reshape(-1, 2)[first]
    central = np.isfinite(found[ends, 0]).all(axis=1) & ~np.isfinite(found[mids, 0])
    mids, ends = mids[central], ends[central]
    sums = _Sums(len(found))
    for start in range(0, len(mids), _BLOCK):
        some = slice(start, start + _BLOCK)
        for end in ends[some].T:
            sums.add(patches, mids[some], end, _TRUSTED)
    sums.settle(found)


def _take_neighbours(found: Array, region: Region, patches: Patches) -> Array:
    """Nodes without a value: the polynomials of all nodes that share an element with them.

    Gives for each node the one whose polynomial it trusts most: itself where it has a value of its
    own, -1 where there is none.
    """
    best = np.where(np.isfinite(found[:, 0]), np.arange(len(found)), -1)
    sums = _Sums(len(found))
    for b, a in _open_pairs(found, region):
        sums.add(patches, b, a, _TRUSTED)
    sums.settle(found)
    return np.where(sums.best >= 0, sums.best, best)


def _take_further(found: Array, region: Region, patches: Patches, best: Array) -> None:
    """Nodes without a value: the polynomials that their neighbours trust most."""
    sums = _Sums(len(found))
    for b, a in _open_pairs(found, region):
        known = best[a] >= 0
        sums.add(patches, b[known], best[a[known]], _TRUSTED_OUTSIDE)
    sums.settle(found)


def _open_pairs(found: Array, region: Region) -> Iterator[tuple[Array, Array]]:
    """Nodes without a value and the nodes with a patch in their elements, some at a time."""
    open_nodes = ~np.isfinite(found[:, 0])
    for code, (_, rows) in region.tables.items():
        touching = rows[open_nodes[rows].any(axis=1)]
        for start in range(0, len(touching), _BLOCK):
            some = touching[start : start + _BLOCK]
            for b in range(some.shape[1]):
                targets = some[open_nodes[some[:, b]]]
                for a in range(region.corners(code)):
                    yield targets[:, b], targets[:, a]


class _Sums:
    """Means of polynomials at nodes, each weighted by the inverse of its leverage there."""

    def __init__(self, count: int) -> None:
        self.total, self.weight = np.zeros((count, 6)), np.zeros(count)
        self.best = np.full(count, -1)
        self._lowest = np.full(count, np.inf)

    def add(self, patches: Patches, targets: Array, patch: Array, trusted: float) -> None:
        """Add the values of patches at nodes, up to a leverage."""
        made = patches.counts[patch] > 0
        targets, patch = targets[made], patch[made]
        values, leverages = patches.at(patch, patches.places[targets])
        taken = leverages <= trusted
        targets, patch, leverages = targets[taken], patch[taken], leverages[taken]
        nodes, place = np.unique(targets, return_inverse=True)
        self.weight[nodes] += np.bincount(place, 1 / leverages)
        for k in range(6):
            self.total[nodes, k] += np.bincount(place, values[taken, k] / leverages)
        order = np.argsort(-leverages)  # of several the lowest is written last
        better = order[leverages[order] < self._lowest[targets[order]]]
        self.best[targets[better]] = patch[better]
        self._lowest[targets[better]] = leverages[better]

    def settle(self, found: Array) -> None:
        """Write the means of the nodes that were reached."""
        reached = self.weight > 0
        found[reached] = self.total[reached] / self.weight[reached, None]


def _take_elements(found: Array, solution: Solution, region: Region) -> None:
    """Nodes still without a value: the mean of what their elements have at the node itself."""
    open_nodes = ~np.isfinite(found[:, 0])
    total, weight = np.zeros_like(found), np.zeros(len(found))
    for code, (numbers, rows) in region.tables.items():
        touching = region.sampled[code] & open_nodes[rows].any(axis=1)
        places = np.flatnonzero(touching)
        for start in range(0, len(places), _BLOCK // 8):
            some = places[start : start + _BLOCK // 8]
            at = evaluate(solution, code, numbers[some], _NODE_POINTS[code])
            finite = np.isfinite(at.stresses).all(axis=(1, 2))
            flat = rows[some][finite].ravel()
            weight += np.bincount(flat, minlength=len(weight))
            for k in range(6):
                values = at.stresses[finite, :, k].ravel()
                total[:, k] += np.bincount(flat, values, len(weight))
    reached = open_nodes & (weight > 0)
    found[reached] = total[reached] / weight[reached, None]


def _take_means(found: Array, region: Region) -> None:
    """Nodes that nothing reaches: the mean of the values in their elements, if there are any."""
    known = np.isfinite(found[:, 0])
    total, weight = np.zeros_like(found), np.zeros(len(found))
    for _, rows in region.tables.values():
        touching = rows[~known[rows].all(axis=1)]
        for a in range(rows.shape[1]):
            given = known[touching[:, a]]
            for b in range(rows.shape[1]):
                targets, sources = touching[given, b], touching[given, a]
                weight += np.bincount(targets, minlength=len(weight))
                for k in range(6):
                    total[:, k] += np.bincount(targets, found[sources, k], len(weight))
    reached = ~known & (weight > 0)
    found[reached] = total[reached] / weight[reached, None]


def _nodal_factors(solution: Solution, region: Region) -> Array:
    """Mean factor on the law of the elements at each node of a region."""
    if (solution.factors == 1).all():
        return np.ones(len(region.nodes))
    total, counts = np.zeros(len(region.nodes)), np.zeros(len(region.nodes))
    for code, (numbers, rows) in region.tables.items():
        mask = region.sampled[code]
        factors = np.repeat(solution.factors[numbers[mask] - 1], rows.shape[1])
        total += np.bincount(rows[mask].ravel(), factors, len(total))
        counts += np.bincount(rows[mask].ravel(), minlength=len(total))
    means: Array = np.where(counts > 0, total / np.maximum(counts, 1), 1.0)
    return means
