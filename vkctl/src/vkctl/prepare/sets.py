"""Sets of a part and of a case file, resolved to node numbers, element numbers and faces."""

from __future__ import annotations

from collections.abc import Sequence
from functools import cached_property

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted, did_you_mean, place_words
from vkctl.shapes.elements import Elements
from vkctl.shapes.faces import boundary_faces
from vkctl.shapes.measures import element_centroids
from vkctl.shapes.topology import TYPES

from .case_file import locate
from .case_file.entries import Cases, Names, Region, SetDefinition, SetKind
from .case_file.expression import ExpressionError
from .face_sets import Faces, faces_of_surface, faces_without, unique_faces
from .mesh import PartMesh
from .part import labelled
from .regions import TOLERANCE, distance_outside

UNUSED = "nodes without a solid element aren't among them"


def numbers_of(labels: Array, wanted: Sequence[int]) -> Array:
    """Number of each wanted label, 0 for those that there aren't."""
    order = np.argsort(labels, kind="stable")
    sought = np.asarray(wanted, np.int64)
    place = np.minimum(np.searchsorted(labels[order], sought), len(labels) - 1)
    found: Array = np.where(labels[order[place]] == sought, order[place] + 1, 0)
    return found


class Sets:
    """The sets of a mesh and of a case file by name.

    `nodes`, `elements` and `faces` each accept the name of any kind of set and convert it. A
    name that doesn't exist and a set that turns out empty are reported at the key path given,
    and give an empty set. Only active nodes, elements and faces are in sets: those of elements
    that aren't left out of the model. "all" stands for all of them, for faces the outer ones.
    """

    def __init__(self, mesh: PartMesh, cases: Cases) -> None:
        self.mesh = mesh
        self.report = cases.report
        self.defined: dict[SetKind, dict[str, SetDefinition]] = {
            "node": {},
            "element": {},
            "face": {},
        }
        for name, definition in cases.sets:
            self._define(name, definition)
        self.active = np.ones(len(mesh.elements), np.bool_)
        self._done: dict[tuple[SetKind, str], Array | Faces] = {}
        self._open: list[tuple[SetKind, str]] = []
        self._lost: set[tuple[SetKind, str]] = set()  # had members before elements were left out

    def _define(self, name: str, definition: SetDefinition) -> None:
        kind = definition.kind
        if name == "all" or name in self._of_part(kind):
            owner = "is a set of every part" if name == "all" else "is a set of the part already"
            self.report.add(definition.where, f"{kind} set {name!r} {owner}", "choose another name")
        self.defined[kind][name] = definition

    def _of_part(self, kind: SetKind) -> dict[str, Array] | dict[str, list[Array]]:
        if kind == "face":
            return self.mesh.surfaces
        return self.mesh.node_sets if kind == "node" else self.mesh.element_sets

    def exclude(self, names: Names, where: locate.Path) -> None:
        """Take elements out of all sets that are asked for later.

        Element sets are looked at before: one that loses all its elements here is no mistake.
        """
        if not names:
            return
        for name, definition in self.defined["element"].items():
            self._resolved("element", name, definition.where)
        gone = [self.elements(name, where) for name in names]
        self.active[np.concatenate(gone) - 1] = False
        self._lost = {key for key, made in self._done.items() if len(made)}
        self._done.clear()
        self.__dict__.pop("active_elements", None)
        self.__dict__.pop("active_nodes", None)
        self.__dict__.pop("outer", None)

    @cached_property
    def active_elements(self) -> Elements:
        """The active elements; their connectivity tables are those of the whole mesh."""
        every = self.mesh.elements
        if np.all(self.active):
            return every
        return Elements(
            every.type_codes[self.active],
            every.materials[self.active],
            every.conn_index[self.active],
            every.tet4,
            every.hex8,
            every.tet10,
        )

    @cached_property
    def active_nodes(self) -> Array:
        """Mask over the nodes."""
        mask = np.zeros(len(self.mesh.nodes), np.bool_)
        for table in self.active_elements.used_tables():
            mask[table - 1] = True
        return mask

    @cached_property
    def outer(self) -> Faces:
        """All faces with an active element on one side only."""
        return Faces(boundary_faces(self.active_elements))

    @cached_property
    def centroids(self) -> Array:
        return element_centroids(self.mesh.nodes, self.mesh.elements)

    def names(self, *kinds: SetKind) -> list[str]:
        """Names of all sets of the kinds, those of the case file first."""
        found: dict[str, None] = {}
        for kind in kinds:
            found.update(dict.fromkeys(self.defined[kind]))
        for kind in kinds:
            found.update(dict.fromkeys(self._of_part(kind)))
        return list(found)

    def _kind_of(
        self, name: str, kinds: tuple[SetKind, ...], where: locate.Path
    ) -> tuple[SetKind, str] | None:
        """Kind and exact spelling of a name, searched in the order of the kinds.

        A set may be made from one of another kind that has its name.
        """
        for fold in (str, str.lower):
            for kind in kinds:
                for known in self.names(kind):
                    itself = self._open[-1:] == [(kind, known)]
                    if fold(known) == fold(name) and not itself:
                        return kind, known
        every: tuple[SetKind, ...] = ("node", "element", "face")
        if others := [kind for kind in every if kind not in kinds and name in self.names(kind)]:
            text = f"{name!r} is a {others[0]} set, which has no {kinds[0]}s"
            self.report.add(where, text)
        else:
            self.report.add(where, f"no set {name!r}", did_you_mean(name, self.names(*kinds)))
        return None

    def nodes(self, name: str, where: locate.Path) -> Array:
        """Numbers of the nodes of a set, ascending."""
        if name == "all":
            return np.flatnonzero(self.active_nodes) + 1
        found = self._kind_of(name, ("node", "face", "element"), where)
        if found is None:
            return np.empty(0, np.int64)
        kind, title = found
        if kind == "face":
            return self.faces(title, where).nodes()
        if kind == "node":
            return self._resolved("node", title, where)  # type: ignore[return-value]
        return self._nodes_of_elements(self.elements(title, where))

    def members(self, kind: SetKind, name: str) -> Array | Faces:
        """The set of one kind, where sets of several kinds share a name."""
        return self._resolved(kind, name, ())

    def nodes_of(self, kind: SetKind, name: str) -> Array:
        """Numbers of the nodes of `members`."""
        made = self.members(kind, name)
        if isinstance(made, Faces):
            return made.nodes()
        return self._nodes_of_elements(made) if kind == "element" else made

    def _nodes_of_elements(self, numbers: Array) -> Array:
        chosen = np.zeros(len(self.mesh.elements), np.bool_)
        chosen[numbers - 1] = True
        mask = np.zeros(len(self.mesh.nodes), np.bool_)
        for code in TYPES:
            own, rows = self.mesh.elements.of_type(code)
            mask[rows[chosen[own - 1]] - 1] = True
        return np.flatnonzero(mask) + 1

    def elements(self, name: str, where: locate.Path) -> Array:
        """Numbers of the elements of a set, ascending; a node set gives those within it."""
        if name == "all":
            return np.flatnonzero(self.active) + 1
        found = self._kind_of(name, ("element", "node"), where)
        if found is None:
            return np.empty(0, np.int64)
        kind, title = found
        if kind == "element":
            return self._resolved("element", title, where)  # type: ignore[return-value]
        member = np.zeros(len(self.mesh.nodes) + 1, np.bool_)
        member[self.nodes(title, where)] = True
        inside = np.zeros(len(self.mesh.elements), np.bool_)
        for code in TYPES:
            own, rows = self.mesh.elements.of_type(code)
            inside[own - 1] = member[rows].all(axis=1)
        return np.flatnonzero(inside & self.active) + 1

    def faces(self, name: str, where: locate.Path) -> Faces:
        """Faces of a set; of a node or element set the outer faces with all nodes in it."""
        if name == "all":
            return self.outer
        found = self._kind_of(name, ("face", "node", "element"), where)
        if found is None:
            return Faces()
        kind, title = found
        if kind == "face":
            return self._resolved("face", title, where)  # type: ignore[return-value]
        faces = self._faces_between(self.nodes(title, where))
        if not len(faces):
            hint = "a force can act on nodes; make a face set for a traction or pressure"
            self.report.add(where, f"{kind} set {name!r} spans no outer face", hint)
        return faces

    def _faces_between(self, nodes: Array) -> Faces:
        member = np.zeros(len(self.mesh.nodes) + 1, np.bool_)
        member[nodes] = True
        return self.outer.chosen([np.all(member[t], axis=1) for t in self.outer.tables])

    def _resolved(self, kind: SetKind, name: str, where: locate.Path) -> Array | Faces:
        """A set under its own kind, made at its first use."""
        key = kind, name
        if key in self._open:
            circle = " from ".join(repr(n) for _, n in [*self._open, key])
            self.report.add(where, f"sets are made of each other: {circle}")
            return Faces() if kind == "face" else np.empty(0, np.int64)
        if key not in self._done:
            self._open.append(key)
            before = len(self.report.problems)
            if name in self.defined[kind]:
                made = self._make(self.defined[kind][name])
                where, hint = self.defined[kind][name].where, self._hint(self.defined[kind][name])
            else:
                (made, off), hint = self._from_part(kind, name), ""
                if off:
                    count = counted(off, "surface element")
                    self.mesh.notes.append(f"surface {name!r}: {count} on no face of a solid")
            self._open.pop()
            self._done[key] = made
            known = kind == "element" and (key in self._lost or name in self.mesh.element_sets)
            if not len(made) and not known and len(self.report.problems) == before:
                self.report.add(where, f"{kind} set {name!r} is empty", hint)
        return self._done[key]

    def made(self) -> dict[tuple[SetKind, str], Array | Faces]:
        """The sets that were asked for so far, by kind and name."""
        return self._done

    def of_part(self) -> list[tuple[SetKind, str]]:
        """Kind and name of each set that the part brings along."""
        kinds: tuple[SetKind, ...] = ("node", "element", "face")
        return [(kind, name) for kind in kinds for name in self._of_part(kind)]

    def quietly(self, kind: SetKind, name: str) -> Array | Faces:
        """A set of the part, without a word where it is empty."""
        return self._from_part(kind, name)[0]

    def _from_part(self, kind: SetKind, name: str) -> tuple[Array | Faces, int]:
        """The set, and how many of its surface elements lie on no face of a solid."""
        if kind == "node":
            return _kept(self.mesh.node_sets[name], self.active_nodes), 0
        if kind == "element":
            return _kept(self.mesh.element_sets[name], self.active), 0
        return faces_of_surface(
            self.active_elements, self.mesh.surfaces[name], len(self.mesh.nodes)
        )

    # --- sets of the case file ---------------------------------------------------------------

    def _make(self, definition: SetDefinition) -> Array | Faces:
        if definition.kind == "face":
            return self._make_faces(definition)
        pick = self.nodes if definition.kind == "node" else self.elements
        points = self.mesh.nodes if definition.kind == "node" else self.centroids
        names = ("all",) if definition.sources is None else definition.sources
        at = (*definition.where, "from")
        numbers = [pick(name, at) for name in names]
        chosen = distinct(np.concatenate([*numbers, np.empty(0, np.int64)])).astype(np.int64)
        for name in definition.minus:
            chosen = np.setdiff1d(chosen, pick(name, (*definition.where, "minus")))
        if definition.labels is not None:
            chosen = np.intersect1d(chosen, self._labelled(definition))
        chosen = chosen[self._within(definition, points[chosen - 1])]
        if definition.nearest and len(chosen):
            distances = [
                np.linalg.norm(points[chosen - 1] - point, axis=1) for point in definition.nearest
            ]
            chosen = np.unique(chosen[[int(np.argmin(d)) for d in distances]])
        return chosen

    def _labelled(self, definition: SetDefinition) -> Array:
        """Numbers of the nodes or elements that a set names by label."""
        of_nodes = definition.kind == "node"
        labels = self.mesh.node_labels if of_nodes else self.mesh.element_labels
        wanted = definition.labels or ()
        numbers = numbers_of(labels, wanted)
        if missing := [n for n, k in zip(wanted, numbers, strict=True) if not k]:
            text = f"no {definition.kind}s of the part have the labels {labelled(missing)}"
            hint = UNUSED if of_nodes else ""
            self.report.add((*definition.where, "labels"), text, hint)
        return numbers

    def _within(self, definition: SetDefinition, points: Array) -> Array:
        mask = np.ones(len(points), np.bool_)
        for region in definition.regions:
            mask &= distance_outside(region, points) <= self._tolerance(region)
        if definition.formula and len(points):
            try:
                mask &= definition.formula(points) != 0
            except ExpressionError as error:
                self.report.add((*definition.where, "where"), str(error))
        return mask

    def _tolerance(self, region: Region) -> float:
        return TOLERANCE * self.mesh.diagonal if region.tolerance is None else region.tolerance

    def _make_faces(self, definition: SetDefinition) -> Faces:
        if definition.sources is None:
            faces = self.outer
        else:
            at = (*definition.where, "from")
            parts = [self.faces(name, at) for name in definition.sources]
            tables = [t for p in parts for t in p.tables]
            faces = unique_faces(Faces(tables, sum(p.interior for p in parts)))
        for name in definition.minus:
            less = self.faces(name, (*definition.where, "minus"))
            faces = faces_without(faces, less)
        inside = self._within(definition, self.mesh.nodes)
        masks = [np.all(inside[t - 1], axis=1) for t in faces.tables]
        faces = faces.chosen(masks)
        if definition.normal:
            direction, angle = definition.normal
            unit = np.array(direction) / np.linalg.norm(direction)
            least = np.cos(np.radians(angle)) - 1e-12
            faces = faces.chosen([self._normals(t) @ unit >= least for t in faces.tables])
        return faces

    def _normals(self, table: Array) -> Array:
        """Unit normals at the middle of the corners' plane."""
        a, b, c = (self.mesh.nodes[table[:, k] - 1] for k in range(3))
        if table.shape[1] == 4:
            d = self.mesh.nodes[table[:, 3] - 1]
            normal = np.cross(c - a, d - b)
        else:
            normal = np.cross(b - a, c - a)
        unit: Array = normal / np.linalg.norm(normal, axis=1, keepdims=True)
        return unit

    def _hint(self, definition: SetDefinition) -> str:
        """How far the nearest node or centroid is from the regions of an empty set."""
        points = self.centroids if definition.kind == "element" else self.mesh.nodes
        hints = []
        for region in definition.regions:
            away = float(distance_outside(region, points).min())
            if away > self._tolerance(region):
                hints.append(f"the {region.shape} is {away:.4g} away from the nearest point")
        if not hints:
            low, high = points.min(axis=0), points.max(axis=0)
            hints.append(f"the part reaches from {place_words(low)} to {place_words(high)}")
        return ", ".join(hints)


def _kept(numbers: Array, mask: Array) -> Array:
    kept: Array = numbers[mask[numbers - 1]]
    return kept
