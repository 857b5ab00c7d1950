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


# The solver's rules by order, on the tetrahedron in orbits of four points: relative weight and a
# of (a, a, a, b); on the hexahedron products of the rules of as many points.
_TET_ORBITS = {
    2: ((0.25, 0.1381966011250105),),
    3: ((0.13852796651186214, 0.3280546967114267), (0.11147203348813786, 0.10695227393293068)),
}
_GAUSS = {
    2: ((-0.577350269189626, 1.0), (0.577350269189626, 1.0)),
    3: (
        (-0.774596669241483, 0.555555555555556),
        (0.0, 0.888888888888889),
        (0.774596669241483, 0.555555555555556),
    ),
}
COARSE, FINE = 2, 3  # orders
FINE_ABOVE = float(np.float32(-0.2))  # largest level of an element from which on it takes the finer


def solver_rule(code: int, order: int) -> tuple[Array, Array]:
    """Points (p, 3) and weights of the solver's rule on the unit tetrahedron or the cube."""
    if code == HEX8:
        products = list(product(_GAUSS[order], repeat=3))
        points = np.array([[place for place, _ in p] for p in products])
        return points, np.array([[weight for _, weight in p] for p in products]).prod(axis=1)
    orbits = _TET_ORBITS[order]
    points = np.array([point for _, a in orbits for point in _orbit(a)])
    return points, np.repeat([weight / 6 for weight, _ in orbits], 4)


def _orbit(a: float) -> list[tuple[float, float, float]]:
    b = 1 - 3 * a
    return [(a, a, a), (a, a, b), (a, b, a), (b, a, a)]


def solver_tetrahedron_points() -> list[tuple[float, float, float]]:
    return [point for orbits in _TET_ORBITS.values() for _, a in orbits for point in _orbit(a)]


def solver_hexahedron_points() -> list[tuple[float, ...]]:
    """Points of the products of the rules of 3 and of 2 points."""
    return [tuple(p) for order in (FINE, COARSE) for p in solver_rule(HEX8, order)[0].tolist()]
