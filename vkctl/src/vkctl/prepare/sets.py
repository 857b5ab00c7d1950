"""Sets of a part and of a case file, resolved to node numbers, element numbers and faces."""

from __future__ import annotations

from dataclasses import dataclass, field
from functools import cached_property

import numpy as np

from vkctl.directory.formats import Array
from vkctl.directory.model import Elements
from vkctl.shapes.geometry import boundary_faces, element_centroids, faces_within

from .case_file import locate
from .case_file.cases import Cases, Names, Region, SetDefinition, SetKind
from .case_file.expression import ExpressionError
from .case_file.schema import did_you_mean
from .mesh import Mesh, counted, distinct

TOLERANCE = 1e-5  # of regions, relative to the diagonal of the bounding box


@dataclass
class Faces:
    """Faces of active elements as rows of node numbers, outward, tables of 3, 4 or 6 columns.

    `interior` counts those with an active element on both sides, whose outward is arbitrary.
    """

    tables: list[Array] = field(default_factory=list)
    interior: int = 0

    def __len__(self) -> int:
        return sum(len(table) for table in self.tables)

    def nodes(self) -> Array:
        """Numbers of their nodes, ascending."""
        if not len(self):
            return np.empty(0, np.int64)
        return distinct(np.concatenate([t.ravel() for t in self.tables]))

    def chosen(self, masks: list[Array]) -> Faces:
        """Those whose mask is set; faces keep counting as interior if any is."""
        tables = [t[m] for t, m in zip(self.tables, masks, strict=True)]
        return Faces([t for t in tables if len(t)], self.interior)


def _keys(table: Array) -> Array:
    """Three lowest corner numbers of each face, which are enough to tell it."""
    corners = table[:, : 4 if table.shape[1] == 4 else 3]
    return np.sort(corners, axis=1)[:, :3]


def _identities(rows: Array) -> Array:
    """One integer per distinct row."""
    span = int(rows.max(initial=0)) + 1
    if span < 1 << 21:
        packed: Array = rows.astype(np.int64) @ np.array((span * span, span, 1))
        return packed
    inverse: Array = np.unique(rows, axis=0, return_inverse=True)[1].ravel()
    return inverse


def faces_of_surface(elements: Elements, surface: list[Array], num_nodes: int) -> tuple[Faces, int]:
    """Solid faces that surface elements lie on, and how many lie on none.

    Each face comes once, however many surface elements name it.
    """
    nodes = distinct(np.concatenate([t.ravel() for t in surface] or [np.empty(0, np.int64)]))
    candidates = faces_within(elements, nodes)
    faces, missing = Faces(), 0
    for width in (3, 4, 6):
        wanted = [t for t in surface if t.shape[1] == width]
        there = [t for t in candidates if t.shape[1] == width]
        if not wanted:
            continue
        given = np.concatenate(wanted)
        found = np.concatenate(there) if there else np.empty((0, width), given.dtype)
        ids = _identities(np.concatenate((_keys(found), _keys(given))))
        solid, flat = ids[: len(found)], distinct(ids[len(found) :])
        names, first, count = np.unique(solid, return_index=True, return_counts=True)
        hit = np.isin(names, flat)
        missing += len(flat) - int(np.count_nonzero(hit))
        faces.interior += int(np.count_nonzero(count[hit] > 1))
        if np.any(hit):
            faces.tables.append(found[first[hit]])
    return faces, missing


class Sets:
    """The sets of a mesh and of a case file by name.

    `nodes`, `elements` and `faces` each accept the name of any kind of set and convert it. A
    name that doesn't exist and a set that turns out empty are reported at the key path given,
    and give an empty set. Only active nodes, elements and faces are in sets: those of elements
    that aren't left out of the model. "all" stands for all of them, for faces the outer ones.
    """

    def __init__(self, mesh: Mesh, cases: Cases) -> None:
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
        for code in (40, 41, 60):
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
        for code in (40, 41, 60):
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
                made, hint = self._from_part(kind, name), ""
            self._open.pop()
            self._done[key] = made
            known = kind == "element" and (key in self._lost or name in self.mesh.element_sets)
            if not len(made) and not known and len(self.report.problems) == before:
                self.report.add(where, f"{kind} set {name!r} is empty", hint)
        return self._done[key]

    def _from_part(self, kind: SetKind, name: str) -> Array | Faces:
        if kind == "node":
            return _kept(self.mesh.node_sets[name], self.active_nodes)
        if kind == "element":
            return _kept(self.mesh.element_sets[name], self.active)
        faces, missing = faces_of_surface(
            self.active_elements, self.mesh.surfaces[name], len(self.mesh.nodes)
        )
        if missing:
            self.mesh.notes.append(
                f"surface {name!r}: {counted(missing, 'surface element')} on no face of a solid"
            )
        return faces

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
        chosen = chosen[self._within(definition, points[chosen - 1])]
        if definition.nearest and len(chosen):
            distances = [
                np.linalg.norm(points[chosen - 1] - point, axis=1) for point in definition.nearest
            ]
            chosen = np.unique(chosen[[int(np.argmin(d)) for d in distances]])
        return chosen

    def _within(self, definition: SetDefinition, points: Array) -> Array:
        mask = np.ones(len(points), np.bool_)
        for region in definition.regions:
            mask &= _excess(region, points) <= self._tolerance(region)
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
            faces = _unique(Faces(tables, sum(p.interior for p in parts)))
        for name in definition.minus:
            less = self.faces(name, (*definition.where, "minus"))
            faces = _difference(faces, less)
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
            away = float(_excess(region, points).min())
            if away > self._tolerance(region):
                hints.append(f"the {region.shape} is {away:.4g} away from the nearest point")
        if not hints:
            low, high = points.min(axis=0), points.max(axis=0)
            hints.append(f"the part reaches from {_triple(low)} to {_triple(high)}")
        return ", ".join(hints)


def _kept(numbers: Array, mask: Array) -> Array:
    kept: Array = numbers[mask[numbers - 1]]
    return kept


def _triple(point: Array) -> str:
    return "(" + ", ".join(f"{v:.6g}" for v in point) + ")"


def _unique(faces: Faces) -> Faces:
    tables = []
    for width in (3, 4, 6):
        same = [t for t in faces.tables if t.shape[1] == width]
        if same:
            rows = np.concatenate(same)
            tables.append(rows[np.unique(_identities(_keys(rows)), return_index=True)[1]])
    return Faces(tables, faces.interior)


def _difference(faces: Faces, less: Faces) -> Faces:
    masks = []
    for table in faces.tables:
        others = [t for t in less.tables if t.shape[1] == table.shape[1]]
        keys = np.concatenate([_keys(t) for t in (table, *others)])
        ids = _identities(keys)
        masks.append(~np.isin(ids[: len(table)], ids[len(table) :]))
    return faces.chosen(masks)


def _excess(region: Region, points: Array) -> Array:
    """Distance of points from a region, 0 inside; for a plane the distance from it."""
    offset = points - np.array(region.point)
    if region.shape == "box":
        above = points - np.array(region.direction)
        excess = np.maximum(-offset, above).max(axis=1)
    elif region.shape == "sphere":
        excess = np.linalg.norm(offset, axis=1) - region.radius
    else:
        unit = np.array(region.direction) / np.linalg.norm(region.direction)
        along = offset @ unit
        excess = np.abs(along)
        if region.shape == "cylinder":
            excess = np.linalg.norm(offset - along[:, None] * unit, axis=1) - region.radius
    outside: Array = np.maximum(excess, 0.0)
    return outside
