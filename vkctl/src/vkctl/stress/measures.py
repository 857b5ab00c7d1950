"""What a stress says: principal values and directions, equivalents.

Stresses are arrays (..., 6) in the order xx, yy, zz, xy, yz, xz. Where one isn't finite, what
follows from it is NaN.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

_BLOCK = 1 << 15
# Places of the six components in the symmetric matrix.
_MATRIX = np.array(((0, 3, 5), (3, 1, 4), (5, 4, 2)))


def mean_normal(stress: Array) -> Array:
    """Mean of the normal stresses; negative under pressure."""
    mean: Array = stress[..., :3].mean(axis=-1)
    return mean


def von_mises(stress: Array) -> Array:
    """Equivalent stress of von Mises, never negative."""
    x, y, z, xy, yz, xz = np.moveaxis(stress, -1, 0)
    normal = ((x - y) ** 2 + (y - z) ** 2 + (z - x) ** 2) / 6
    found: Array = np.sqrt(3 * (normal + xy**2 + yz**2 + xz**2))
    return found


def signed_von_mises(stress: Array) -> Array:
    """Von Mises stress with the sign of the mean normal stress; positive where that is 0."""
    equivalent = von_mises(stress)
    signed: Array = np.where(mean_normal(stress) < 0, -equivalent, equivalent)
    return signed


def principal(stress: Array) -> Array:
    """Principal stresses (..., 3), the largest first."""
    flat = stress.reshape(-1, 6)
    found = np.full((len(flat), 3), np.nan)
    for place in _finite_blocks(flat):
        found[place] = np.linalg.eigvalsh(flat[place][:, _MATRIX])[:, ::-1]
    values: Array = found.reshape(*stress.shape[:-1], 3)
    return values


def principal_directions(stress: Array) -> tuple[Array, Array]:
    """Principal stresses (..., 3), the largest first, and their directions (..., 3, 3).

    Row k of a stress's directions is the unit vector of its value k; the three form a right-handed
    system. Where values are equal any directions that span their plane are right.
    """
    flat = stress.reshape(-1, 6)
    values = np.full((len(flat), 3), np.nan)
    directions = np.full((len(flat), 3, 3), np.nan)
    for place in _finite_blocks(flat):
        found, vectors = np.linalg.eigh(flat[place][:, _MATRIX])
        values[place] = found[:, ::-1]
        rows = vectors.transpose(0, 2, 1)[:, ::-1].copy()
        rows[:, 2] = np.cross(rows[:, 0], rows[:, 1])
        directions[place] = rows
    shape = stress.shape[:-1]
    return values.reshape(*shape, 3), directions.reshape(*shape, 3, 3)


def tresca(principal_stresses: Array) -> Array:
    """Largest minus smallest of principal stresses (..., 3): twice the largest shear stress."""
    span: Array = principal_stresses[..., 0] - principal_stresses[..., 2]
    return span


def _finite_blocks(flat: Array) -> list[Array]:
    """Places of finite rows, some at a time."""
    finite = np.flatnonzero(np.isfinite(flat).all(axis=1))
    return [finite[k : k + _BLOCK] for k in range(0, len(finite), _BLOCK)]
