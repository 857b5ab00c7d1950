"""Shape functions and their derivatives, of elements and of faces.

Those of elements take one point of parameters, or an array (..., 3) of them.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .topology import HEX8, HEX8_SIGNS, TET4, TET10, TET10_EDGES

# Barycentric gradients (L, a, b, c) with respect to (a, b, c).
BARYCENTRIC = np.array(((-1, -1, -1), (1, 0, 0), (0, 1, 0), (0, 0, 1)), dtype=np.float64)


def tet10_gradients(point: npt.ArrayLike) -> Array:
    """Derivatives (10, 3) of the quadratic shape functions at the parameters (a, b, c)."""
    bary = _barycentric(np.asarray(point, np.float64))[..., None]
    corners = (4.0 * bary - 1.0) * BARYCENTRIC
    i, j = TET10_EDGES.T
    mids = 4.0 * (bary[..., i, :] * BARYCENTRIC[j] + bary[..., j, :] * BARYCENTRIC[i])
    return np.concatenate((corners, mids), axis=-2)


def _barycentric(abc: Array) -> Array:
    return np.concatenate((1.0 - abc.sum(axis=-1, keepdims=True), abc), axis=-1)


def hex8_gradients(point: npt.ArrayLike) -> Array:
    """Derivatives (8, 3) of the trilinear shape functions at (xi, eta, zeta)."""
    factors = 1.0 + HEX8_SIGNS * np.asarray(point, np.float64)[..., None, :]
    gradients = np.empty_like(factors)
    for k in range(3):
        others = [m for m in range(3) if m != k]
        gradients[..., k] = HEX8_SIGNS[:, k] * factors[..., others].prod(axis=-1) / 8.0
    return gradients


GRADIENTS: dict[int, Callable[[npt.ArrayLike], Array]] = {
    TET4: lambda point: np.broadcast_to(BARYCENTRIC, (*np.shape(point)[:-1], 4, 3)),
    HEX8: hex8_gradients,
    TET10: tet10_gradients,
}


def shape_values(code: int, point: Array) -> Array:
    if code == HEX8:
        trilinear: Array = np.prod(1 + HEX8_SIGNS * point[..., None, :], axis=-1) / 8
        return trilinear
    bary = _barycentric(point)
    if code == TET4:
        return bary
    i, j = TET10_EDGES.T
    return np.concatenate((bary * (2 * bary - 1), 4 * bary[..., i] * bary[..., j]), axis=-1)


def tri3(r: float, s: float) -> tuple[Array, Array]:
    shape = np.array((1 - r - s, r, s))
    return shape, BARYCENTRIC[:3, :2]


def tri6(r: float, s: float) -> tuple[Array, Array]:
    bary, slope = tri3(r, s)
    i, j = np.array(((0, 1), (1, 2), (2, 0))).T
    shape = np.concatenate((bary * (2 * bary - 1), 4 * bary[i] * bary[j]))
    mids = 4 * (bary[i, None] * slope[j] + bary[j, None] * slope[i])
    return shape, np.concatenate(((4 * bary - 1)[:, None] * slope, mids))


def quad4(r: float, s: float) -> tuple[Array, Array]:
    signs = HEX8_SIGNS[:4, :2]
    factors = 1 + signs * (r, s)
    slope = np.column_stack((signs[:, 0] * factors[:, 1], signs[:, 1] * factors[:, 0])) / 4
    return factors.prod(axis=1) / 4, slope
