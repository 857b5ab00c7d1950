"""The whole model, written to and read from its working directory."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike
from vkctl.directory.formats import file_names
from vkctl.shapes.elements import Elements

from .. import formats, lock
from ..formats import RawStructure
from ..numbering import tables_by_type
from ..structure import build_structure
from .load_cases import LoadCase
from .materials import Material, materials_from_records, materials_to_records


@dataclass
class Model:
    """Everything a working directory holds before a run.

    Node flags, element flags and `node_tp_index` are zeros where not given: no design points,
    level 1.0 everywhere. `run_order` lists load-case numbers in the order to run them, one after
    the other where not given. `options` holds values by key of the options file. `labels` tells
    what nodes and elements were called before they were numbered, `sets` what belongs together
    under a name, `notes` what the case file called things; the solver reads none of the three.
    """

    nodes: Array  # float64 (n, 3); float32 in the file
    elements: Elements
    materials: list[Material]
    load_cases: list[LoadCase] = field(default_factory=list)
    node_flags: Array | None = None  # int16 (n,)
    element_flags: Array | None = None  # int16 (m,)
    node_tp_index: Array | None = None  # int32 (n,), design point of the node or 0
    tp: Array = field(default_factory=lambda: np.empty(0, np.float32))
    run_order: Array | None = None
    options: dict[str, float] = field(default_factory=dict)
    labels: formats.Labels | None = None
    sets: list[formats.NamedSet] | None = None
    notes: formats.CaseNotes | None = None

    def __post_init__(self) -> None:
        self.nodes = np.asarray(self.nodes, np.float64).reshape(-1, 3)
        self.node_flags = _filled(self.node_flags, len(self.nodes), np.int16)
        self.element_flags = _filled(self.element_flags, len(self.elements), np.int16)
        self.node_tp_index = _filled(self.node_tp_index, len(self.nodes), np.int32)
        self.tp = np.asarray(self.tp, np.float32)

    def set_level(self, values: npt.ArrayLike, nodes: npt.ArrayLike | None = None) -> None:
        """Give `nodes` (all if not given) a design point each, with the level `values`.

        Positive is material, negative is none. The solver scales the list to a mean absolute
        value of 0.5; nodes without a design point have the level 1.0.
        """
        every = np.arange(1, len(self.nodes) + 1)
        numbers = every if nodes is None else np.asarray(nodes)
        self.node_tp_index = np.zeros(len(self.nodes), np.int32)
        self.node_tp_index[numbers - 1] = np.arange(1, len(numbers) + 1)
        self.tp = np.broadcast_to(np.asarray(values, np.float32), len(numbers)).copy()

    def exclude_elements(self, numbers: npt.ArrayLike) -> None:
        """Leave elements out of the model; the sparse structure stays that of the whole mesh."""
        assert self.element_flags is not None
        self.element_flags[np.asarray(numbers) - 1] |= formats.ELEMENT_EXCLUDED

    def structure(self) -> RawStructure:
        """Raw sparse structure of the mesh."""
        return build_structure(len(self.nodes), self.elements.used_tables())


def _filled(values: npt.ArrayLike | None, count: int, dtype: npt.DTypeLike) -> Array:
    if values is None:
        return np.zeros(count, dtype)
    return np.array(np.broadcast_to(np.asarray(values, dtype), count))


def write(model: Model, directory: PathLike, structure: RawStructure | None = None) -> None:
    """Write a complete working directory, made if missing; `structure` saves building it anew.

    State and result files that are there stay: they are the start of the next run. BusyError if
    another process works on the directory.
    """
    Path(directory).mkdir(parents=True, exist_ok=True)
    with lock.holding(directory):
        _write(model, directory, structure)


def _write(model: Model, directory: PathLike, structure: RawStructure | None) -> None:
    elements = model.elements
    records = np.zeros(len(elements), formats.ELEMENT)
    records["MaterialIndex"] = elements.materials
    records["TypeCode"] = elements.type_codes
    records["ConnIndex"] = elements.conn_index
    tables = formats.ElementTables(records, elements.tet4, elements.hex8, elements.tet10)
    formats.write_materials(directory, materials_to_records(model.materials))
    formats.write_nodes(directory, model.nodes)
    formats.write_elements(directory, tables)
    formats.write_node_flags(directory, _filled(model.node_flags, len(model.nodes), "<i2"))
    formats.write_tp_index(directory, _filled(model.node_tp_index, len(model.nodes), "<i4"))
    formats.write_element_flags(directory, _filled(model.element_flags, len(elements), "<i2"))
    formats.write_tp(directory, model.tp)
    formats.write_structure(directory, structure or model.structure())
    formats.write_options(directory, model.options)
    formats.write_labels(directory, model.labels)
    formats.write_sets(directory, model.sets)
    formats.write_case_notes(directory, model.notes)
    write_load_cases(model.load_cases, directory, model.run_order)


def write_load_cases(
    load_cases: Sequence[LoadCase], directory: PathLike, run_order: npt.ArrayLike | None = None
) -> None:
    """Write the load-case tables and one map per load case; BusyError as `write`."""
    with lock.holding(directory):
        _write_load_cases(load_cases, directory, run_order)


def _write_load_cases(
    load_cases: Sequence[LoadCase], directory: PathLike, run_order: npt.ArrayLike | None
) -> None:
    records = np.zeros(len(load_cases), formats.LOADCASE)
    order = np.arange(1, len(load_cases) + 1) if run_order is None else np.asarray(run_order)
    if sorted(order.tolist()) != list(range(1, len(load_cases) + 1)):
        raise ValueError(f"run order {order.tolist()} is not a permutation of the load cases")
    records["RunOrder"] = order
    for number, (record, case) in enumerate(zip(records, load_cases, strict=True), 1):
        record["Kind"] = case.kind
        record["PatternIndex"] = case.pattern
        record["Reserved"] = case.reserved.ljust(1028, b"\0")
        formats.write_loadcase_map(
            directory,
            number,
            formats.LoadCaseMap(case.constraints, case.forces2, case.forces3, case.scalars),
        )
    formats.write_loadcases(directory, records)
    formats.write_loadcase_flags(
        directory, [c.flags for c in load_cases], [c.value for c in load_cases]
    )


def read(directory: PathLike) -> Model:
    """The model of a working directory. Values come back as the float32 of the files.

    The counts of the tables must agree, and elements name only what is there; what doesn't raises
    `formats.FormatError`.
    """
    nodes = formats.read_nodes(directory)
    tables = formats.read_elements(directory)
    per_node = formats.read_node_flags(directory), formats.read_tp_index(directory)
    element_flags = formats.read_element_flags(directory)
    for name, array, count in (
        (file_names.NODE_FLAGS, per_node[0], len(nodes)),
        (file_names.TP_INDEX, per_node[1], len(nodes)),
        (file_names.ELEMENT_FLAGS, element_flags, len(tables.records)),
    ):
        if len(array) != count:
            raise formats.FormatError(Path(directory, name), f"{len(array)} values, not {count}")
    _require_indices(directory, tables, len(nodes))
    labels = _fitting_labels(directory, len(nodes), len(tables.records))
    load_cases, run_order = read_load_cases(directory)
    elements = Elements(
        tables.records["TypeCode"].copy(),
        tables.records["MaterialIndex"].copy(),
        tables.records["ConnIndex"].copy(),
        tables.tet4,
        tables.hex8,
        tables.tet10,
    )
    return Model(
        nodes=nodes,
        elements=elements,
        materials=materials_from_records(formats.read_materials(directory)),
        load_cases=load_cases,
        node_flags=per_node[0],
        element_flags=element_flags,
        node_tp_index=per_node[1],
        tp=formats.read_tp(directory),
        run_order=run_order,
        options=formats.read_options(directory),
        labels=labels,
        sets=fitting_sets(directory, len(nodes), len(tables.records)),
        notes=formats.read_case_notes(directory),
    )


def fitting_sets(directory: PathLike, nodes: int, elements: int) -> list[formats.NamedSet] | None:
    """`vkctl.sets` of so many nodes and elements; FormatError where a set leads outside."""
    sets = formats.read_sets(directory)
    for one in sets or []:
        count = elements if one.kind == "element" else nodes
        highest = max(
            (int(part.max()) for part in (one.numbers, *one.faces) if len(part)), default=0
        )
        if highest > count:
            path = Path(directory, file_names.SETS)
            raise formats.FormatError(path, f"set {one.name!r} names {highest} of {count}")
    return sets


def _fitting_labels(directory: PathLike, nodes: int, elements: int) -> formats.Labels | None:
    labels = formats.read_labels(directory)
    if labels is not None and (len(labels.nodes), len(labels.elements)) != (nodes, elements):
        counts = f"{len(labels.nodes)} nodes and {len(labels.elements)} elements"
        path = Path(directory, file_names.LABELS)
        raise formats.FormatError(path, f"{counts}, not {nodes} and {elements}")
    return labels


def _require_indices(directory: PathLike, tables: formats.ElementTables, count: int) -> None:
    """Elements must name rows and nodes (of `count`) that are there."""
    for code, table in tables_by_type(tables).items():
        rows = tables.records["ConnIndex"][tables.records["TypeCode"] == code]
        inside = (rows >= 1) & (rows <= len(table))
        if not inside.all():
            path = Path(directory, file_names.ELEMENTS)
            raise formats.FormatError(path, f"row {rows[~inside][0]} of {len(table)} is named")
        nodes = table[rows - 1]
        outside = nodes[(nodes < 1) | (nodes > count)]
        if len(outside):
            path = Path(directory, file_names.ELEMENTS)
            raise formats.FormatError(path, f"node {outside[0]} of {count} is named")


def read_load_cases(directory: PathLike) -> tuple[list[LoadCase], Array]:
    """The load cases of a working directory and their run order."""
    records = formats.read_loadcases(directory)
    flags, values = formats.read_loadcase_flags(directory)
    if len(flags) != len(records):
        path = Path(directory, file_names.LOAD_CASE_FLAGS)
        raise formats.FormatError(
            path, f"{len(flags)} load cases, {file_names.LOAD_CASES} has {len(records)}"
        )
    cases = []
    for number, record in enumerate(records, 1):
        sections = formats.read_loadcase_map(directory, number)
        cases.append(
            LoadCase(
                pattern=int(record["PatternIndex"]),
                kind=int(record["Kind"]),
                flags=int(flags[number - 1]),
                value=float(values[number - 1]),
                constraints=sections.constraints,
                forces2=sections.forces2,
                forces3=sections.forces3,
                scalars=sections.scalars,
                reserved=bytes(record["Reserved"]).rstrip(b"\0"),
            )
        )
    return cases, records["RunOrder"].copy()


def set_flags(
    directory: PathLike, flags: Mapping[int, int] | None = None, *, clear_done: bool = False
) -> None:
    """Change `mxs.lcflags`: words by load-case number, or done bits cleared for another run.

    BusyError if another process works on the directory, FormatError for a load case that the
    file doesn't have.
    """
    with lock.holding(directory):
        words, values = formats.read_loadcase_flags(directory)
        for number, word in (flags or {}).items():
            if not 1 <= number <= len(words):
                path = Path(directory, file_names.LOAD_CASE_FLAGS)
                raise formats.FormatError(path, f"there is no load case {number}")
            words[number - 1] = word
        if clear_done:
            words &= ~np.int32(formats.LOADCASE_DONE)
        formats.write_loadcase_flags(directory, words, values)
