"""Parts of single elements, written in the formats that are read."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pyvista

from vkctl.shapes.topology import TET10_EDGES

# One tetrahedron of 10 nodes, all edges bent differently, in the solver's order.
CORNERS = np.array(((0.0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)))
MIDDLES = CORNERS[TET10_EDGES].mean(axis=1) + 0.01 * np.arange(1, 19).reshape(6, 3)
TETRAHEDRON = np.concatenate((CORNERS, MIDDLES))

# One hexahedron without any symmetry.
HEXAHEDRON = np.array(
    (
        (0, 0, 0),
        (1, 0.1, 0),
        (1.2, 1, 0.1),
        (0, 1.1, 0.2),
        (0.1, 0, 1),
        (1, 0.2, 1.3),
        (1.1, 1.2, 1),
        (0, 0.9, 1.1),
    )
)


def inp_text(points: np.ndarray, kind: str, nodes: list[int]) -> str:
    lines = ["*NODE"]
    lines += [f"{i}, {x!r}, {y!r}, {z!r}" for i, (x, y, z) in enumerate(points.tolist(), 1)]
    head, tail = ", ".join(map(str, nodes[:6])), ", ".join(map(str, nodes[6:]))
    lines += [f"*ELEMENT, TYPE={kind}, ELSET=ALL", f"7, {head}" + (f",\n{tail}" if tail else "")]
    return "\n".join(lines) + "\n"


def vtu_file(path: Path, points: np.ndarray, kind: int, nodes: list[int]) -> None:
    cells = np.array([len(nodes), *[n - 1 for n in nodes]])
    pyvista.UnstructuredGrid(cells, np.array([kind]), points).save(path)
