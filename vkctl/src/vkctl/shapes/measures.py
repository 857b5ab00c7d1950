"""Sizes and places: volumes, centroids, Jacobian determinants, nodes by their coordinates."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .elements import Elements
from .functions import GRADIENTS
from .rules import VOLUME_RULES
from .topology import CORNERS_PER_TYPE, TET10_EDGES


def _determinants(nodes: Array, rows: Array, gradients: Array) -> Array:
    jacobian = np.einsum("ena,nb->eab", nodes[rows - 1], gradients)
    determinants: Array = np.linalg.det(jacobian)
    return determinants


def element_volumes(nodes: Array, elements: Elements) -> Array:
    """Signed volume of each element, (m,); a negative value is an inverted element.

    Elements of unknown type codes have the volume 0.
    """
    volumes = np.zeros(len(elements))
    for code, (points, weights) in VOLUME_RULES.items():
        numbers, rows = elements.of_type(code)
        for point, weight in zip(points, weights, strict=True):
            determinants = _determinants(nodes, rows, GRADIENTS[code](point))
            volumes[numbers - 1] += weight * determinants
    return volumes


def element_centroids(nodes: Array, elements: Elements) -> Array:
    """Mean of the corner nodes of each element, (m, 3); NaN for unknown type codes."""
    centroids = np.full((len(elements), 3), np.nan)
    for code, corners in CORNERS_PER_TYPE.items():
        numbers, rows = elements.of_type(code)
        centroids[numbers - 1] = nodes[rows[:, :corners] - 1].mean(axis=1)
    return centroids


def select_nodes(
    nodes: Array,
    x: float | tuple[float, float] | None = None,
    y: float | tuple[float, float] | None = None,
    z: float | tuple[float, float] | None = None,
    tolerance: float = 1e-6,
) -> Array:
    """Numbers of the nodes at a coordinate or inside a closed range, in each direction given.

    `tolerance` is relative to the largest extent of the nodes.
    """
    margin = tolerance * float(np.ptp(nodes, axis=0).max(initial=0.0)) if len(nodes) else 0.0
    inside = np.ones(len(nodes), np.bool_)
    for k, wanted in enumerate((x, y, z)):
        if wanted is not None:
            low, high = wanted if isinstance(wanted, tuple) else (wanted, wanted)
            inside &= (nodes[:, k] >= low - margin) & (nodes[:, k] <= high + margin)
    return np.flatnonzero(inside) + 1


# Volume over the cube of the longest edge. Below the first an element has no volume that a solve
# can bear. Below the second it is no more than what 32-bit coordinates make of a flat one: a part
# is refused with it, since it can be meshed anew, while a directory that holds it still runs.
NO_VOLUME = 1e-10
NEARLY_NO_VOLUME = 1e-6

# How far a mid-edge node is off the middle of its edge, relative to the edge. Up to the first an
# element is taken for straight where forces are spread and nodes turned. Up to the second its shape
# is measured as a straight one: what lies between can't fold it.
STRAIGHT = 1e-6
NEARLY_STRAIGHT = 1e-4
_BLOCK = 1 << 8  # elements at a time


def curved(nodes: Array, table: Array) -> Array:
    """Mask of the 10-node tetrahedra with an edge that isn't straight or unevenly divided.

    What the rounding of coordinates to 32 bits can do doesn't count.
    """
    mask = np.zeros(len(table), np.bool_)
    rounding = 1.2e-7 * float(np.abs(nodes).max(initial=0.0))
    for place, (i, j) in enumerate(TET10_EDGES, 4):
        a, b, middle = (nodes[table[:, k] - 1] for k in (i, j, place))
        off = np.abs(middle - (a + b) / 2).max(axis=1)
        mask |= off > STRAIGHT * np.abs(b - a).max(axis=1) + rounding
    return mask


def determinants(nodes: Array, table: Array, code: int, points: Array) -> Array:
    """Jacobian determinants (elements, points) of connectivity rows at parameter points (p, 3).

    For 10-node tetrahedra and hexahedra; done block by block, which keeps to the caches.
    """
    gradients = np.array([GRADIENTS[code](point) for point in points])
    factors = gradients.transpose(1, 2, 0).reshape(table.shape[1], -1)
    found = np.empty((len(table), len(points)))
    for first in range(0, len(table), _BLOCK):
        rows = table[first : first + _BLOCK]
        corners = nodes[rows - 1].transpose(0, 2, 1)
        jacobian = (corners @ factors).reshape(len(rows), 3, 3, len(points))
        x, y, z = (jacobian[:, k] for k in range(3))
        found[first : first + _BLOCK] = (
            x[:, 0] * (y[:, 1] * z[:, 2] - y[:, 2] * z[:, 1])
            + x[:, 1] * (y[:, 2] * z[:, 0] - y[:, 0] * z[:, 2])
            + x[:, 2] * (y[:, 0] * z[:, 1] - y[:, 1] * z[:, 0])
        )
    return found
