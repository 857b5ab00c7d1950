"""Counts, indices, shapes of elements, unused nodes and the level field."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import called, counted, listed, some
from vkctl.directory.formats import file_names
from vkctl.shapes.topology import HEX8, NODES_PER_TYPE, TET4, TET10, TYPE_NAMES

from .findings import Finding, error, note, warning
from .inputs import ActiveMesh, Inputs, elements_listed, fingerprints, nodes_listed
from .quality import ShapeReport, measure

_FILES_PER_NODE = (("node_flags", file_names.NODE_FLAGS), ("tp_index", file_names.TP_INDEX))


def check_counts(inputs: Inputs) -> Iterator[Finding]:
    """Tables that belong together and don't have the same length."""
    for attribute, name in _FILES_PER_NODE:
        table = getattr(inputs, attribute)
        if table is not None and inputs.nodes is not None and len(table) != len(inputs.nodes):
            text = f"{name} has {len(table)} values, mx.nodes has {len(inputs.nodes)} nodes."
            yield error("count-nodes", text, name, "Both must belong to the same mesh.")
    if inputs.tables is not None and inputs.element_flags is not None:
        records, flags = len(inputs.tables.records), len(inputs.element_flags)
        if records != flags:
            text = (
                f"{file_names.ELEMENT_FLAGS} has {flags} values, "
                f"{file_names.ELEMENTS} has {records} elements."
            )
            yield error(
                "count-elements", text, file_names.ELEMENT_FLAGS, "Both must belong to one mesh."
            )


def check_elements(inputs: Inputs) -> Iterator[Finding]:
    """Indices of the active elements, then their shapes."""
    mesh, tables = inputs.mesh, inputs.tables
    if mesh is None or tables is None:
        return
    records = tables.records[: len(mesh.active)]
    unknown = np.flatnonzero(~np.isin(records["TypeCode"], list(NODES_PER_TYPE))) + 1
    if len(unknown):
        codes = some(distinct(records["TypeCode"][unknown - 1]))
        text = f"{elements_listed(inputs, unknown)} of unknown type {codes} are passed over."
        yield warning("element-type", text, file_names.ELEMENTS, "Types are 40, 41 and 60.")
    excluded = int((~mesh.active).sum()) - len(unknown)
    if excluded > 0:
        yield note(
            "element-excluded",
            f"{counted(excluded, 'element')} left out by flags.",
            file_names.ELEMENT_FLAGS,
        )
    if not mesh.active.any():
        text = "No element takes part: the structure has no degrees of freedom."
        yield error("element-none", text, file_names.ELEMENTS)
    yield from _indices(inputs, mesh, records)
    yield from _rows_in_use(inputs, mesh, records)
    yield from _shapes(mesh)


def _indices(inputs: Inputs, mesh: ActiveMesh, records: Array) -> Iterator[Finding]:
    """Why active elements are not valid: material, row, or a node number."""
    wrong = mesh.active & ~mesh.valid
    if not wrong.any():
        return
    left = wrong.copy()
    if inputs.materials is not None:
        material = records["MaterialIndex"]
        bad = wrong & ((material < 1) | (material > len(inputs.materials)))
        left &= ~bad
        if bad.any():
            count = counted(len(inputs.materials), "material")
            which = elements_listed(inputs, np.flatnonzero(bad) + 1)
            text = f"{which} name a material that isn't there (there is {count})."
            yield error("element-material", text, file_names.ELEMENTS)
    assert inputs.tables is not None
    rows = {TET4: inputs.tables.tet4, HEX8: inputs.tables.hex8, TET10: inputs.tables.tet10}
    limit = np.zeros(len(records), np.int64)
    for code, table in rows.items():
        limit[records["TypeCode"] == code] = len(table)
    bad = left & ((records["ConnIndex"] < 1) | (records["ConnIndex"] > limit))
    if bad.any():
        which = elements_listed(inputs, np.flatnonzero(bad) + 1)
        text = f"{which} point outside their connectivity table."
        yield error("element-row", text, file_names.ELEMENTS)
    bad = left & ~bad
    if bad.any():
        which = elements_listed(inputs, np.flatnonzero(bad) + 1)
        text = f"{which} name nodes outside 1 to {inputs.node_count}."
        yield error("element-node", text, file_names.ELEMENTS)


def _rows_in_use(inputs: Inputs, mesh: ActiveMesh, records: Array) -> Iterator[Finding]:
    """Connectivity rows without an element, rows with several, elements on the same nodes."""
    assert inputs.tables is not None
    sizes = {TET4: len(inputs.tables.tet4), HEX8: len(inputs.tables.hex8)}
    sizes[TET10] = len(inputs.tables.tet10)
    for code, (numbers, rows) in mesh.blocks.items():
        every = records["ConnIndex"][records["TypeCode"] == code]
        inside = every[(every >= 1) & (every <= sizes[code])]
        uses = np.bincount(inside, minlength=sizes[code] + 1)[1:]
        if (uses == 0).any():
            text = (
                f"{counted(int((uses == 0).sum()), 'row')} of {TYPE_NAMES[code]} have no element."
            )
            yield note("element-row-unused", text, file_names.ELEMENTS)
        double = numbers[_repeated(fingerprints(rows))]
        if len(double):
            which = elements_listed(inputs, double)
            text = f"{which} lie on the same nodes as another: stiffness counts twice."
            yield warning("element-double", text, file_names.ELEMENTS)


def _repeated(keys: Array) -> Array:
    """Positions of keys that occurred before."""
    order = np.argsort(keys, kind="stable")
    again = np.flatnonzero(keys[order][1:] == keys[order][:-1]) + 1
    positions: Array = np.sort(order[again])
    return positions


def _shapes(mesh: ActiveMesh) -> Iterator[Finding]:
    for code, (numbers, rows) in mesh.blocks.items():
        if len(numbers):
            yield from _shape_findings(measure(code, mesh.nodes, rows), mesh, numbers)


def _shape_findings(shape: ShapeReport, mesh: ActiveMesh, numbers: Array) -> Iterator[Finding]:
    where = file_names.ELEMENTS
    if shape.repeated.any():
        text = f"{elements_listed(mesh, numbers[shape.repeated])} name a node twice."
        yield error("element-collapsed", text, where)
    if shape.flat.any():
        text = f"{elements_listed(mesh, numbers[shape.flat])} have no volume."
        yield error("element-flat", text, where, "Results would be infinite or undefined.")
    if shape.mirrored.any():
        text = f"{elements_listed(mesh, numbers[shape.mirrored])} are turned inside out."
        hint = (
            "The node order is mirrored: swap two nodes of the base face (and the mid-edge nodes)."
        )
        yield error("element-mirrored", text, where, hint)
    if shape.inverted.any():
        which = elements_listed(mesh, numbers[shape.inverted])
        text = f"{which} have a negative Jacobian at integration points."
        hint = "They are folded: move mid-edge nodes towards their edges, or mesh anew there."
        yield error("element-inverted", text, where, hint)
    if shape.folded_corner.any():
        which = elements_listed(mesh, numbers[shape.folded_corner])
        text = f"{which} have a negative Jacobian at a corner."
        yield warning("element-distorted", text, where, "Stresses there will be poor.")
    if shape.sliver.any():
        worst = numbers[shape.sliver][np.argmin(shape.quality[shape.sliver])]
        which = elements_listed(mesh, numbers[shape.sliver])
        text = f"{which} are slivers; the worst is {called(worst, mesh.labels.elements)}."
        yield warning(
            "element-sliver", text, where, "They slow the solution down and spoil stresses."
        )


def check_nodes(inputs: Inputs) -> Iterator[Finding]:
    """Coordinates that are no numbers, and nodes without an element."""
    mesh = inputs.mesh
    if mesh is None or inputs.tables is None:
        return
    undefined = np.flatnonzero(mesh.used & ~np.isfinite(mesh.nodes).all(axis=1)) + 1
    if len(undefined):
        text = f"{nodes_listed(inputs, undefined)} have no finite coordinates."
        yield error("node-not-finite", text, file_names.NODES)
    in_mesh = mesh.used.copy()
    for table in (inputs.tables.tet4, inputs.tables.hex8, inputs.tables.tet10):
        inside = table[(table >= 1) & (table <= len(in_mesh))]
        in_mesh[inside - 1] = True
    bare = np.flatnonzero(~in_mesh) + 1
    if len(bare):
        text = f"{nodes_listed(inputs, bare)} belong to no element and are ignored."
        yield warning(
            "node-unused", text, file_names.NODES, "Left over from geometry or another part?"
        )
    left_out = np.flatnonzero(in_mesh & ~mesh.used) + 1
    if len(left_out):
        text = f"{nodes_listed(inputs, left_out)} belong to elements that are left out only."
        yield note("node-inactive", text, file_names.NODES)


def check_levels(inputs: Inputs) -> Iterator[Finding]:
    """The level field: indices into it, values, and design points that nothing touches."""
    if inputs.tp is None or inputs.tp_index is None:
        return
    tp, index = inputs.tp, inputs.tp_index
    outside = np.flatnonzero(index > len(tp)) + 1
    if len(outside):
        text = f"{nodes_listed(inputs, outside)} name a design point above {len(tp)}."
        yield error("level-index", text, file_names.TP_INDEX)
    if not np.isfinite(tp).all():
        text = (
            f"{listed(np.flatnonzero(~np.isfinite(tp)) + 1, 'design point')} have no finite level."
        )
        yield error("level-not-finite", text, file_names.TP)
    elif len(tp) and not tp.any():
        text = "All levels are zero: every element is half material."
        yield warning(
            "level-zero", text, file_names.TP, "Material lies where the level is positive."
        )
    elif len(tp) and (tp <= 0).all() and (index > 0).all():
        text = "No level is positive: there is no material."
        yield warning(
            "level-empty", text, file_names.TP, "Material lies where the level is positive."
        )
    if inputs.mesh is None:
        return
    used = index[: len(inputs.mesh.used)][inputs.mesh.used[: len(index)]]
    touched = np.zeros(len(tp), np.bool_)
    touched[used[(used > 0) & (used <= len(tp))] - 1] = True
    if not touched.all():
        text = (
            f"{counted(int((~touched).sum()), 'design point')} of {len(tp)} belong to no used node."
        )
        hint = "Their criterion is the smallest of the others."
        yield note("level-untouched", text, file_names.TP_INDEX, hint)


def node_levels(inputs: Inputs) -> Array | None:
    """Level of each node by its sign and relative size; 1 where it has no design point."""
    if inputs.tp is None or inputs.tp_index is None:
        return None
    levels = np.ones(len(inputs.tp_index))
    has = (inputs.tp_index > 0) & (inputs.tp_index <= len(inputs.tp))
    levels[has] = inputs.tp[inputs.tp_index[has] - 1]
    return levels
