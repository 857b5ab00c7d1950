"""A plain density method in two and three dimensions, to compare optimised parts with.

Linear square elements in plane stress, or cubes, of size 1, modulus 1, Poisson's ratio 0.3;
modified SIMP with the power 3, sensitivity filter, optimality criteria: E. Andreassen, A.
Clausen, M. Schevenels, B. S. Lazarov, O. Sigmund, Struct. Multidisc. Optim. 43 (2011) 1-16; O.
Sigmund, Struct. Multidisc. Optim. 21 (2001) 120-127.

Elements stand in arrays (along x, along y, ...), nodes in the same order in arrays that are longer
by one along each axis; the equations of node n are dimension * n and following.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from functools import partial
from itertools import product

import numpy as np
from scipy import sparse
from scipy.sparse.linalg import splu
from scipy.spatial import cKDTree

NU = 0.3
EMPTY = 1e-9  # modulus of empty elements


@dataclass
class Frame:
    """A box of unit squares or cubes, its supports and its load."""

    counts: tuple[int, ...]  # elements along each axis
    fixed: np.ndarray  # equations
    load: np.ndarray  # by equation

    @property
    def dimension(self) -> int:
        return len(self.counts)


def node(counts: tuple[int, ...], *place: int) -> int:
    return int(np.ravel_multi_index(place, [count + 1 for count in counts]))


def mbb_beam(columns: int = 60, rows: int = 20) -> Frame:
    """Half of the beam: symmetry at x = 0, a unit force down at its top, a roller at the end."""
    counts = (columns, rows)
    fixed = [2 * node(counts, 0, j) for j in range(rows + 1)]
    fixed.append(2 * node(counts, columns, 0) + 1)
    load = np.zeros(2 * (columns + 1) * (rows + 1))
    load[2 * node(counts, 0, rows) + 1] = -1.0
    return Frame(counts, np.array(fixed), load)


def cantilever(columns: int = 32, rows: int = 20) -> Frame:
    """Clamped at x = 0, a unit force down at the lower corner of the free end."""
    counts = (columns, rows)
    fixed = np.arange(2 * (rows + 1))
    load = np.zeros(2 * (columns + 1) * (rows + 1))
    load[2 * node(counts, columns, 0) + 1] = -1.0
    return Frame(counts, fixed, load)


def _law(dimension: int) -> np.ndarray:
    """Plane stress, or Hooke's law; shear strains after the normal ones, xy, xz, yz."""
    if dimension == 2:
        return np.array([[1, NU, 0], [NU, 1, 0], [0, 0, (1 - NU) / 2]]) / (1 - NU**2)
    law = np.diag([1 - 2 * NU] * 3 + [(1 - 2 * NU) / 2] * 3)
    law[:3, :3] += NU
    return law / ((1 + NU) * (1 - 2 * NU))


def element_stiffness(dimension: int) -> np.ndarray:
    """Of a unit square or cube, nodes in the order of arrays."""
    d = _law(dimension)
    pairs = [(a, b) for a in range(dimension) for b in range(a + 1, dimension)]
    corners = np.array(list(product((-1, 1), repeat=dimension)))
    total = np.zeros((dimension * len(corners),) * 2)
    for point in product((-1 / np.sqrt(3), 1 / np.sqrt(3)), repeat=dimension):
        factors = (1 + corners * point) / 2
        b = np.zeros((len(d), dimension * len(corners)))
        slopes = [corners[:, k] * np.delete(factors, k, 1).prod(1) for k in range(dimension)]
        for k in range(dimension):
            b[k, k::dimension] = slopes[k]
        for row, (i, j) in enumerate(pairs, dimension):
            b[row, i::dimension], b[row, j::dimension] = slopes[j], slopes[i]
        total += b.T @ d @ b / 2**dimension
    return total


def _equations(frame: Frame) -> np.ndarray:
    """Equations (elements, dimension times corners)."""
    numbers = np.arange(np.prod([count + 1 for count in frame.counts]))
    numbers = numbers.reshape([count + 1 for count in frame.counts])
    corners = product((slice(-1), slice(1, None)), repeat=frame.dimension)
    nodes = np.column_stack([numbers[corner].ravel() for corner in corners])
    each = frame.dimension * nodes[:, :, None] + np.arange(frame.dimension)
    return np.asarray(each.reshape(len(nodes), -1))


def energies(frame: Frame, moduli: np.ndarray) -> np.ndarray:
    """u K u of each element at modulus 1, in the solution for these moduli."""
    equations, stiffness = _equations(frame), element_stiffness(frame.dimension)
    values = moduli.reshape(-1, 1, 1) * stiffness
    rows = np.repeat(equations, len(stiffness), axis=1).ravel()
    columns = np.tile(equations, (1, len(stiffness))).ravel()
    count = len(frame.load)
    matrix = sparse.csc_matrix((values.ravel(), (rows, columns)), shape=(count, count))
    free = np.setdiff1d(np.arange(count), frame.fixed)
    inner = matrix[free][:, free]
    u = np.zeros(count)
    u[free] = splu(inner, "MMD_AT_PLUS_A", options={"SymmetricMode": True}).solve(frame.load[free])
    local = u[equations]
    energies: np.ndarray = np.einsum("ei,ij,ej->e", local, stiffness, local, optimize=True)
    return energies.reshape(moduli.shape)


def compliance(frame: Frame, moduli: np.ndarray) -> float:
    """Work of the load: twice the strain energy."""
    return float((moduli * energies(frame, moduli)).sum())


def densest(values: np.ndarray, volume: float) -> np.ndarray:
    """Mask of the elements of largest value, as many as the volume allows."""
    kept = np.argsort(values.ravel(), kind="stable")[::-1][: round(volume * values.size)]
    mask = np.zeros(values.size, bool)
    mask[kept] = True
    return mask.reshape(values.shape)


def black_and_white(density: np.ndarray, volume: float) -> np.ndarray:
    """Moduli of the design that keeps the densest elements, as many as the volume allows."""
    return np.where(densest(density, volume), 1.0, EMPTY)


def linear_filter(points: np.ndarray, radius: float) -> sparse.csr_matrix:
    """Means over the points around each, with weights that fall linearly to 0 at the radius."""
    tree = cKDTree(points)
    near = tree.sparse_distance_matrix(tree, radius, output_type="coo_matrix")
    weights = sparse.csr_matrix((radius - near.data, (near.row, near.col)), shape=near.shape)
    return sparse.diags(1.0 / np.asarray(weights.sum(axis=1)).ravel()) @ weights


def optimise(
    frame: Frame, volume: float, radius: float, steps: int = 400, change: float = 0.01
) -> tuple[np.ndarray, float]:
    """Densities and their compliance, ended by the largest change of a step."""
    points = np.indices(frame.counts).reshape(frame.dimension, -1).T.astype(float)
    weights = linear_filter(points, radius)
    return densities(
        partial(energies, frame), weights, np.full(frame.counts, volume), steps, change
    )


def densities(
    local: Callable[[np.ndarray], np.ndarray],
    weights: sparse.csr_matrix,
    begin: np.ndarray,
    steps: int,
    change: float,
    shares: np.ndarray | float = 1.0,
    full: np.ndarray | bool = False,
) -> tuple[np.ndarray, float]:
    """The same of any elements, from densities whose mean is the volume.

    `local` gives u K u of each element at modulus 1 from their moduli, `shares` are the elements'
    volumes, 1 on average, and those of `full` stay full.
    """
    x, volume = begin, float((begin * shares).mean())
    for _ in range(steps):
        moduli = EMPTY + x**3 * (1 - EMPTY)
        found = local(moduli)
        objective = float((moduli * found).sum())
        slope = 3 * (1 - EMPTY) * x**2 * found / shares
        slope = (weights @ (x * slope).ravel()).reshape(x.shape) / np.maximum(x, 1e-3)
        new = _updated(x, slope, volume, shares, full)
        largest, x = np.abs(new - x).max(), new
        if largest < change:
            break
    return x, objective


def _updated(
    x: np.ndarray,
    slope: np.ndarray,
    volume: float,
    shares: np.ndarray | float,
    full: np.ndarray | bool,
) -> np.ndarray:
    low, high = 0.0, 1e9
    while (high - low) / (high + low) > 1e-6:
        middle = 0.5 * (low + high)
        moved = x * np.sqrt(slope / middle)
        new = np.clip(moved, np.maximum(0, x - 0.2), np.minimum(1, x + 0.2))
        new = np.where(full, 1.0, new)
        low, high = (middle, high) if (new * shares).mean() > volume else (low, middle)
    return np.asarray(new)
