"""A plain density method in two dimensions, to compare optimised parts with.

Square bilinear elements in plane stress, modulus 1, Poisson's ratio 0.3; modified SIMP with the
power 3, sensitivity filter, optimality criteria: E. Andreassen, A. Clausen, M. Schevenels,
B. S. Lazarov, O. Sigmund, Struct. Multidisc. Optim. 43 (2011) 1-16; O. Sigmund, Struct.
Multidisc. Optim. 21 (2001) 120-127.

Elements stand in arrays (columns, rows), x along the columns and y upwards along the rows; node
(i, j) has the number i (rows + 1) + j and the equations 2 n and 2 n + 1.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from scipy import sparse
from scipy.sparse.linalg import splu
from scipy.spatial import cKDTree

NU = 0.3
EMPTY = 1e-9  # modulus of empty elements


@dataclass
class Frame:
    """A rectangle of unit squares, its supports and its load."""

    columns: int
    rows: int
    fixed: np.ndarray  # equations
    load: np.ndarray  # by equation


def node(frame_rows: int, i: int, j: int) -> int:
    return i * (frame_rows + 1) + j


def mbb_beam(columns: int = 60, rows: int = 20) -> Frame:
    """Half of the beam: symmetry at x = 0, a unit force down at its top, a roller at the end."""
    fixed = [2 * node(rows, 0, j) for j in range(rows + 1)]
    fixed.append(2 * node(rows, columns, 0) + 1)
    load = np.zeros(2 * (columns + 1) * (rows + 1))
    load[2 * node(rows, 0, rows) + 1] = -1.0
    return Frame(columns, rows, np.array(fixed), load)


def cantilever(columns: int = 32, rows: int = 20) -> Frame:
    """Clamped at x = 0, a unit force down at the lower corner of the free end."""
    fixed = np.arange(2 * (rows + 1))
    load = np.zeros(2 * (columns + 1) * (rows + 1))
    load[2 * node(rows, columns, 0) + 1] = -1.0
    return Frame(columns, rows, fixed, load)


def element_stiffness() -> np.ndarray:
    """(8, 8) of a unit square, nodes counter-clockwise from the lower left."""
    d = np.array([[1, NU, 0], [NU, 1, 0], [0, 0, (1 - NU) / 2]]) / (1 - NU**2)
    total = np.zeros((8, 8))
    for xi in (-1, 1) / np.sqrt(3):
        for eta in (-1, 1) / np.sqrt(3):
            dx = np.array([-(1 - eta), 1 - eta, 1 + eta, -(1 + eta)]) / 2
            dy = np.array([-(1 - xi), -(1 + xi), 1 + xi, 1 - xi]) / 2
            b = np.zeros((3, 8))
            b[0, 0::2], b[1, 1::2] = dx, dy
            b[2, 0::2], b[2, 1::2] = dy, dx
            total += b.T @ d @ b / 4
    return total


def _equations(frame: Frame) -> np.ndarray:
    """Equations (elements, 8)."""
    i, j = np.meshgrid(np.arange(frame.columns), np.arange(frame.rows), indexing="ij")
    first = (i * (frame.rows + 1) + j).ravel()
    nodes = np.column_stack([first, first + frame.rows + 1, first + frame.rows + 2, first + 1])
    return np.stack([2 * nodes, 2 * nodes + 1], axis=2).reshape(-1, 8)


def energies(frame: Frame, moduli: np.ndarray) -> np.ndarray:
    """u K u of each element at modulus 1, in the solution for these moduli (columns, rows)."""
    equations, stiffness = _equations(frame), element_stiffness()
    values = moduli.reshape(-1, 1, 1) * stiffness
    rows = np.repeat(equations, 8, axis=1).ravel()
    columns = np.tile(equations, (1, 8)).ravel()
    count = len(frame.load)
    matrix = sparse.csc_matrix((values.ravel(), (rows, columns)), shape=(count, count))
    free = np.setdiff1d(np.arange(count), frame.fixed)
    u = np.zeros(count)
    u[free] = splu(matrix[free][:, free]).solve(frame.load[free])
    local = u[equations]
    energies: np.ndarray = np.einsum("ei,ij,ej->e", local, stiffness, local)
    return energies.reshape(moduli.shape)


def compliance(frame: Frame, moduli: np.ndarray) -> float:
    """Work of the load: twice the strain energy."""
    return float((moduli * energies(frame, moduli)).sum())


def black_and_white(density: np.ndarray, volume: float) -> np.ndarray:
    """Moduli of the design that keeps the densest elements, as many as the volume allows."""
    kept = np.argsort(density.ravel(), kind="stable")[::-1][: round(volume * density.size)]
    moduli = np.full(density.size, EMPTY)
    moduli[kept] = 1.0
    return moduli.reshape(density.shape)


def _filter(frame: Frame, radius: float) -> sparse.csr_matrix:
    i, j = np.meshgrid(np.arange(frame.columns), np.arange(frame.rows), indexing="ij")
    points = np.column_stack([i.ravel(), j.ravel()]).astype(float)
    near = cKDTree(points).sparse_distance_matrix(cKDTree(points), radius, output_type="coo_matrix")
    weights = sparse.csr_matrix((radius - near.data, (near.row, near.col)), shape=near.shape)
    return sparse.diags(1.0 / np.asarray(weights.sum(axis=1)).ravel()) @ weights


def optimise(
    frame: Frame, volume: float, radius: float, steps: int = 400, change: float = 0.01
) -> tuple[np.ndarray, float]:
    """Densities (columns, rows) and their compliance, ended by the largest change of a step."""
    weights = _filter(frame, radius)
    x = np.full((frame.columns, frame.rows), volume)
    for _ in range(steps):
        local = energies(frame, EMPTY + x**3 * (1 - EMPTY))
        objective = float(((EMPTY + x**3 * (1 - EMPTY)) * local).sum())
        slope = 3 * (1 - EMPTY) * x**2 * local
        slope = (weights @ (x * slope).ravel()).reshape(x.shape) / np.maximum(x, 1e-3)
        new = _updated(x, slope, volume)
        largest, x = np.abs(new - x).max(), new
        if largest < change:
            break
    return x, objective


def _updated(x: np.ndarray, slope: np.ndarray, volume: float) -> np.ndarray:
    low, high = 0.0, 1e9
    while (high - low) / (high + low) > 1e-6:
        middle = 0.5 * (low + high)
        moved = x * np.sqrt(slope / middle)
        new = np.clip(moved, np.maximum(0, x - 0.2), np.minimum(1, x + 0.2))
        low, high = (middle, high) if new.mean() > volume else (low, middle)
    return np.asarray(new)
