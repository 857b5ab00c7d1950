"""Constraints, forces and temperatures of each load case."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import counted, some
from vkctl.directory import formats
from vkctl.directory.formats import LoadCaseMap, file_names
from vkctl.directory.numbering import prescribed_components, prescribed_rows
from vkctl.shapes.topology import CORNERS_PER_TYPE

from .element_tables import node_levels
from .findings import Finding, error, note, warning
from .inputs import Inputs, acting, nodes_listed

_NEGLIGIBLE = 0.01  # part of the load below which its loss is worth a note only


def check_loads(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the load-case files, one load case after the other."""
    for number, sections in inputs.maps.items():
        yield from _LoadCase(inputs, number, sections).findings()


class _LoadCase:
    """One load case with what its checks share."""

    def __init__(self, inputs: Inputs, number: int, sections: LoadCaseMap) -> None:
        self.inputs = inputs
        self.sections = sections
        self.where = f"load case {number}"
        self.file = formats.numbered(file_names.LOAD_CASE_MAP_STEM, number)

    def findings(self) -> Iterator[Finding]:
        broken = list(self._indices())
        yield from broken
        if broken:
            return
        yield from self._constraints()
        for section, rows in ((2, self.sections.forces2), (3, self.sections.forces3)):
            yield from self._force_list(section, rows)
        yield from self._temperatures()
        if self.inputs.mesh is not None:
            yield from self._constrained_nodes(self.inputs.mesh.used)
            yield from self._loaded_nodes(self.inputs.mesh.used)
        yield from self._any_load()

    def _nodes(self, numbers: Array) -> str:
        return nodes_listed(self.inputs, numbers)

    def _indices(self) -> Iterator[Finding]:
        count = self.inputs.node_count
        for name, rows in (
            ("constraints", acting(self.sections.constraints)),
            ("forces of the first list", self.sections.forces2),
            ("forces of the second list", self.sections.forces3),
            ("temperatures", self.sections.scalars),
        ):
            outside = rows["Node"][(rows["Node"] < 1) | (rows["Node"] > count)]
            if len(outside):
                text = f"{len(outside)} {name} name nodes outside 1 to {count}: {some(outside)}."
                yield error("case-node", text, self.where, f"See {self.file}.")

    def _constraints(self) -> Iterator[Finding]:
        rows = self.sections.constraints
        mask = rows["DofMask"][:, None] >> np.arange(3) & 1 == 1
        idle = np.flatnonzero(~mask.any(axis=1))
        if len(idle):
            text = f"{counted(len(idle), 'constraint row')} act in no direction."
            yield note("constraint-idle", text, self.where)
        if not np.isfinite(rows["Value"][mask]).all():
            yield error("constraint-not-finite", "A constraint has no finite value.", self.where)
        yield from self._contradictions()
        yield from self._springs(rows[rows["Kind"] & formats.CONSTRAINT_PENALTY != 0])

    def _contradictions(self) -> Iterator[Finding]:
        rows, nodes, directions = prescribed_rows(self.sections.constraints)
        keys = 3 * nodes + directions
        values = self.sections.constraints["Value"][rows, directions]
        order = np.argsort(keys, kind="stable")
        same = keys[order][1:] == keys[order][:-1]
        differ = same & (values[order][1:] != values[order][:-1])
        if differ.any():
            twice = distinct(nodes[order][1:][differ] + 1)
            text = f"{self._nodes(twice)} have two different prescribed values in a direction."
            yield warning("constraint-twice", text, self.where, "The later row holds.")

    def _springs(self, rows: Array) -> Iterator[Finding]:
        if not len(rows):
            return
        if self.inputs.option_values["Sta.SupportStiffness"] <= 0:
            text = f"{counted(len(rows), 'elastic support')} have no stiffness: the option is 0."
            yield warning("support-no-stiffness", text, self.where, "Set Sta.SupportStiffness.")
        row, direction = np.nonzero(rows["DofMask"][:, None] >> np.arange(3) & 1)
        lengths = np.linalg.norm(rows["Axis"][row, direction].astype(float), axis=1)
        undefined = distinct(rows["Node"][row[~np.isfinite(lengths)]])
        if len(undefined):
            text = f"Elastic supports at {self._nodes(undefined)} have an axis that is no number."
            yield error("support-not-finite", text, self.where)
        bad = distinct(rows["Node"][row[lengths == 0]])
        if len(bad):
            text = f"Elastic supports at {self._nodes(bad)} have an axis without direction."
            yield warning("support-axis", text, self.where, "They don't hold.")
        scaled = (lengths > 0) & (np.abs(lengths - 1) > 1e-3)
        if scaled.any():
            nodes = distinct(rows["Node"][row[scaled]])
            text = f"Elastic supports at {self._nodes(nodes)} have axes not of unit length."
            yield note(
                "support-scaled", text, self.where, "The squared length multiplies the stiffness."
            )

    def _force_list(self, section: int, rows: Array) -> Iterator[Finding]:
        numbers, counts = np.unique(rows["Node"], return_counts=True)
        twice = numbers[counts > 1]
        if len(twice):
            text = f"Force list {section} names {self._nodes(twice)} more than once."
            hint = "A list is added in parallel without protection: forces may be lost. Merge them."
            yield error("force-twice", text, self.where, hint)
        if not np.isfinite(rows["Force"]).all():
            bad = rows["Node"][~np.isfinite(rows["Force"]).all(axis=1)]
            yield error(
                "force-not-finite",
                f"Forces at {self._nodes(bad)} are not finite.",
                self.where,
            )

    def _temperatures(self) -> Iterator[Finding]:
        rows = self.sections.scalars
        if not len(rows):
            return
        if not np.isfinite(rows["Value"]).all():
            yield error("temperature-not-finite", "A temperature is not finite.", self.where)
        order = np.argsort(rows["Node"], kind="stable")
        nodes, values = rows["Node"][order], rows["Value"][order]
        differ = (nodes[1:] == nodes[:-1]) & (values[1:] != values[:-1])
        if differ.any():
            text = f"{self._nodes(distinct(nodes[1:][differ]))} have two temperatures."
            yield warning("temperature-twice", text, self.where, "The later one holds.")
        materials = self.inputs.materials
        if materials is not None and not _expands(materials).any():
            text = "There are temperatures, but no material expands."
            yield warning("temperature-no-effect", text, self.where, "Set expansion coefficients.")

    def _constrained_nodes(self, used: Array) -> Iterator[Finding]:
        nodes = acting(self.sections.constraints)["Node"]
        idle = distinct(nodes[~used[nodes - 1]])
        if len(idle):
            text = f"Constraints on {self._nodes(idle)} that no active element uses."
            yield warning("constraint-unused", text, self.where, "They hold nothing.")
        if used.any() and self._fixed()[used].all():
            text = "Every component of every node is prescribed: no degrees of freedom are left."
            yield error("all-fixed", text, self.where)

    def _fixed(self) -> Array:
        assert self.inputs.nodes is not None
        return prescribed_components(self.sections.constraints, len(self.inputs.nodes))

    def _loaded_nodes(self, used: Array) -> Iterator[Finding]:
        """Forces that reach no equation, and forces in the void."""
        rows = np.concatenate((self.sections.forces2, self.sections.forces3))
        rows = rows[np.isfinite(rows["Force"]).all(axis=1)]
        nodes, force = rows["Node"] - 1, np.abs(rows["Force"].astype(float))
        total = force.sum()
        if total == 0:
            return
        idle = ~used[nodes] & force.any(axis=1)
        if idle.any():
            where = self._nodes(rows["Node"][idle])
            text = f"Forces on {where} that no active element uses are lost."
            yield warning("force-unused", text, self.where)
        yield from self._marked(rows, force)
        held = force * self._fixed()[nodes]
        if held.any():
            share = held.sum() / total
            there = distinct(rows["Node"][held.any(axis=1)])
            text = f"{share:.2g} of the load acts on prescribed components of {self._nodes(there)}."
            kind = warning if share > _NEGLIGIBLE else note
            yield kind("force-fixed", text, self.where, "It counts in the sums Rx, Ry, Rz only.")
        yield from self._in_void(rows[force.any(axis=1)])

    def _marked(self, rows: Array, force: Array) -> Iterator[Finding]:
        if self.inputs.node_flags is None:
            return
        flags = self.inputs.node_flags[rows["Node"] - 1]
        marked = (flags & formats.NODE_NO_LOADS != 0) & force.any(axis=1)
        if marked.any():
            where = self._nodes(rows["Node"][marked])
            text = f"Forces on {where} are skipped: bit 11 of the node flags."
            yield warning("force-marked", text, self.where)

    def _in_void(self, rows: Array) -> Iterator[Finding]:
        """Loaded nodes whose elements all lie where the level is negative at every corner."""
        levels, mesh = node_levels(self.inputs), self.inputs.mesh
        if levels is None or mesh is None or not (levels < 0).any():
            return
        holds = np.zeros(len(levels), np.bool_)
        assert self.inputs.element_flags is not None
        for code, (numbers, nodes) in mesh.blocks.items():
            corners = nodes[:, : CORNERS_PER_TYPE[code]]
            no_level = self.inputs.element_flags[numbers - 1] & formats.ELEMENT_NO_LEVEL != 0
            solid = (levels[corners - 1] >= 0).any(axis=1) | no_level
            holds[nodes[solid] - 1] = True
        void = distinct(rows["Node"][~holds[rows["Node"] - 1]])
        if len(void):
            text = f"Forces act on {self._nodes(void)} where there is no material."
            hint = "Displacements there will be huge. Keep the level positive under loads."
            yield warning("force-in-void", text, self.where, hint)

    def _any_load(self) -> Iterator[Finding]:
        s = self.sections
        mask = s.constraints["DofMask"][:, None] >> np.arange(3) & 1 == 1
        strains = self.inputs.materials is not None and self.inputs.materials["InitialStrain"].any()
        if not (
            s.forces2["Force"].any()
            or s.forces3["Force"].any()
            or s.constraints["Value"][mask].any()
            or s.scalars["Value"].any()
            or strains
        ):
            text = "There is no load: no force, prescribed displacement or temperature."
            yield warning("load-none", text, self.where, "All displacements will be zero.")


def _expands(materials: Array) -> Array:
    ortho = materials["MaterialFlags"] & formats.MATERIAL_ORTHOTROPIC != 0
    expands: Array = np.where(
        ortho, materials["Expansions"].any(axis=1), materials["Expansion"] != 0
    )
    return expands
