"""Supports that hold faces along their normals and let them slide: symmetry and frictionless.

The solver fixes the directions x, y and z exactly. Along any other normal n a node is held by a
spring, as stiff per area as a thin layer of the part's own material would be.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats, model
from vkctl.shapes.forces import lumped_areas
from vkctl.shapes.normals import normals_at_nodes, smooth_patches
from vkctl.shapes.topology import TYPES

from .case_file.entries import Cases, Support
from .regions import TOLERANCE
from .sets import Sets
from .targets import faces_of

# Thickness of the layer over the diagonal of the part: pressed by p, it gives way by p times its
# thickness over E. Much thinner ones leave the solver's single-precision factor too few digits.
LAYER = 1e-5
_ALONG_AN_AXIS = 1e-5  # angle in radians up to which a normal counts as x, y or z
_SMOOTH = 30.0  # degrees between neighbouring faces of one patch


def held_normals(cases: Cases, sets: Sets, support: Support) -> Array:
    """CONSTRAINT records that hold the nodes of faces along the normals, and nothing else."""
    faces = faces_of(cases, sets, support.sets, support.where)
    records = [np.empty(0, formats.CONSTRAINT)]
    if not len(faces):
        return records[0]
    nodes = sets.mesh.nodes
    held: list[tuple[Array, Array, Array]] = []  # of each patch: numbers, normals, areas
    for tables in smooth_patches(nodes, faces.tables, _SMOOTH):
        numbers, normals = _unit_normals(nodes, tables)
        off = _off_plane(nodes[numbers - 1], normals)
        if off <= TOLERANCE * sets.mesh.diagonal:
            mean = normals.mean(axis=0)
            normals = np.tile(mean / np.linalg.norm(mean), (len(numbers), 1))
        elif support.kind == "symmetry":
            _refuse_curved(cases, support, off)
            return records[0]
        areas = np.zeros(len(nodes))
        touched, shares = lumped_areas(nodes, tables)
        areas[touched - 1] = shares
        held.append((numbers, normals, areas[numbers - 1]))
    moduli = _moduli(cases, sets)
    soft = 0
    for numbers, normals, areas in held:
        exact, axis = _along_axes(normals)
        for k, letter in enumerate("xyz"):
            records.append(model.prescribed(numbers[exact & (axis == k)], letter))
        numbers, normals, areas = numbers[~exact], normals[~exact], areas[~exact]
        stiffness = moduli[numbers - 1] * areas / (LAYER * sets.mesh.diagonal)
        records.append(_springs(cases, support, numbers, normals, stiffness))
        soft += len(numbers)
    if soft:
        _tell_softness(sets, support, moduli, soft)
    return np.concatenate(records)


def _unit_normals(nodes: Array, tables: list[Array]) -> tuple[Array, Array]:
    """Numbers of a patch's nodes and their unit normals, weighted by area."""
    total = np.zeros((len(nodes), 3))
    for table in tables:
        found = normals_at_nodes(nodes, table).reshape(-1, 3)
        np.add.at(total, table.ravel() - 1, found)
    numbers = np.unique(np.concatenate([t.ravel() for t in tables])).astype(np.int64)
    normals = total[numbers - 1]
    return numbers, normals / np.linalg.norm(normals, axis=1, keepdims=True)


def _off_plane(points: Array, normals: Array) -> float:
    """Largest distance of the points from the plane through them along their mean normal."""
    mean = normals.mean(axis=0)
    length = np.linalg.norm(mean)
    if length < 0.5:  # goes round a hole
        return float(np.abs(points - points.mean(axis=0)).max())
    heights = (points - points.mean(axis=0)) @ (mean / length)
    return float(np.abs(heights).max())


def _refuse_curved(cases: Cases, support: Support, off: float) -> None:
    name = ".".join(map(str, support.where))
    text = f"the set of [{name}] isn't plane: it lies up to {off:.3g} off one"
    hint = "symmetry is for planes; type = 'frictionless' holds any faces along their normals"
    cases.report.add((*support.where, "set"), text, hint)


def _along_axes(normals: Array) -> tuple[Array, Array]:
    """Which normals count as x, y or z, and which of them each is nearest to."""
    axis = np.argmax(np.abs(normals), axis=1)
    rest = normals.copy()
    rest[np.arange(len(rest)), axis] = 0.0
    return np.linalg.norm(rest, axis=1) <= _ALONG_AN_AXIS, axis


def _moduli(cases: Cases, sets: Sets) -> Array:
    """Largest Young's modulus of the elements at each node."""
    stiffest = np.array([max(e.material.e, *e.material.moduli) for e in cases.materials.values()])
    found = np.zeros(len(sets.mesh.nodes))
    every = sets.active_elements
    for code in TYPES:
        numbers, table = every.of_type(code)
        per_element = stiffest[every.materials[numbers - 1] - 1]
        np.maximum.at(found, table - 1, per_element[:, None])
    return found


def _springs(
    cases: Cases, support: Support, numbers: Array, normals: Array, stiffness: Array
) -> Array:
    """CONSTRAINT records of springs along one direction of each node."""
    unit = cases.options.get("Sta.SupportStiffness", 1.0)
    if unit <= 0 and len(numbers):
        text = "is held by springs off the axes, which have no effect with Sta.SupportStiffness 0"
        name = ".".join(map(str, support.where))
        cases.report.add(support.where, f"[{name}] {text}", "leave the option out")
        return np.empty(0, formats.CONSTRAINT)
    axes = np.tile(np.eye(3), (len(numbers), 1, 1))
    axes[:, 0] = np.sqrt(stiffness / unit)[:, None] * normals
    return model.elastic(numbers, axes, directions="x")


def _tell_softness(sets: Sets, support: Support, moduli: Array, count: int) -> None:
    name = ".".join(map(str, support.where))
    least = float(moduli[moduli > 0].min())
    gives = LAYER * sets.mesh.diagonal / least
    sets.mesh.notes.append(
        f"[{name}]: {count} nodes are held along normals off the axes, by springs that give way by "
        f"{gives:.2g} at most for each unit of pressure"
    )
