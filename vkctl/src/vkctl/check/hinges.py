"""Pieces of a mesh that hang together at single nodes or edges, and so can still move.

Elements that share a face move as one. A part may fall into several such pieces which have only
nodes in common; each piece is then a rigid body of its own, tied to the others at those nodes.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import counted
from vkctl.shapes.groups import distinct, groups_of_links
from vkctl.shapes.topology import HEX8, HEX8_FACES, TET4_FACES

from .findings import Finding, error, warning
from .inputs import ActiveMesh, fingerprints, nodes_listed
from .motions import FREE, describe_motions, displacement_rows

_MOST_PIECES = 200  # beyond which the motions aren't worked out
_SHOWN = 3


@dataclass
class Pieces:
    """Face-connected pieces of a mesh, and their nodes."""

    count: int
    nodes: Array  # distinct pairs of a piece and a node that it uses: the nodes, 0-based
    owners: Array  # and the pieces, ascending
    centres: Array  # (count, 3)
    radii: Array  # root mean square distance of the nodes from the centre


def find_pieces(mesh: ActiveMesh) -> Pieces:
    """Pieces of the active elements."""
    keys, elements, first = [], [], 0
    for code, (_, rows) in mesh.blocks.items():
        corners = HEX8_FACES if code == HEX8 else TET4_FACES
        keys.append(fingerprints(rows[:, corners].reshape(-1, corners.shape[1])))
        elements.append(np.repeat(np.arange(first, first + len(rows)), len(corners)))
        first += len(rows)
    key, element = np.concatenate(keys), np.concatenate(elements)
    order = np.argsort(key)
    same = key[order][1:] == key[order][:-1]
    a, b = element[order][1:][same], element[order][:-1][same]
    label = groups_of_links(first, a, b)
    return _with_nodes(mesh, int(label.max(initial=-1)) + 1, label)


def _with_nodes(mesh: ActiveMesh, count: int, label: Array) -> Pieces:
    total = len(mesh.nodes)
    pairs, first = [], 0
    for _, rows in mesh.blocks.values():
        owner = label[first : first + len(rows)]
        pairs.append((owner[:, None] * total + rows - 1).ravel())
        first += len(rows)
    owners, nodes = np.divmod(distinct(np.concatenate(pairs)), total)
    sizes = np.bincount(owners, minlength=count)
    points = mesh.nodes[nodes]
    sums = np.column_stack([np.bincount(owners, points[:, k]) for k in range(3)])
    centres = sums / sizes[:, None]
    squares = np.bincount(owners, ((points - centres[owners]) ** 2).sum(axis=1))
    return Pieces(count, nodes, owners, centres, np.sqrt(squares / sizes))


def hinge_findings(
    mesh: ActiveMesh, pieces: Pieces, nodes: Array, directions: Array, where: str
) -> Iterator[Finding]:
    """Motions of the pieces that neither supports nor common nodes prevent.

    Used `nodes` (0-based) are held in `directions` (k, 3); every part as a whole is held.
    """
    if pieces.count > _MOST_PIECES:
        text = f"The mesh falls into {pieces.count} pieces that have no faces in common."
        hint = "They hang together at nodes and edges. Merge the nodes of touching faces."
        yield warning("hinge-many", text, where, hint)
        return
    free = _free_motions(_constraint_matrix(mesh, pieces, nodes, directions))
    strength = np.linalg.norm(free, axis=(1, 2))
    moving = [p for p in np.argsort(-strength, kind="stable").tolist() if strength[p] > 1e-3]
    for piece in moving[:_SHOWN]:
        yield _finding(mesh, pieces, piece, free[piece], where)
    if len(moving) > _SHOWN:
        text = f"{counted(len(moving) - _SHOWN, 'more piece')} can move too."
        yield error("hinge-more", text, where)


def _constraint_matrix(mesh: ActiveMesh, pieces: Pieces, nodes: Array, directions: Array) -> Array:
    """Sum of f^T f over supports and ties, (6 pieces, 6 pieces); each f forbids a displacement.

    The six motions of a piece are those about its centre in units of its radius.
    """
    blocks = np.zeros((pieces.count, pieces.count, 6, 6))
    order = np.argsort(pieces.nodes, kind="stable")
    used, owner = pieces.nodes[order], pieces.owners[order]

    # One piece of a supported node is enough: ties carry the support to the others.
    place = np.searchsorted(used, nodes)
    f = np.einsum("kd,kdm->km", directions, _rows(mesh, pieces, owner[place], nodes))
    np.add.at(blocks, (owner[place], owner[place]), f[:, :, None] * f[:, None, :])

    tied = np.flatnonzero(used[1:] == used[:-1])
    p, q = owner[tied], owner[tied + 1]
    a, b = _rows(mesh, pieces, p, used[tied]), _rows(mesh, pieces, q, used[tied])
    for i, left in ((p, a), (q, -b)):
        for j, right in ((p, a), (q, -b)):
            np.add.at(blocks, (i, j), np.einsum("kdm,kdn->kmn", left, right))
    matrix: Array = blocks.transpose(0, 2, 1, 3).reshape(6 * pieces.count, 6 * pieces.count)
    return matrix


def _rows(mesh: ActiveMesh, pieces: Pieces, owner: Array, nodes: Array) -> Array:
    radius = np.maximum(pieces.radii[owner], 1e-300)[:, None]
    return displacement_rows((mesh.nodes[nodes] - pieces.centres[owner]) / radius)


def _free_motions(matrix: Array) -> Array:
    """Basis of the null space, (pieces, 6, dimension)."""
    scale = np.sqrt(np.maximum(matrix.diagonal(), 1e-300))
    values, vectors = np.linalg.eigh(matrix / np.outer(scale, scale))
    free = vectors[:, values <= FREE * values[-1]] / scale[:, None]
    free, _ = np.linalg.qr(free)
    return free.reshape(len(matrix) // 6, 6, free.shape[1])


def _finding(mesh: ActiveMesh, pieces: Pieces, piece: int, motions: Array, where: str) -> Finding:
    own = pieces.nodes[pieces.owners == piece]
    others = pieces.nodes[pieces.owners != piece]
    joints = own[np.isin(own, others)] + 1
    basis, strengths, _ = np.linalg.svd(motions, full_matrices=False)
    size = counted(len(own), "node")
    text = (
        f"A piece of {size} hangs on the rest at {nodes_listed(mesh, joints)} "
        f"only: {describe_motions(basis[:, strengths > 1e-3])}."
    )
    hint = "Join the pieces by faces, remove the piece, or support it."
    return error("hinge", text, where, hint)
