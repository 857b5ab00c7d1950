"""The design field on a mesh: smoothing, volume, and the threshold that meets a volume."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
from scipy import sparse
from scipy.spatial import cKDTree

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.measures import element_volumes
from vkctl.shapes.topology import CORNERS_PER_TYPE, HEX8, HEX8_SIGNS, TET4, TET10, TYPES

DEFAULT_RADIUS = 1.5  # mean distances of neighbouring nodes
_BISECTIONS = 45
_HEX_SAMPLES = (-0.75, -0.25, 0.25, 0.75)
_TET_SPLITS = 4


@dataclass
class Design:
    """What the loop needs of a model. Nodes and design points are 0-based here."""

    points: Array  # (p, 3) a place of each design point: the mean of its nodes
    node_of: Array  # nodes that have a design point
    point_of: Array  # and the design point of each
    smoothing: Any  # sparse (p, p), rows add up to 1
    kept: Array  # bool (p,): stays material
    samples: list[tuple[Array, Array, Array]]  # corner nodes (e, c), shape values (s, c), volumes
    num_nodes: int

    def levels_of_nodes(self, levels: Array) -> Array:
        """Level per node; nodes without a design point are material."""
        nodes = np.ones(self.num_nodes)
        nodes[self.node_of] = levels[self.point_of]
        return nodes

    def volume(self, levels: Array) -> float:
        """Part of the design volume where the interpolated level is positive."""
        nodes = self.levels_of_nodes(levels)
        filled = total = 0.0
        for corners, shapes, volumes in self.samples:
            values = nodes[corners]
            positive = (values > 0).sum(axis=1)
            cut = (positive > 0) & (positive < values.shape[1])
            parts = (values[cut] @ shapes.T > 0).mean(axis=1)
            filled += float(volumes[positive == values.shape[1]].sum() + parts @ volumes[cut])
            total += float(volumes.sum())
        return filled / total

    def next_levels(
        self, levels: Array, criterion: Array, volume: float, move: float
    ) -> tuple[Array, float]:
        """The moved field whose volume is `volume`, and its threshold."""
        low, high = 0.0, float(criterion.max())
        for _ in range(_BISECTIONS):
            threshold = 0.5 * (low + high)
            if self.volume(self._moved(levels, criterion, threshold, move)) > volume:
                low = threshold
            else:
                high = threshold
        return self._moved(levels, criterion, high, move), high

    def _moved(self, levels: Array, criterion: Array, threshold: float, move: float) -> Array:
        if threshold <= 0:
            return np.ones_like(levels)
        wanted = np.clip(criterion / threshold - 1.0, -1.0, 1.0)
        moved = (1.0 - move) * levels + move * wanted
        moved[self.kept] = 1.0
        return moved


def make_design(model: Model, radius: float | None, kept_nodes: Array) -> Design:
    """Design of a model; `kept_nodes` are numbers of nodes whose design points stay material."""
    assert model.node_tp_index is not None
    nodes = np.flatnonzero(model.node_tp_index > 0)
    points_of_nodes = model.node_tp_index[nodes].astype(np.int64) - 1
    count = len(model.tp)
    share = np.maximum(np.bincount(points_of_nodes, minlength=count), 1)
    points = np.column_stack(
        [np.bincount(points_of_nodes, model.nodes[nodes, k], count) / share for k in range(3)]
    )
    kept = np.zeros(count, np.bool_)
    chosen = model.node_tp_index[np.asarray(kept_nodes, np.int64) - 1]
    kept[chosen[chosen > 0] - 1] = True
    samples = _samples(model)
    if not samples:
        raise ValueError("no element follows the level field: there is nothing to design")
    reach = radius or DEFAULT_RADIUS * _node_distance(model)
    return Design(
        points, nodes, points_of_nodes, _smoothing(points, reach), kept, samples, len(model.nodes)
    )


def _node_distance(model: Model) -> float:
    """Mean length of the first edge of each element."""
    lengths = []
    for code in TYPES:
        first, second = model.elements.of_type(code)[1][:, :2].T - 1
        lengths.append(np.linalg.norm(model.nodes[first] - model.nodes[second], axis=1))
    return float(np.concatenate(lengths).mean())


def _smoothing(points: Array, radius: float) -> Any:
    """Weights that fall linearly to 0 at `radius`; each row adds up to 1.

    O. Sigmund, Struct. Multidisc. Optim. 21 (2001) 120-127.
    """
    tree = cKDTree(points)
    pairs = tree.query_pairs(radius, output_type="ndarray")
    distance = np.linalg.norm(points[pairs[:, 0]] - points[pairs[:, 1]], axis=1)
    one_way = sparse.csr_matrix(
        (radius - distance, (pairs[:, 0], pairs[:, 1])), shape=(len(points), len(points))
    )
    weights = one_way + one_way.T + radius * sparse.identity(len(points), format="csr")
    return sparse.diags(1.0 / np.asarray(weights.sum(axis=1)).ravel()) @ weights


def _samples(model: Model) -> list[tuple[Array, Array, Array]]:
    """Points at which elements that follow the level field are asked whether they are filled."""
    assert model.element_flags is not None
    off = model.element_flags & np.int16(EXCLUDED | formats.ELEMENT_NO_LEVEL) != 0
    volumes = element_volumes(model.nodes, model.elements)
    found = []
    for code, shapes in (
        (TET4, _tetrahedron_shapes()),
        (TET10, _tetrahedron_shapes()),
        (HEX8, _hexahedron_shapes()),
    ):
        corners = CORNERS_PER_TYPE[code]
        numbers, rows = model.elements.of_type(code)
        used = ~off[numbers - 1]
        if used.any():
            rows = rows[used, :corners].astype(np.int64) - 1
            found.append((rows, shapes, volumes[numbers[used] - 1]))
    return found


def _tetrahedron_shapes() -> Array:
    """Barycentric coordinates of evenly spread inner points, (s, 4)."""
    n = _TET_SPLITS
    steps = [
        (i, j, k, n - 1 - i - j - k)
        for i in range(n)
        for j in range(n - i)
        for k in range(n - i - j)
    ]
    return (np.array(steps, np.float64) + 0.25) / n


def _hexahedron_shapes() -> Array:
    """Trilinear functions at 4 x 4 x 4 inner points, (64, 8)."""
    s = np.array(_HEX_SAMPLES)
    points = np.array(np.meshgrid(s, s, s)).reshape(3, -1).T
    shapes: Array = np.prod(1.0 + points[:, None, :] * HEX8_SIGNS, axis=2) / 8.0
    return shapes
