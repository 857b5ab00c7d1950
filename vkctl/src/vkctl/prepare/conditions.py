"""Supports and loads of a case file on a mesh, as records and nodal values."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted
from vkctl.directory import model
from vkctl.directory.levels import level_field
from vkctl.directory.model import Model
from vkctl.shapes.forces import consistent_forces, lumped_areas, nodal_masses, spread_force
from vkctl.stress.weight import weight_of

from .case_file import locate
from .case_file.entries import Cases, Load, Support
from .case_file.expression import ExpressionError
from .case_file.toml_table import Field
from .planes import held_normals
from .remote import bearing, moved_rigidly, spread_moment
from .sets import Sets
from .targets import evaluate, faces_of, guarded, has_faces, labelled_nodes, node_array, united


def support_records(cases: Cases, sets: Sets, support: Support) -> Array:
    """CONSTRAINT records of a support."""
    if support.kind in ("symmetry", "frictionless"):
        return held_normals(cases, sets, support)
    nodes = united(sets, support.sets, support.where)
    points = sets.mesh.nodes[nodes - 1]
    if support.kind == "remote_displacement":
        return model.prescribed(nodes, "xyz", moved_rigidly(support, points))
    key = "offset" if support.kind == "elastic" else "value"
    at = (*support.where, key)
    values = np.column_stack(
        [guarded(cases, (*at, k), v, points) for k, v in enumerate(support.values)]
    )
    if support.kind != "elastic":
        return model.prescribed(nodes, support.directions, values)
    axes = np.array(support.axes, np.float64)
    lengths = np.linalg.norm(axes, axis=1)
    axes = axes / np.where(lengths > 0, lengths, 1.0)[:, None]
    factors = np.sqrt(_relative_stiffness(cases, sets, support, nodes))
    scaled = factors[:, :, None] * axes
    return model.elastic(nodes, scaled, factors * values, support.directions)


def _relative_stiffness(cases: Cases, sets: Sets, support: Support, nodes: Array) -> Array:
    """Stiffness of each node along each axis over that of the option, (nodes, 3).

    The squared length of an axis multiplies the option's stiffness.
    """
    unit = cases.options.get("Sta.SupportStiffness", 1.0)
    if unit <= 0:
        text = "an elastic support has no effect while Sta.SupportStiffness is 0"
        cases.report.add(support.where, text, "set the option to 1 and give a 'stiffness'")
        return np.ones((len(nodes), 3))
    if support.stiffness is None:
        return np.ones((len(nodes), 3))
    amount = np.ones(len(nodes))
    if support.per == "area" or (support.per == "total" and has_faces(sets, support.sets)):
        faces = faces_of(cases, sets, support.sets, support.where)
        numbers, areas = lumped_areas(sets.mesh.nodes, faces.tables)
        amount = np.zeros(len(nodes))
        known = np.isin(numbers, nodes)
        amount[np.searchsorted(nodes, numbers[known])] = areas[known]
    if support.per == "total" and len(nodes):
        amount = amount / amount.sum()
    relative: Array = amount[:, None] * np.array(support.stiffness) / unit
    return relative


@dataclass
class AppliedLoad:
    """Nodal forces or temperatures of one load at the factor 1."""

    nodes: Array
    values: Array  # (k, 3) forces or (k,) temperatures
    kind: str
    body: Array | None = None  # (m, 3) forces per volume that follow the level field, by element


class LoadMaker:
    """Makes the loads of a case file; mistakes go to its report."""

    def __init__(self, cases: Cases, sets: Sets, whole: Model) -> None:
        self.cases = cases
        self.sets = sets
        self.whole = whole
        self.nodes = sets.mesh.nodes
        self.bodies: dict[locate.Path, Array] = {}  # of gravity that follows the level field

    def make(self, load: Load) -> AppliedLoad:
        before = len(self.cases.report.problems)
        if load.labels:
            numbers, values = self._each(load)
            return AppliedLoad(numbers, values, load.kind)
        make = {
            "force": self._force,
            "traction": self._on_faces,
            "pressure": self._on_faces,
            "gravity": self._gravity,
            "temperature": self._temperature,
            "moment": self._moment,
            "remote_force": self._moment,
            "bearing": self._bearing,
        }[load.kind]
        numbers, values = make(load)
        missing = len(self.cases.report.problems) > before
        if not missing and load.kind != "temperature" and not np.any(values):
            what = load.kind.replace("_", " ")
            self.cases.report.add(load.where, f"the {what} is zero everywhere")
        return AppliedLoad(numbers, values, load.kind, self.bodies.get(load.where))

    def _nothing(self) -> tuple[Array, Array]:
        return np.empty(0, np.int64), np.empty((0, 3))

    def _each(self, load: Load) -> tuple[Array, Array]:
        numbers = labelled_nodes(self.cases, self.sets, load)
        values = np.array(load.each, np.float64)
        if load.kind == "temperature":
            values = values - load.reference
        return numbers, values[: len(numbers)]

    def _force(self, load: Load) -> tuple[Array, Array]:
        vector = np.array(load.values, np.float64)
        spread = load.spread or ("area" if has_faces(self.sets, load.sets) else "equal")
        if spread == "area":
            faces = faces_of(self.cases, self.sets, load.sets, load.where)
            if not len(faces):
                return self._nothing()
            return spread_force(self.nodes, faces.tables, vector)
        numbers = united(self.sets, load.sets, load.where)
        if not len(numbers):
            return self._nothing()
        share = vector / (len(numbers) if spread == "equal" else 1)
        return numbers, np.tile(share, (len(numbers), 1))

    def _on_faces(self, load: Load) -> tuple[Array, Array]:
        faces = faces_of(self.cases, self.sets, load.sets, load.where)
        if load.kind == "pressure" and faces.interior:
            self.cases.report.add(
                (*load.where, "set"),
                f"{counted(faces.interior, 'face')} of the pressure have solids on both sides",
                "use a traction, or leave the elements on one side out",
            )
        if not len(faces):
            return self._nothing()
        try:
            return traction_forces(self.nodes, faces.tables, load.values)
        except ExpressionError as error:
            self.cases.report.add((*load.where, "value"), str(error))
            return self._nothing()

    def _moment(self, load: Load) -> tuple[Array, Array]:
        return spread_moment(self.cases, self.sets, load) or self._nothing()

    def _bearing(self, load: Load) -> tuple[Array, Array]:
        return bearing(self.cases, self.sets, load) or self._nothing()

    def _gravity(self, load: Load) -> tuple[Array, Array]:
        entries = list(self.cases.materials.values())
        per_material = np.array([0.0] + [e.density or 0.0 for e in entries])
        materials = self.whole.elements.materials
        chosen = self.sets.active.copy()
        if load.sets:
            names = [self.sets.elements(n, (*load.where, "set")) for n in load.sets]
            chosen[:] = False
            chosen[np.concatenate(names) - 1] = True
        for number in distinct(materials[chosen]):
            entry = entries[number - 1]
            if entry.density is None:
                text = f"[materials.{entry.material.name}] has no 'density', which gravity needs"
                self.cases.report.add(entry.where, text)
        densities = np.where(chosen, per_material[materials], 0.0)
        if load.follows:
            body = densities[:, None] * np.array(load.values, np.float64)
            self.bodies[load.where] = body
            if len(self.whole.tp):
                return self._followed(body)
        masses = nodal_masses(self.nodes, self.whole.elements, densities)
        numbers = np.flatnonzero(masses) + 1
        return numbers, masses[numbers - 1, None] * np.array(load.values, np.float64)

    def _followed(self, body: Array) -> tuple[Array, Array]:
        """Of what the case file's level field has of material."""
        levels = level_field(self.whole).astype(np.float64)
        forces = weight_of(self.whole, body).nodal_forces(levels)
        numbers = np.flatnonzero(np.any(forces, axis=1)) + 1
        return numbers, forces[numbers - 1]

    def _temperature(self, load: Load) -> tuple[Array, Array]:
        numbers = united(self.sets, load.sets, load.where)
        if load.array:
            values = node_array(self.cases, self.sets, load.where, load.array)[numbers - 1]
        else:
            at = (*load.where, "value")
            values = guarded(self.cases, at, load.values[0], self.nodes[numbers - 1])
        return numbers, values - load.reference


def traction_forces(
    nodes: Array, tables: list[Array], values: tuple[Field, ...]
) -> tuple[Array, Array]:
    """Nodal forces of a traction (three values) or a pressure (one): (numbers, forces (k, 3)).

    A pressure pushes against the faces from outside. Formulas are taken at the integration
    points, so a field that is linear gives its exact resultant on plane faces.
    """

    def at(points: Array) -> Array:
        columns = [evaluate(v, points) for v in values]
        return columns[0] if len(columns) == 1 else np.column_stack(columns)

    return consistent_forces(nodes, tables, at)
