"""Forces spread over faces or nodes so that their sum and their moment are those asked for."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array

from .forces import area_shares, consistent_forces

_SLENDER = 1e-9  # second moments below it, relative to their sum, carry no moment
_ROUNDED = 1e-6  # moment over force and distance that 32-bit coordinates may have left
_ROUNDS = 50  # of the direction of a bearing pressure, which takes two or three
_CONVERGED = 1e-12


@dataclass
class Carrier:
    """Nodes that share a load: `shares` (k,) add up to the whole, `weighted` (k, 3) is each one's
    part of the integral of the offset from the centroid, `arms` (k, 3) are the nodes' offsets.
    """

    numbers: Array
    centroid: Array
    shares: Array
    weighted: Array
    arms: Array


def carried_by_faces(nodes: Array, tables: list[Array]) -> Carrier:
    """Faces as what carries a traction that varies linearly over them."""
    numbers, shares = area_shares(nodes, tables)
    centroid: Array = shares @ nodes[numbers - 1] / shares.sum()
    weighted = consistent_forces(nodes, tables, lambda points: points - centroid)[1]
    return Carrier(numbers, centroid, shares, weighted, nodes[numbers - 1] - centroid)


def carried_by_nodes(nodes: Array, numbers: Array) -> Carrier:
    """Nodes that share alike."""
    centroid: Array = nodes[numbers - 1].mean(axis=0)
    arms = nodes[numbers - 1] - centroid
    return Carrier(numbers, centroid, np.ones(len(numbers)), arms, arms)


def with_resultant(carrier: Carrier, force: Array, moment: Array) -> Array | None:
    """Nodal forces (k, 3) whose sum is `force`, whose moment about the centroid is `moment`.

    The traction F / A + w x r, linear in the offset r from the centroid, with w from J w = M and
    J = integral of (r.r) 1 - r r: of all with these resultants the one of least squares. None
    where the moment turns about a line on which all of the nodes lie.
    """
    product = carrier.arms.T @ carrier.weighted
    inertia = np.trace(product) * np.eye(3) - (product + product.T) / 2
    values, axes = np.linalg.eigh(inertia)
    along = axes.T @ moment
    weak = values <= _SLENDER * values.sum()
    reach = np.abs(carrier.centroid).max() + np.abs(carrier.arms).max()
    rounded = _ROUNDED * (np.linalg.norm(moment) + reach * np.linalg.norm(force))
    if np.any(np.abs(along[weak]) > rounded):
        return None
    turn = axes @ np.where(weak, 0.0, along / np.where(weak, 1.0, values))
    uniform = (carrier.shares / carrier.shares.sum())[:, None] * force
    spread: Array = uniform + np.cross(turn, carrier.weighted)
    return spread


_WHOLE = 0.1  # sideways share up to which a wall counts as whole on the side that is pushed


@dataclass
class Bearing:
    """Nodal forces of a bearing pressure; `sideways` (3,) is their sum across the force."""

    numbers: Array
    forces: Array
    sideways: Array


class _Wall:
    """A cylinder's wall with the unit vectors e that point into the material."""

    def __init__(self, nodes: Array, tables: list[Array], point: Array, axis: Array) -> None:
        self.nodes, self.tables = nodes, tables
        self.point, self.axis = point, axis / np.linalg.norm(axis)
        self.sign = 1.0
        self.numbers, pushed = consistent_forces(nodes, tables, 1.0)
        if np.einsum("ij,ij->", pushed, self.inward(nodes[self.numbers - 1])) < 0:
            self.sign = -1.0  # a shaft: material lies towards the axis

    def inward(self, points: Array) -> Array:
        away = points - self.point
        away = away - (away @ self.axis)[:, None] * self.axis
        unit: Array = self.sign * away / np.linalg.norm(away, axis=1, keepdims=True)
        return unit

    def pressed(self, g: Array, side: Array) -> Array:
        """Nodal forces of the pressure g.e where side.e is positive."""

        def traction(points: Array) -> Array:
            e = self.inward(points)
            vectors: Array = np.where(e @ side > 0, e @ g, 0.0)[:, None] * e
            return vectors

        return consistent_forces(self.nodes, self.tables, traction)[1]


def bearing_forces(
    nodes: Array, tables: list[Array], point: Array, axis: Array, force: Array
) -> Bearing | None:
    """Nodal forces of the pressure max(0, g.e) on a cylinder's wall, e the unit vector into it.

    With g along the force the pressure goes with the cosine. On a wall that is whole where it is
    pushed, g is turned and scaled until the sum is `force`, which takes out what the mesh lacks of
    symmetry; on a part of it, such as one half of a symmetric hole, g keeps its direction and only
    the component along the force is right. `force` is square to `axis`. None where nothing of the
    wall is pushed.
    """
    wall = _Wall(nodes, tables, point, axis)
    size = float(np.linalg.norm(force))
    unit = force / size
    loads = wall.pressed(unit, unit)
    along = float(loads.sum(axis=0) @ unit)
    if along <= 0:
        return None
    loads *= size / along
    sideways = loads.sum(axis=0) - force
    if np.linalg.norm(sideways) > _WHOLE * size:
        return Bearing(wall.numbers, loads, sideways)
    plane = np.array((unit, np.cross(wall.axis, unit)))
    g = unit
    for _ in range(_ROUNDS):
        side = g / np.linalg.norm(g)
        columns = np.array([wall.pressed(direction, side) for direction in plane])
        shares = np.linalg.solve(plane @ columns.sum(axis=1).T, plane @ force)
        g = plane.T @ shares
        loads = np.einsum("k,kna->na", shares, columns)  # their sum is the force in every round
        if np.linalg.norm(g / np.linalg.norm(g) - side) <= _CONVERGED:
            break
    return Bearing(wall.numbers, loads, np.zeros(3))
