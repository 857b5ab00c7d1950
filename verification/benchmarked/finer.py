"""A part's mesh with its elements cut in smaller ones, and designs on it in black and white."""

from __future__ import annotations

import tempfile
from dataclasses import dataclass, replace
from itertools import product
from pathlib import Path

import numpy as np
from program_under_test import program
from support.mesh import CUBE

from vkctl.basics.types import Array
from vkctl.directory.model import Model, write
from vkctl.directory.results import read_results
from vkctl.optimise.limits.aggregates import nodal_forces
from vkctl.prepare.build import build_model
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.mesh import make_mesh
from vkctl.prepare.part import Part
from vkctl.running.run import run
from vkctl.shapes.functions import shape_values
from vkctl.shapes.measures import element_volumes
from vkctl.shapes.topology import HEX8, TET4

SOFT = 1e-4  # modulus of empty elements, as a part of that of full ones
_SAME = 1e-4  # of an edge: nodes closer than that are one
_OFF = (0.237, 0.419, 0.353)  # of that, so that no node lies where rounding would decide

# Corners (A, B, C, D and the middles AB, BC, AC, AD, BD, CD) of the tetrahedra that one is cut in.
_EIGHTHS = np.array(
    [
        *((0, 4, 6, 7), (4, 1, 5, 8), (6, 5, 2, 9), (7, 8, 9, 3)),
        *((4, 5, 6, 7), (4, 8, 5, 7), (5, 8, 9, 7), (6, 5, 9, 7)),
    ]
)


@dataclass
class Finer:
    """A model on the finer mesh, all full, and which element of the loop's each element is in."""

    model: Model
    parents: Array  # (m,), positions of elements
    shapes: Array  # (m, c): functions of the parent's corners in the middle of each element
    volumes: Array  # (m,)


def one_type(model: Model) -> tuple[int, Array]:
    """Code and table (m, c), 0-based and in the elements' order, of a mesh of one type."""
    (code,) = np.unique(model.elements.type_codes)
    numbers, rows = model.elements.of_type(int(code))
    table = np.empty_like(rows)
    table[numbers - 1] = rows - 1
    return int(code), table


def finer(model: Model, cases: Path, counts: tuple[int, int, int]) -> Finer:
    """The loop's mesh, edges along x, y, z cut in `counts`, loaded and held by its case file."""
    code, table = one_type(model)
    if code == HEX8:
        counts = _along_parameters(model.nodes[table], counts)
    parameters = _children(code, counts)  # (k, c, 3)
    shapes = shape_values(code, parameters)
    points = np.einsum("kcn,enx->ekcx", shapes, model.nodes[table]).reshape(-1, 3)
    edge = np.linalg.norm(points[1] - points[0])
    keys = np.round(points / (_SAME * edge) + _OFF).astype(np.int64)
    _, first, number = np.unique(keys, axis=0, return_index=True, return_inverse=True)
    rows = number.reshape(-1, table.shape[1]) + 1
    labels = np.arange(1, len(rows) + 1)
    mesh = make_mesh(Part(np.arange(1, len(first) + 1), points[first], [(code, labels, rows)]))
    known = read_cases(cases)
    known.level = None
    made = build_model(mesh, known).model
    place = mesh.element_labels - 1
    parents, child = np.divmod(place, len(parameters))
    middles = shape_values(code, parameters.mean(axis=1))
    return Finer(made, parents, middles[child], element_volumes(made.nodes, made.elements))


def _along_parameters(corners: Array, counts: tuple[int, int, int]) -> tuple[int, int, int]:
    """Counts along the parameters of hexahedra whose edges lie along x, y and z alike."""
    ways = np.abs(corners[:, [1, 3, 4]] - corners[:, :1]).argmax(axis=2)
    if len(set(counts)) > 1 and (ways != ways[0]).any():
        raise ValueError("hexahedra that are turned otherwise than others are cut evenly alone")
    one, two, three = (counts[k] for k in ways[0])
    return one, two, three


def _children(code: int, counts: tuple[int, int, int]) -> Array:
    """Parameters (k, c, 3) of the corners of the elements that one is cut in."""
    if code == HEX8:
        places = np.array(list(product(*map(range, counts))))
        hexahedra: Array = 2.0 * (places[:, None, :] + CUBE) / counts - 1.0
        return hexahedra
    if code != TET4 or counts not in ((1, 1, 1), (2, 2, 2)):
        raise ValueError("hexahedra, or 4-node tetrahedra and halves of their edges, can be cut")
    corners = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], float)
    if counts == (1, 1, 1):
        return corners.reshape(1, 4, 3)
    a, b, c, d = corners
    middles = [(a + b) / 2, (b + c) / 2, (a + c) / 2, (a + d) / 2, (b + d) / 2, (c + d) / 2]
    eight: Array = np.array([a, b, c, d, *middles])[_EIGHTHS]
    return eight


def at_middles(of: Finer, nodal: Array, table: Array) -> Array:
    """Values in the elements' middles, from those at the nodes of the loop's mesh."""
    found: Array = (nodal[table[of.parents]] * of.shapes).sum(axis=1)
    return found


def fullest(of: Finer, values: Array, volume: float) -> Array:
    """The elements of the largest values, of a part of the volume."""
    order = np.argsort(values, kind="stable")[::-1]
    filled = np.cumsum(of.volumes[order])
    kept = np.zeros(len(values), np.bool_)
    kept[order[: int(np.searchsorted(filled, volume * filled[-1]))]] = True
    return kept


def compliances(of: Finer, kept: Array) -> list[float]:
    """Work of the loads of each load case with the other elements next to nothing."""
    (material,) = of.model.materials
    elements = replace(of.model.elements, materials=np.where(kept, 1, 2).astype(np.int16))
    soft = replace(material, e=SOFT * material.e)
    made = replace(of.model, elements=elements, materials=[material, soft])
    with tempfile.TemporaryDirectory(prefix="vk-bench-") as name:
        write(made, Path(name))
        done = run(name, mode="direct", vk_rund=program())
        if not done.ok:
            raise RuntimeError(done.advice.sentence)
        return works(made, Path(name))


def works(model: Model, directory: Path) -> list[float]:
    """Work of the nodal forces of each load case."""
    found = []
    for number in range(1, len(model.load_cases) + 1):
        moved = read_results(directory, number).displacements
        if moved is None:
            raise RuntimeError(f"load case {number} was solved too poorly")
        found.append(float((nodal_forces(model, number) * moved).sum()))
    return found
