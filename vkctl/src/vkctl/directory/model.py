"""Model and load cases in memory, and the working directory they are written to and read from.

Numbers of nodes, elements, materials, load cases, connectivity rows and design points are
1-based here as in the files; the position in an array is the number minus one.

Units are the user's own, as long as they are consistent (for example N, mm and MPa).
"""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from . import formats
from .formats import HEX8, TET4, TET10, Array, PathLike, RawStructure
from .structure import build_structure

_NO_TRIPLE = (0.0, 0.0, 0.0)


@dataclass
class Material:
    """One material. The classmethods set the flags of its kind; other fields keep defaults.

    `limit_stress` scales the response criteria; `yield_stress` and `hardening_ratio` (slope above
    yield relative to the elastic slope) belong to yielding materials. The triples are those of
    orthotropic materials: moduli E1, E2, E3, Poisson ratios Nu12, Nu13, Nu23, shear moduli G12,
    G13, G23, expansion coefficients in x, y, z. `initial_strain` is isotropic for every kind.
    """

    name: str = ""
    flags: int = 0
    e: float = 0.0
    nu: float = 0.0
    ref_value: float = 0.0
    yield_stress: float = 0.0
    hardening_ratio: float = 0.001
    expansion: float = 0.0
    initial_strain: float = 0.0
    limit_stress: float = 1.0
    moduli: tuple[float, float, float] = _NO_TRIPLE
    poisson: tuple[float, float, float] = _NO_TRIPLE
    shear: tuple[float, float, float] = _NO_TRIPLE
    expansions: tuple[float, float, float] = _NO_TRIPLE

    @classmethod
    def isotropic(
        cls,
        e: float,
        nu: float,
        *,
        name: str = "",
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Linear elastic material of Young's modulus `e` and Poisson's ratio `nu`."""
        return cls(
            name=name,
            flags=formats.MATERIAL_ISOTROPIC,
            e=e,
            nu=nu,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def yielding(
        cls,
        e: float,
        nu: float,
        yield_stress: float,
        *,
        name: str = "",
        hardening_ratio: float = 0.001,
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Isotropic material whose elements soften from run to run above `yield_stress`."""
        return cls(
            name=name,
            flags=formats.MATERIAL_YIELDING,
            e=e,
            nu=nu,
            yield_stress=yield_stress,
            hardening_ratio=hardening_ratio,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def compression_only(
        cls,
        e: float,
        nu: float,
        *,
        name: str = "",
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Isotropic material that carries compression only, such as a contact layer."""
        return cls(
            name=name,
            flags=formats.MATERIAL_COMPRESSION_ONLY,
            e=e,
            nu=nu,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def orthotropic(
        cls,
        moduli: tuple[float, float, float],
        poisson: tuple[float, float, float],
        shear: tuple[float, float, float],
        *,
        name: str = "",
        expansions: tuple[float, float, float] = _NO_TRIPLE,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Material whose principal axes are x, y, z."""
        return cls(
            name=name,
            flags=formats.MATERIAL_ORTHOTROPIC,
            moduli=moduli,
            poisson=poisson,
            shear=shear,
            expansions=expansions,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @property
    def has_state(self) -> bool:
        """Whether the element state of this material changes from run to run."""
        return bool(self.flags & (formats.MATERIAL_YIELDING | formats.MATERIAL_COMPRESSION_ONLY))


# Attribute of Material and field of the MATERIAL record.
_MATERIAL_FIELDS = (
    ("flags", "MaterialFlags"),
    ("e", "E"),
    ("nu", "Nu"),
    ("ref_value", "RefValue"),
    ("yield_stress", "YieldStress"),
    ("hardening_ratio", "HardeningRatio"),
    ("expansion", "Expansion"),
    ("initial_strain", "InitialStrain"),
    ("limit_stress", "LimitStress"),
    ("moduli", "Moduli"),
    ("poisson", "Poisson"),
    ("shear", "Shear"),
    ("expansions", "Expansions"),
)


def materials_to_records(materials: Sequence[Material]) -> Array:
    """MATERIAL records of `materials`; a name is cut to 32 bytes."""
    records = formats.default_materials(len(materials))
    for record, material in zip(records, materials, strict=True):
        record["Name"] = material.name.encode("latin-1", "replace")[:32].ljust(32)
        for attribute, name in _MATERIAL_FIELDS:
            record[name] = getattr(material, attribute)
    return records


def materials_from_records(records: Array) -> list[Material]:
    """Materials of MATERIAL records."""
    materials = []
    for record in records:
        plain: dict[str, Any] = {}
        for attribute, field_name in _MATERIAL_FIELDS:
            value = record[field_name]
            plain[attribute] = tuple(value.tolist()) if value.ndim else value.item()
        name = bytes(record["Name"]).decode("latin-1").rstrip(" \0")
        materials.append(Material(name=name, **plain))
    return materials


def _rows(width: int) -> Array:
    return np.empty((0, width), np.int32)


@dataclass
class Elements:
    """Elements in file order: what each is, and where its nodes stand.

    `type_codes`, `materials` and `conn_index` have one value per element; `conn_index` is the
    1-based row in the table of the element's type: `tet4` (k, 4), `hex8` (k, 8), `tet10` (k, 10),
    tables of 1-based node numbers.
    """

    type_codes: Array
    materials: Array
    conn_index: Array
    tet4: Array = field(default_factory=lambda: _rows(4))
    hex8: Array = field(default_factory=lambda: _rows(8))
    tet10: Array = field(default_factory=lambda: _rows(10))

    @classmethod
    def from_tables(
        cls,
        tet4: npt.ArrayLike | None = None,
        hex8: npt.ArrayLike | None = None,
        tet10: npt.ArrayLike | None = None,
        materials: npt.ArrayLike = 1,
    ) -> Elements:
        """Elements of whole tables: first all of `tet4`, then `hex8`, then `tet10`.

        `materials` is one material number for all or one per element.
        """
        tables = [
            _rows(width) if table is None else np.asarray(table, np.int32).reshape(-1, width)
            for table, width in ((tet4, 4), (hex8, 8), (tet10, 10))
        ]
        counts = [len(table) for table in tables]
        numbers = [np.arange(1, count + 1, dtype=np.int32) for count in counts]
        return cls(
            np.repeat(np.array((TET4, HEX8, TET10), np.int16), counts),
            np.broadcast_to(np.asarray(materials, np.int16), sum(counts)).copy(),
            np.concatenate(numbers),
            *tables,
        )

    def __len__(self) -> int:
        return len(self.type_codes)

    def table(self, code: int) -> Array:
        """Connectivity table of a type code."""
        return {TET4: self.tet4, HEX8: self.hex8, TET10: self.tet10}[code]

    def of_type(self, code: int) -> tuple[Array, Array]:
        """(element numbers, connectivity rows) of the elements of a type, in element order.

        IndexError where `conn_index` points outside its table.
        """
        numbers = np.flatnonzero(self.type_codes == code) + 1
        rows = self.conn_index[numbers - 1] - 1
        if np.any(rows < 0):
            raise IndexError(f"connectivity row below 1 in an element of type {code}")
        return numbers, self.table(code)[rows]

    def used_tables(self) -> list[Array]:
        """Connectivity rows of each type that occurs, as `build_structure` takes them."""
        return [self.of_type(code)[1] for code in (TET4, HEX8, TET10)]


def dof_mask(directions: str | int) -> int:
    """Bit mask of directions given as letters: "xz" is 5."""
    if isinstance(directions, int):
        return directions
    if set(directions) - set("xyz"):
        raise ValueError(f"directions are letters of 'xyz', not {directions!r}")
    return sum(1 << "xyz".index(letter) for letter in set(directions))


def _records(dtype: np.dtype, nodes: npt.ArrayLike) -> Array:
    numbers = np.atleast_1d(np.asarray(nodes, np.int32))
    records = np.zeros(len(numbers), dtype)
    records["Node"] = numbers
    return records


def prescribed(
    nodes: npt.ArrayLike, directions: str | int = "xyz", values: npt.ArrayLike = 0.0
) -> Array:
    """CONSTRAINT records that prescribe displacements: `values` broadcasts to (nodes, 3)."""
    records = _records(formats.CONSTRAINT, nodes)
    records["DofMask"] = dof_mask(directions)
    records["Value"] = np.broadcast_to(values, records["Value"].shape)
    records["Axis"] = np.eye(3)
    return records


def elastic(
    nodes: npt.ArrayLike,
    axes: npt.ArrayLike | None = None,
    offsets: npt.ArrayLike = 0.0,
    directions: str | int = "xyz",
) -> Array:
    """CONSTRAINT records of elastic supports with the stiffness "Sta.SupportStiffness".

    Row k of `axes`, (3, 3) or (nodes, 3, 3), is the direction vector of direction k (x, y, z if
    not given); its squared length multiplies the stiffness. `offsets`, broadcast to (nodes, 3),
    is where the spring along each axis is at rest. `directions` tells which axes act.
    """
    records = _records(formats.CONSTRAINT, nodes)
    records["Kind"] = formats.CONSTRAINT_PENALTY
    records["DofMask"] = dof_mask(directions)
    records["Value"] = np.broadcast_to(offsets, records["Value"].shape)
    records["Axis"] = np.eye(3) if axes is None else axes
    return records


def forces(nodes: npt.ArrayLike, vectors: npt.ArrayLike) -> Array:
    """FORCE records, a node named more than once merged into one record with the sum.

    `vectors` broadcasts to (nodes, 3). The solver pushes a force list in parallel without
    protection, so a list must not name a node twice.
    """
    given = np.atleast_1d(np.asarray(nodes, np.int64))
    values = np.broadcast_to(np.asarray(vectors, np.float64), (len(given), 3))
    numbers, place = np.unique(given, return_inverse=True)
    records = _records(formats.FORCE, numbers)
    for k in range(3):
        records["Force"][:, k] = np.bincount(place, values[:, k], len(numbers))
    return records


def scalars(nodes: npt.ArrayLike, values: npt.ArrayLike) -> Array:
    """SCALAR records: nodal temperatures, `values` broadcast to the nodes."""
    records = _records(formats.SCALAR, nodes)
    records["Value"] = values
    return records


def _empty(dtype: np.dtype) -> Array:
    return np.empty(0, dtype)


@dataclass
class LoadCase:
    """One static analysis. Its number is its place in the model's list, counted from 1.

    Load cases of one `pattern` share numbering, matrix and factor: they must have the same
    supports. Pattern numbers start at 1; a first load case of pattern 0 can't run. Where two
    prescribing records meet in one direction of a node the later one wins.
    """

    pattern: int = 1
    kind: int = formats.LOADCASE_STATIC
    flags: int = formats.LOADCASE_REQUESTED
    value: float = 0.0  # kept in mxs.lcflags, unused by the solver
    constraints: Array = field(default_factory=lambda: _empty(formats.CONSTRAINT))
    forces2: Array = field(default_factory=lambda: _empty(formats.FORCE))
    forces3: Array = field(default_factory=lambda: _empty(formats.FORCE))
    scalars: Array = field(default_factory=lambda: _empty(formats.SCALAR))
    reserved: bytes = b""  # other programs' part of the record, 1028 bytes at most

    @property
    def requested(self) -> bool:
        return bool(self.flags & formats.LOADCASE_REQUESTED)

    @property
    def done(self) -> bool:
        return bool(self.flags & formats.LOADCASE_DONE)

    @property
    def excluded(self) -> bool:
        return bool(self.flags & formats.LOADCASE_EXCLUDED)

    @property
    def will_run(self) -> bool:
        """Whether the next run of the solver works on this load case."""
        static = self.kind == formats.LOADCASE_STATIC
        return static and self.requested and not (self.done or self.excluded)

    def prescribe(
        self, nodes: npt.ArrayLike, directions: str | int = "xyz", values: npt.ArrayLike = 0.0
    ) -> LoadCase:
        """Append `prescribed` records; returns the load case, so that calls can be chained."""
        self.constraints = np.concatenate((self.constraints, prescribed(nodes, directions, values)))
        return self

    def support(
        self,
        nodes: npt.ArrayLike,
        axes: npt.ArrayLike | None = None,
        offsets: npt.ArrayLike = 0.0,
        directions: str | int = "xyz",
    ) -> LoadCase:
        """Append `elastic` records."""
        self.constraints = np.concatenate(
            (self.constraints, elastic(nodes, axes, offsets, directions))
        )
        return self

    def load(self, nodes: npt.ArrayLike, vectors: npt.ArrayLike, section: int = 2) -> LoadCase:
        """Add nodal forces to the list of `section`, 2 or 3, keeping one record per node."""
        name = {2: "forces2", 3: "forces3"}[section]
        old = getattr(self, name)
        new = forces(nodes, vectors)
        both = forces(
            np.concatenate((old["Node"], new["Node"])),
            np.concatenate((old["Force"], new["Force"])),
        )
        setattr(self, name, both)
        return self

    def heat(self, nodes: npt.ArrayLike, values: npt.ArrayLike) -> LoadCase:
        """Append nodal temperatures; of a node named twice the later value counts."""
        self.scalars = np.concatenate((self.scalars, scalars(nodes, values)))
        return self


@dataclass
class Model:
    """Everything a working directory holds before a run.

    Node flags, element flags and `node_tp_index` are zeros where not given: no design points,
    level 1.0 everywhere. `run_order` lists load-case numbers in the order to run them, one after
    the other where not given. `options` holds values by key of the options file.
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

    State and result files that are there stay: they are the start of the next run.
    """
    Path(directory).mkdir(parents=True, exist_ok=True)
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
    write_load_cases(model.load_cases, directory, model.run_order)


def write_load_cases(
    load_cases: Sequence[LoadCase], directory: PathLike, run_order: npt.ArrayLike | None = None
) -> None:
    """Write the load-case tables and one map per load case."""
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

    The counts of the tables must agree; what doesn't raises `formats.FormatError`.
    """
    nodes = formats.read_nodes(directory)
    tables = formats.read_elements(directory)
    per_node = formats.read_node_flags(directory), formats.read_tp_index(directory)
    element_flags = formats.read_element_flags(directory)
    for name, array, count in (
        ("mxs.nodeflags", per_node[0], len(nodes)),
        ("mxs.tpadr", per_node[1], len(nodes)),
        ("mxs.elemflags", element_flags, len(tables.records)),
    ):
        if len(array) != count:
            raise formats.FormatError(Path(directory, name), f"{len(array)} values, not {count}")
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
    )


def read_load_cases(directory: PathLike) -> tuple[list[LoadCase], Array]:
    """The load cases of a working directory and their run order."""
    records = formats.read_loadcases(directory)
    flags, values = formats.read_loadcase_flags(directory)
    if len(flags) != len(records):
        path = Path(directory, "mxs.lcflags")
        raise formats.FormatError(path, f"{len(flags)} load cases, mxs.lcdata has {len(records)}")
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
    """Change `mxs.lcflags`: words by load-case number, or done bits cleared for another run."""
    words, values = formats.read_loadcase_flags(directory)
    for number, word in (flags or {}).items():
        words[number - 1] = word
    if clear_done:
        words &= ~np.int32(formats.LOADCASE_DONE)
    formats.write_loadcase_flags(directory, words, values)
