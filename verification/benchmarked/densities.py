"""Density methods on the mesh, supports and loads of a prepared directory."""

from __future__ import annotations

import density_method
import numpy as np
from density_printed import printed_densities
from printing_filter import printer
from scipy import sparse
from scipy.sparse.linalg import splu
from support import fem

from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.optimise.limits.aggregates import nodal_forces
from vkctl.shapes import shells
from vkctl.shapes.measures import element_centroids, element_volumes
from vkctl.view.part_body import cut_part, mesh_body

from .finer import one_type

_TRIALS = 25
_BEGINS = (0.7,)  # of blueprints, between all material and the volume
_STEPPED = 0.98  # of the volume: the surface fills the corners of steps of elements


class Energies:
    """u K u of each element at the material's own modulus, the mean over load cases."""

    def __init__(self, model: Model, weights: Array) -> None:
        code, table = one_type(model)
        (material,) = model.materials
        rule = fem.solver_rule(code, 2)
        points = fem.Points(code, model.nodes, table, *rule)
        self.matrices = fem.stiffness(points, fem.isotropic(material.e, material.nu))
        self.equations = (3 * table[:, :, None] + np.arange(3)).reshape(len(table), -1)
        self.count = 3 * len(model.nodes)
        self.free = np.setdiff1d(np.arange(self.count), _held(model))
        numbers = range(1, len(model.load_cases) + 1)
        self.loads = np.array([nodal_forces(model, k).ravel() for k in numbers])
        self.weights = weights / weights.sum()

    def __call__(self, moduli: Array) -> Array:
        size = self.equations.shape[1]
        values = moduli[:, None, None] * self.matrices
        rows = np.repeat(self.equations, size, axis=1).ravel()
        columns = np.tile(self.equations, (1, size)).ravel()
        shape = (self.count, self.count)
        matrix = sparse.csc_matrix((values.ravel(), (rows, columns)), shape=shape)
        inner = matrix[self.free][:, self.free]
        factor = splu(inner, "MMD_AT_PLUS_A", options={"SymmetricMode": True})
        total = np.zeros(len(moduli))
        for load, weight in zip(self.loads, self.weights, strict=True):
            u = np.zeros(self.count)
            u[self.free] = factor.solve(load[self.free])
            local = u[self.equations]
            total += weight * np.einsum("ei,eij,ej->e", local, self.matrices, local, optimize=True)
        return total


def _held(model: Model) -> Array:
    """Equations with a support, which must be the same in all load cases."""
    found = []
    for case in model.load_cases:
        records = case.constraints
        if records["Kind"].any() or np.any(records["Value"]):
            raise ValueError("the density method knows fixed supports alone")
        bits = records["DofMask"].astype(np.int64)[:, None] >> np.arange(3) & 1
        equations = 3 * (records["Node"].astype(np.int64)[:, None] - 1) + np.arange(3)
        found.append(np.unique(equations[bits == 1]))
    if any(not np.array_equal(found[0], other) for other in found[1:]):
        raise ValueError("load cases have supports of their own")
    return found[0]


def optimised(
    model: Model, volume: float, radius: float, weights: Array, kept: Array, steps: int
) -> tuple[Array, float]:
    """Densities of the elements, and their grey compliance.

    `kept` are numbers of nodes: elements that have no others stay full, and where there are none
    those with a whole face of them.
    """
    volumes = element_volumes(model.nodes, model.elements)
    means = density_method.linear_filter(element_centroids(model.nodes, model.elements), radius)
    begin = np.full(len(volumes), volume)
    shares = volumes / volumes.mean()
    return density_method.densities(
        Energies(model, weights), means, begin, steps, 0.01, shares, _full(model, kept)
    )


def _full(model: Model, kept: Array) -> Array:
    """Mask of the elements that stay full, of the numbers of nodes to keep."""
    _, table = one_type(model)
    held = np.isin(table + 1, kept).sum(axis=1)
    full: Array = held == table.shape[1]
    if not full.any():
        full = held >= (4 if table.shape[1] == 8 else 3)
    return full


def printed(
    model: Model, volume: float, radius: float, weights: Array, kept: Array, build: Array
) -> tuple[Array, list[tuple[float, float]]]:
    """Densities of a grid that can be printed, of the stiffest part from any of three starts.

    With them each start's density, and the compliance that it ended at.
    """
    middles = element_centroids(model.nodes, model.elements)
    means = density_method.linear_filter(middles, radius)
    printing = printer(middles, build, _full(model, kept))
    local = Energies(model, weights)
    begins = (1.0, *_BEGINS, volume)
    less = _STEPPED * volume
    found = [printed_densities(local, means, printing, begin, less) for begin in begins]
    ends = [told[-1] for _, told in found]
    return found[int(np.argmin(ends))][0], list(zip(begins, ends, strict=True))


def at_nodes(model: Model, densities: Array) -> Array:
    """Mean density around each node, by the elements' volumes."""
    _, table = one_type(model)
    volumes = element_volumes(model.nodes, model.elements)
    total, whole = np.zeros((2, len(model.nodes)))
    for column in table.T:
        total += np.bincount(column, volumes * densities, len(total))
        whole += np.bincount(column, volumes, len(total))
    found: Array = total / whole
    return found


def densest_at_nodes(model: Model, densities: Array) -> Array:
    """Density of the densest element around each node.

    Of parts that are black and white: a mean loses members that are one element thick.
    """
    _, table = one_type(model)
    found = np.zeros(len(model.nodes))
    np.maximum.at(found, table, densities[:, None])
    return found


def as_levels(model: Model, nodal: Array, volume: float) -> Array:
    """Levels of the design points whose surface, where densities have one value, holds a volume.

    `model` has a design point for each node.
    """
    assert model.node_tp_index is not None
    listed = np.zeros(len(model.tp))
    listed[model.node_tp_index - 1] = nodal
    low, high = float(nodal.min()), float(nodal.max())
    for _ in range(_TRIALS):
        middle = 0.5 * (low + high)
        model.tp = (listed - middle).astype(np.float32)
        low, high = (middle, high) if enclosed(model) > volume else (low, middle)
    found: Array = listed - 0.5 * (low + high)
    return found


def enclosed(model: Model) -> float:
    """Volume inside of the surface that is cut out of the mesh."""
    surface = cut_part(mesh_body(model), model)
    return float(shells.enclosed(surface.points, surface.triangles))
