"""Strain energy away from where a force or support acts on single nodes.

Such a force indents the material without bound as the mesh gets finer: the energy around it
is a property of the mesh, not of the part. What is further away converges (B. Szabo, I. Babuska,
Finite Element Analysis, 1991, 10.4), so that it can be compared between two meshes.
"""

from __future__ import annotations

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.directory.results import Results
from vkctl.shapes.faces import faces_within
from vkctl.stress.points import integration_points
from vkctl.stress.solution import solution_of


def single_places(model: Model, number: int) -> Array:
    """Places (k, 3) of nodes with a force or support on them and on no face that they are of."""
    case = model.load_cases[number - 1]
    found = [
        _without_face(model, np.unique(nodes))
        for nodes in (case.forces2["Node"], case.constraints["Node"])
    ]
    places: Array = model.nodes[np.unique(np.concatenate(found)) - 1]
    return places


def _without_face(model: Model, nodes: Array) -> Array:
    faces = faces_within(model.elements, nodes)
    covered = np.concatenate([np.empty(0, np.int64), *(table.ravel() for table in faces)])
    single: Array = np.setdiff1d(nodes, covered).astype(np.int64)
    return single


def energy_away(model: Model, results: Results, places: Array, distance: float) -> float:
    """Strain energy of the material further than `distance` from all places."""
    tree, total = scipy.spatial.cKDTree(places), 0.0
    for block in integration_points(solution_of(model, results)):
        near, _ = tree.query(block.at.positions.reshape(-1, 3), distance_upper_bound=distance)
        energies = block.at.energies * block.volumes * block.presences
        total += float(energies.ravel()[np.isinf(near)].sum())
    return total
