"""Integration points and weights."""

from __future__ import annotations

from itertools import product

import numpy as np

from vkctl.basics.types import Array

from .topology import HEX8, HEX8_SIGNS, TET4, TET10

_G = 1.0 / np.sqrt(3.0)

# Points and weights that integrate the Jacobian determinant exactly: it is constant on the
# 4-node tetrahedron, at most quadratic in each parameter of the hexahedron, and of degree 3 on
# the 10-node tetrahedron (five-point rule of Stroud 1971, T3:3-1).
VOLUME_RULES: dict[int, tuple[Array, Array]] = {
    TET4: (np.full((1, 3), 0.25), np.array((1 / 6,))),
    HEX8: (_G * HEX8_SIGNS, np.ones(8)),
    TET10: (
        np.array(
            (
                (1 / 4, 1 / 4, 1 / 4),
                (1 / 6, 1 / 6, 1 / 6),
                (1 / 2, 1 / 6, 1 / 6),
                (1 / 6, 1 / 2, 1 / 6),
                (1 / 6, 1 / 6, 1 / 2),
            )
        ),
        np.array((-4 / 5, 9 / 20, 9 / 20, 9 / 20, 9 / 20)) / 6.0,
    ),
}


def triangle_points() -> list[tuple[float, float, float]]:
    """Seven points of degree 5 on the unit triangle (Radon 1948): r, s, weight."""
    points = [(1 / 3, 1 / 3, 9 / 80)]
    for sign in (-1.0, 1.0):
        a = (6 + sign * np.sqrt(15)) / 21
        weight = (155 + sign * np.sqrt(15)) / 2400
        points += [(a, a, weight), (1 - 2 * a, a, weight), (a, 1 - 2 * a, weight)]
    return points


QUADRANGLE_POINTS = [(r * _G, s * _G, 1.0) for r in (-1, 1) for s in (-1, 1)]

# Points and weights of Gauss and Legendre on (-1, 1) and, moved, on (0, 1).
GAUSS_2 = np.polynomial.legendre.leggauss(2)
_GAUSS_4 = np.polynomial.legendre.leggauss(4)


def tetrahedron_rule() -> tuple[Array, Array]:
    """64 points (a, b, c) and weights on the unit tetrahedron (Stroud 1971, conical product).

    Exact to degree 5: shape function times the Jacobian of a curved tetrahedron.
    """
    points, weights = (_GAUSS_4[0] + 1) / 2, _GAUSS_4[1] / 2
    u, v, w = (g.ravel() for g in np.meshgrid(points, points, points, indexing="ij"))
    product = np.einsum("i,j,k->ijk", weights, weights, weights).ravel()
    abc = np.column_stack((u, v * (1 - u), w * (1 - u) * (1 - v)))
    return abc, product * (1 - u) ** 2 * (1 - v)


# Orbits (a, a, a, b) of the tetrahedron rules of 4 and of 8 points.
_TET_ORBITS = (0.1381966011250105, 0.3280546967114267, 0.10695227393293068)
_GAUSS = (-0.774596669241483, -0.577350269189626, 0.0, 0.577350269189626, 0.774596669241483)


def solver_tetrahedron_points() -> list[tuple[float, float, float]]:
    points = []
    for a in _TET_ORBITS:
        b = 1 - 3 * a
        points += [(a, a, a), (a, a, b), (a, b, a), (b, a, a)]
    return points


def solver_hexahedron_points() -> list[tuple[float, ...]]:
    """Points of the products of the rules of 3 and of 2 points."""
    return [*product(_GAUSS[::2], repeat=3), *product(_GAUSS[1::2], repeat=3)]
