"""Rigid-body motions that the supports leave, per connected part and constraint pattern."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import called, counted
from vkctl.directory import formats
from vkctl.directory.numbering import prescribed_rows
from vkctl.shapes.groups import groups_of_links

from .findings import Finding, error
from .hinges import Pieces, find_pieces, hinge_findings
from .inputs import ActiveMesh, Inputs
from .motions import FREE, describe_motions, displacement_rows

_PARTS_SHOWN = 3


@dataclass
class Parts:
    """Connected parts of a mesh: nodes that active elements link."""

    count: int
    of_node: Array  # part of each node, -1 for unused ones
    sizes: Array  # nodes of each part
    centres: Array  # (count, 3)
    radii: Array  # root mean square distance of the nodes from the centre


def find_parts(mesh: ActiveMesh) -> Parts:
    """Connected parts of the active elements, the largest first."""
    count = len(mesh.nodes)
    pairs = [
        (np.repeat(rows[:, 0] - 1, rows.shape[1] - 1), rows[:, 1:].ravel() - 1)
        for _, rows in mesh.blocks.values()
    ]
    a, b = (np.concatenate(side) for side in zip(*pairs, strict=True))
    label = groups_of_links(count, a, b)
    numbers, inverse, sizes = np.unique(label[mesh.used], return_inverse=True, return_counts=True)
    order = np.argsort(-sizes, kind="stable")
    rank = np.empty(len(numbers), np.int64)
    rank[order] = np.arange(len(numbers))
    of_node = np.full(count, -1)
    of_node[mesh.used] = rank[inverse]
    points, part = mesh.nodes[mesh.used], of_node[mesh.used]
    sizes = sizes[order]
    centres = np.column_stack([np.bincount(part, points[:, k]) for k in range(3)]) / sizes[:, None]
    squares = np.bincount(part, ((points - centres[part]) ** 2).sum(axis=1)) / sizes
    return Parts(len(numbers), of_node, sizes, centres, np.sqrt(squares))


def check_supports(inputs: Inputs) -> Iterator[Finding]:
    """Parts that could move as rigid bodies, for the first load case of each pattern."""
    mesh = inputs.mesh
    if mesh is None or not mesh.used.any() or not np.isfinite(mesh.nodes[mesh.used]).all():
        return
    parts, pieces = find_parts(mesh), find_pieces(mesh)
    checked: set[int] = set()
    for number in inputs.sound_maps:
        pattern = inputs.pattern(number)
        if pattern in checked:
            continue
        checked.add(pattern)
        yield from _pattern(inputs, mesh, parts, pieces, number)


def _pattern(
    inputs: Inputs, mesh: ActiveMesh, parts: Parts, pieces: Pieces, number: int
) -> Iterator[Finding]:
    constraints = inputs.maps[number].constraints
    nodes, directions = _functionals(inputs, constraints)
    held = parts.of_node[nodes] >= 0
    nodes, directions = nodes[held], directions[held]
    gram = _support_matrices(mesh, parts, nodes, directions)
    values, vectors = np.linalg.eigh(gram)
    free = values <= FREE * np.maximum(values[:, -1:], 1e-300)
    loose = np.flatnonzero(free.any(axis=1))
    for part in loose[:_PARTS_SHOWN]:
        yield _finding(inputs, mesh, parts, number, int(part), vectors[part][:, free[part]])
    if len(loose) > _PARTS_SHOWN:
        text = f"{counted(len(loose) - _PARTS_SHOWN, 'more part')} can move freely too."
        yield error("rigid-body-more", text, f"load case {number}")
    if not len(loose) and pieces.count > parts.count:
        where = f"load case {number}, pattern {inputs.pattern(number)}"
        yield from hinge_findings(mesh, pieces, nodes, directions, where)


def _functionals(inputs: Inputs, constraints: Array) -> tuple[Array, Array]:
    """Everything that holds: 0-based nodes and the directions (k, 3) in which they are held."""
    _, nodes, direction = prescribed_rows(constraints)
    springs = constraints[constraints["Kind"] & formats.CONSTRAINT_PENALTY != 0]
    if inputs.option_values["Sta.SupportStiffness"] <= 0:
        springs = springs[:0]
    row, axis = np.nonzero(springs["DofMask"][:, None] >> np.arange(3) & 1)
    axes = springs["Axis"][row, axis].astype(np.float64)
    lengths = np.linalg.norm(axes, axis=1, keepdims=True)
    acts = (np.isfinite(lengths) & (lengths > 0))[:, 0]
    all_nodes = np.concatenate((nodes, springs["Node"][row[acts]].astype(np.int64) - 1))
    return all_nodes, np.concatenate((np.eye(3)[direction], axes[acts] / lengths[acts]))


def _support_matrices(mesh: ActiveMesh, parts: Parts, nodes: Array, directions: Array) -> Array:
    """Sum over the supports of f f^T for each part, (parts, 6, 6).

    f maps a rigid motion (translation t, rotation r about the part's centre, in units of its
    radius) to the displacement n . (t + r x x) that the support forbids. A motion is free when it
    lies in the null space.
    """
    part = parts.of_node[nodes]
    radius = np.maximum(parts.radii[part], 1e-300)[:, None]
    arms = (mesh.nodes[nodes] - parts.centres[part]) / radius
    f = np.einsum("kd,kdm->km", directions, displacement_rows(arms))
    gram = np.empty((parts.count, 6, 6))
    for i in range(6):
        for j in range(i, 6):
            gram[:, i, j] = gram[:, j, i] = np.bincount(part, f[:, i] * f[:, j], parts.count)
    return gram


def _finding(
    inputs: Inputs, mesh: ActiveMesh, parts: Parts, number: int, part: int, motions: Array
) -> Finding:
    where = f"load case {number}, pattern {inputs.pattern(number)}"
    if parts.count == 1:
        what = "The part"
    else:
        first = int(np.flatnonzero(parts.of_node == part)[0]) + 1
        size = counted(int(parts.sizes[part]), "node")
        name = called(first, mesh.labels.nodes)
        what = f"Part {part + 1} of {parts.count} ({size}, node {name} is one of them)"
    text = f"{what} is not held: {describe_motions(motions)}."
    hint = "Prescribe displacements or add elastic supports against it."
    if parts.count > 1 and (twins := _coincident(mesh, parts, part)):
        hint = (
            f"{counted(twins, 'node')} of it coincide with nodes of other parts: merge them? {hint}"
        )
    return error("rigid-body", text, where, hint)


def _coincident(mesh: ActiveMesh, parts: Parts, part: int) -> int:
    """Nodes of a part at the very place of a node of another part."""
    used = np.flatnonzero(mesh.used)
    _, place, counts = np.unique(mesh.nodes[used], axis=0, return_inverse=True, return_counts=True)
    place = place.ravel()
    mine = parts.of_node[used] == part
    own = np.bincount(place[mine], minlength=len(counts))
    return int((own[place[mine]] < counts[place[mine]]).sum())
