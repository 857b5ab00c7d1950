"""Loads and motions given at a point, and bearings: what they do to the nodes of a set."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.shapes import cylinders
from vkctl.shapes.cylinders import Cylinder
from vkctl.shapes.forces import spread_force
from vkctl.shapes.normals import corner_normals
from vkctl.shapes.resultants import (
    bearing_forces,
    carried_by_faces,
    carried_by_nodes,
    with_resultant,
)

from .case_file.entries import Cases, Load, Support
from .face_sets import Faces
from .sets import Sets
from .targets import faces_of, has_faces, united

_UNROUND = 0.01  # of a cylinder's wall, relative to its radius
_AXIAL = 1e-3  # share of a bearing's force along the axis that may be the axis's own error


def moved_rigidly(support: Support, points: Array) -> Array:
    """Displacements of points that follow a body: translation and small rotation about a point."""
    arms = points - np.array(support.point)
    moved: Array = np.array(support.values, np.float64) + np.cross(support.rotation, arms)
    return moved


def spread_moment(cases: Cases, sets: Sets, load: Load) -> tuple[Array, Array] | None:
    """Nodal forces of a moment, or of a force at a point with a moment; None where there are none.

    Face sets take a traction that is linear over them, nodes forces that are linear in their place.
    """
    nodes = sets.mesh.nodes
    if has_faces(sets, load.sets):
        faces = faces_of(cases, sets, load.sets, load.where)
        carrier = carried_by_faces(nodes, faces.tables) if len(faces) else None
    else:
        numbers = united(sets, load.sets, load.where)
        carrier = carried_by_nodes(nodes, numbers) if len(numbers) else None
    if carrier is None:
        return None
    force = np.array(load.values or (0.0, 0.0, 0.0), np.float64)
    moment = np.array(load.moment, np.float64)
    if load.point is not None:
        moment = moment + np.cross(np.array(load.point) - carrier.centroid, force)
    forces = with_resultant(carrier, force, moment)
    if forces is None:
        text = "gives a moment about a line on which all of its nodes lie"
        name = ".".join(map(str, load.where))
        hint = "forces on them can't turn about it: take a set with an area"
        cases.report.add((*load.where, "set"), f"[{name}] {text}", hint)
        return None
    return carrier.numbers, forces


def bearing(cases: Cases, sets: Sets, load: Load) -> tuple[Array, Array] | None:
    """Nodal forces of a bearing on a cylinder's wall; None where a mistake was told."""
    faces = faces_of(cases, sets, load.sets, load.where)
    if not len(faces):
        return None
    at, label = (*load.where, "set"), ".".join(map(str, load.where))
    if faces.interior:
        cases.report.add(at, f"the wall of [{label}] has solids on both sides")
        return None
    wall = _wall(sets.mesh.nodes, faces, load)
    if wall is None or wall.unround > _UNROUND:
        off = "plane" if wall is None else f"off by {100 * wall.unround:.2g} % of its mean radius"
        text = f"the set of [{label}] is no cylinder's wall: it is {off}"
        cases.report.add(at, text, "a bearing acts on the wall of one hole or shaft")
        return None
    force = np.array(load.values, np.float64)
    along = float(force @ wall.axis) * wall.axis
    if np.linalg.norm(along) > _AXIAL * np.linalg.norm(force):
        share = np.linalg.norm(along) / np.linalg.norm(force)
        text = f"value in [{label}] has {100 * share:.3g} % of its force along the cylinder's axis"
        hint = "a bearing pushes square to it; give that part as a load of type = 'force'"
        cases.report.add((*load.where, "value"), text, hint)
        return None
    made = bearing_forces(sets.mesh.nodes, faces.tables, wall.point, wall.axis, force - along)
    if made is None:
        text = f"nothing of the set of [{label}] lies on the side that its force pushes"
        cases.report.add(at, text)
        return None
    if np.any(made.sideways):
        size = np.linalg.norm(made.sideways) / np.linalg.norm(force)
        sets.mesh.notes.append(
            f"bearing [{label}]: the wall isn't whole where it is pushed, so beside its force "
            f"there is one of {100 * size:.3g} % across it, which a support on a plane of "
            "symmetry takes"
        )
    # What the axis is off by: uniform over the wall, so that the sum is the force asked for.
    return made.numbers, made.forces + spread_force(sets.mesh.nodes, faces.tables, along)[1]


def _wall(nodes: Array, faces: Faces, load: Load) -> Cylinder | None:
    """The cylinder of the faces' corners, about the load's axis where it has one."""
    corners, normals = corner_normals(nodes, faces.tables)
    if load.axis is not None and load.point is not None:
        return cylinders.about_axis(corners, np.array(load.point), np.array(load.axis))
    return cylinders.through(corners, normals)
