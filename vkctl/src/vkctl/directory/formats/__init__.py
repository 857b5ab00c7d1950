"""The files of a working directory, one reader and one writer each.

All files are little-endian streams without record marks, counts ahead of their arrays. Records
come and go as numpy structured arrays whose dtypes mirror the bytes on disk. Index values are
1-based. A count of zero or below stands for an empty array.

Readers raise `FormatError` (`ShortFileError` where bytes are missing) and compare the file's
size with its counts before anything is allocated. Writers replace the file as a whole: at no
moment does a reader see half of it.
"""

from __future__ import annotations

import os
import re
import struct
from collections.abc import Iterable, Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Any

import numpy as np
import numpy.typing as npt

PathLike = str | os.PathLike[str]
Array = npt.NDArray[Any]  # dtype and shape are told at each use

# Element type codes.
TET4 = 40
TET10 = 41
HEX8 = 60
NODES_PER_TYPE = {TET4: 4, TET10: 10, HEX8: 8}

# MaterialFlags.
MATERIAL_ISOTROPIC = 1 << 8
MATERIAL_YIELDING = 1 << 9
MATERIAL_COMPRESSION_ONLY = 1 << 10
MATERIAL_ORTHOTROPIC = 1 << 11

# NodeFlags: nodal loads skipped, diagonal entries perturbed.
NODE_NO_LOADS = 1 << 11

# ElementFlags: the level field is ignored; the element is left out (two bits, same effect).
ELEMENT_NO_LEVEL = 1 << 1
ELEMENT_EXCLUDED = 1 << 2
ELEMENT_EXCLUDED_ALSO = 1 << 8

# LoadCaseFlags.
LOADCASE_REQUESTED = 1 << 0
LOADCASE_DONE = 1 << 1
LOADCASE_EXCLUDED = 1 << 2

LOADCASE_STATIC = 1  # the one LoadCaseRecord Kind that runs
LOADCASE_FORMAT = 128  # format number of mxs.lcdata

CONSTRAINT_PENALTY = 1 << 0  # NodalConstraintRecord Kind: elastic support

OPTIONS_FILE = "vk_rund_cmd.txt"
LOG_FILE = "vk_rund_log.txt"


def _record(size: int, *fields: tuple[str, Any, int]) -> np.dtype[Any]:
    """Dtype of `size` bytes from (name, format, offset) triples."""
    return np.dtype(
        {
            "names": [f[0] for f in fields],
            "formats": [f[1] for f in fields],
            "offsets": [f[2] for f in fields],
            "itemsize": size,
        }
    )


MATERIAL = _record(
    192,
    ("Name", "S32", 0),
    ("MaterialFlags", "<u4", 32),
    ("E", "<f4", 36),
    ("Nu", "<f4", 40),
    ("RefValue", "<f4", 44),
    ("YieldStress", "<f4", 48),
    ("HardeningRatio", "<f4", 52),
    ("Expansion", "<f4", 56),
    ("InitialStrain", "<f4", 60),
    ("LimitStress", "<f4", 64),
    ("Reserved1", "V4", 68),
    ("Moduli", ("<f4", 3), 72),  # E1, E2, E3
    ("Poisson", ("<f4", 3), 84),  # Nu12, Nu13, Nu23
    ("Shear", ("<f4", 3), 96),  # G12, G13, G23
    ("Expansions", ("<f4", 3), 108),
    ("Reserved2", "V24", 120),
    ("Reserved3", ("<f4", (3, 4)), 144),
)
NODE = np.dtype([("X", "<f4"), ("Y", "<f4"), ("Z", "<f4")])
ELEMENT = np.dtype([("MaterialIndex", "<i2"), ("TypeCode", "<i2"), ("ConnIndex", "<i4")])
LOADCASE = _record(
    1040,
    ("Kind", "<i4", 0),
    ("PatternIndex", "<i4", 4),
    ("RunOrder", "<i4", 8),
    ("Reserved", "V1028", 12),
)
CONSTRAINT = np.dtype(
    [
        ("Kind", "<i2"),
        ("DofMask", "<u2"),
        ("Node", "<i4"),
        ("Value", "<f4", (3,)),
        ("Axis", "<f4", (3, 3)),  # row k: direction vector of direction k, penalty rows only
    ]
)
FORCE = np.dtype([("Node", "<i4"), ("Force", "<f4", (3,))])
SCALAR = np.dtype([("Node", "<i4"), ("Value", "<f4")])


def default_materials(count: int) -> Array:
    """`count` MATERIAL records holding the defaults of the layout."""
    records = np.zeros(count, MATERIAL)
    records["Name"] = b" " * 32
    records["HardeningRatio"] = 0.001
    records["LimitStress"] = 1.0
    records["Reserved3"][:, :, 3] = 1.0
    return records


class FormatError(Exception):
    """A file of the working directory can't be understood."""

    def __init__(self, path: PathLike, reason: str) -> None:
        super().__init__(f"{os.fspath(path)}: {reason}")
        self.path = Path(path)
        self.reason = reason


class ShortFileError(FormatError):
    """A file ends before the bytes that its counts announce."""


@contextmanager
def replacing(path: PathLike) -> Iterator[IO[bytes]]:
    """Binary file that takes the name `path` on leaving the block, and vanishes on an error."""
    target = Path(path)
    beside = target.with_name(f".{target.name}.{os.getpid()}.tmp")
    try:
        with open(beside, "wb") as stream:
            yield stream
        os.replace(beside, target)
    except BaseException:
        beside.unlink(missing_ok=True)
        raise


class _Reader:
    """Reads items in file order and refuses to ask for more bytes than the file has left."""

    def __init__(self, path: PathLike) -> None:
        self.path = Path(path)
        self.stream = open(self.path, "rb")
        self.left = os.fstat(self.stream.fileno()).st_size

    def __enter__(self) -> _Reader:
        return self

    def __exit__(self, *_: object) -> None:
        self.stream.close()

    def _take(self, size: int, what: str) -> None:
        if size > self.left:
            raise ShortFileError(self.path, f"{what} needs {size} bytes, {self.left} are left")
        self.left -= size

    def int32(self, what: str) -> int:
        self._take(4, what)
        return int(struct.unpack("<i", self.stream.read(4))[0])

    def int64(self, what: str) -> int:
        self._take(8, what)
        return int(struct.unpack("<q", self.stream.read(8))[0])

    def array(self, dtype: npt.DTypeLike, count: int, what: str) -> Array:
        kind = np.dtype(dtype)
        count = max(count, 0)
        self._take(count * kind.itemsize, what)
        return np.fromfile(self.stream, kind, count)


def _int32(*values: int) -> bytes:
    return struct.pack(f"<{len(values)}i", *values)


def _write(path: PathLike, parts: Iterable[bytes | Array]) -> None:
    with replacing(path) as stream:
        for part in parts:
            if isinstance(part, bytes):
                stream.write(part)
            else:
                np.ascontiguousarray(part).tofile(stream)


def _read_counted(path: PathLike, dtype: npt.DTypeLike, what: str) -> Array:
    with _Reader(path) as r:
        return r.array(dtype, r.int32("count"), what)


def _write_counted(path: PathLike, dtype: npt.DTypeLike, values: npt.ArrayLike) -> None:
    array = np.asarray(values, dtype)
    _write(path, [_int32(len(array)), array])


def numbered(stem: str, number: int) -> str:
    """File name of a load case: the stem, a point, four digits (asterisks above 9999)."""
    return f"{stem}." + (f"{number:04d}" if 0 <= number <= 9999 else "****")


# --- model -----------------------------------------------------------------------------------


def read_materials(directory: PathLike) -> Array:
    """`mx.mats`: MATERIAL records."""
    with _Reader(Path(directory, "mx.mats")) as r:
        r.int32("header")
        return r.array(MATERIAL, r.int32("NumMaterials"), "material records")


def write_materials(directory: PathLike, records: Array, header: int = 0) -> None:
    """`mx.mats` from MATERIAL records; `header` is a word that no reader uses."""
    rows = np.asarray(records, MATERIAL).copy()
    rows["Name"] = [name.ljust(32) for name in rows["Name"]]
    _write(Path(directory, "mx.mats"), [_int32(header, len(rows)), rows])


def read_nodes(directory: PathLike) -> Array:
    """`mx.nodes`: coordinates, float32 (n, 3)."""
    with _Reader(Path(directory, "mx.nodes")) as r:
        r.int32("header")
        count = max(r.int32("NumNodes"), 0)
        return r.array("<f4", 3 * count, "coordinates").reshape(-1, 3)


def write_nodes(directory: PathLike, nodes: npt.ArrayLike, header: int = 0) -> None:
    """`mx.nodes` from coordinates (n, 3)."""
    xyz = np.asarray(nodes, "<f4").reshape(-1, 3)
    _write(Path(directory, "mx.nodes"), [_int32(header, len(xyz)), xyz])


@dataclass
class ElementTables:
    """`mx.elems`: ELEMENT records and the connectivity tables (node numbers) they point into."""

    records: Array  # ELEMENT (m,)
    tet4: Array  # int32 (k, 4)
    hex8: Array  # int32 (k, 8)
    tet10: Array  # int32 (k, 10)


def read_elements(directory: PathLike) -> ElementTables:
    """`mx.elems`."""
    with _Reader(Path(directory, "mx.elems")) as r:
        r.int32("header")
        records = r.array(ELEMENT, r.int32("NumElements"), "element records")
        tables = [
            r.array("<i4", width * max(r.int32(name), 0), f"{name} rows").reshape(-1, width)
            for name, width in (("NumConn40", 4), ("NumConn60", 8), ("NumConn41", 10))
        ]
    return ElementTables(records, *tables)


def write_elements(directory: PathLike, tables: ElementTables, header: int = 0) -> None:
    """`mx.elems`; the tables go in the order 4-node, 8-node, 10-node."""
    records = np.asarray(tables.records, ELEMENT)
    parts: list[bytes | Array] = [_int32(header, len(records)), records]
    for table, width in ((tables.tet4, 4), (tables.hex8, 8), (tables.tet10, 10)):
        rows = np.asarray(table, "<i4").reshape(-1, width)
        parts += [_int32(len(rows)), rows]
    _write(Path(directory, "mx.elems"), parts)


def read_node_flags(directory: PathLike) -> Array:
    """`mxs.nodeflags`: int16 per node."""
    return _read_counted(Path(directory, "mxs.nodeflags"), "<i2", "node flags")


def write_node_flags(directory: PathLike, flags: npt.ArrayLike) -> None:
    """`mxs.nodeflags` from one int16 per node."""
    _write_counted(Path(directory, "mxs.nodeflags"), "<i2", flags)


def read_tp_index(directory: PathLike) -> Array:
    """`mxs.tpadr`: int32 per node, design point of the node, zero or below for none."""
    return _read_counted(Path(directory, "mxs.tpadr"), "<i4", "design-point indices")


def write_tp_index(directory: PathLike, index: npt.ArrayLike) -> None:
    """`mxs.tpadr` from one int32 per node."""
    _write_counted(Path(directory, "mxs.tpadr"), "<i4", index)


def read_element_flags(directory: PathLike) -> Array:
    """`mxs.elemflags`: int16 per element."""
    return _read_counted(Path(directory, "mxs.elemflags"), "<i2", "element flags")


def write_element_flags(directory: PathLike, flags: npt.ArrayLike) -> None:
    """`mxs.elemflags` from one int16 per element."""
    _write_counted(Path(directory, "mxs.elemflags"), "<i2", flags)


def read_tp(directory: PathLike) -> Array:
    """`mxs.tp`: level value of each design point, float32; scaled by the solver on loading."""
    return _read_counted(Path(directory, "mxs.tp"), "<f4", "level values")


def write_tp(directory: PathLike, values: npt.ArrayLike) -> None:
    """`mxs.tp` from one float32 per design point."""
    _write_counted(Path(directory, "mxs.tp"), "<f4", values)


# --- load cases ------------------------------------------------------------------------------


def read_loadcases(directory: PathLike) -> Array:
    """`mxs.lcdata`: LOADCASE records; another format number than 128 is an error."""
    path = Path(directory, "mxs.lcdata")
    with _Reader(path) as r:
        count, number = r.int32("NumLoadCases"), r.int32("format number")
        if number != LOADCASE_FORMAT:
            raise FormatError(path, f"format number {number}, expected {LOADCASE_FORMAT}")
        return r.array(LOADCASE, count, "load-case records")


def write_loadcases(directory: PathLike, records: Array) -> None:
    """`mxs.lcdata` from LOADCASE records."""
    rows = np.asarray(records, LOADCASE)
    _write(Path(directory, "mxs.lcdata"), [_int32(len(rows), LOADCASE_FORMAT), rows])


def read_loadcase_flags(directory: PathLike) -> tuple[Array, Array]:
    """`mxs.lcflags`: int32 flags and float32 values, one each per load case."""
    with _Reader(Path(directory, "mxs.lcflags")) as r:
        count = r.int32("NumLoadCases")
        flags = r.array("<i4", count, "load-case flags")
        return flags, r.array("<f4", count, "load-case values")


def write_loadcase_flags(
    directory: PathLike, flags: npt.ArrayLike, values: npt.ArrayLike | None = None
) -> None:
    """`mxs.lcflags`; `values` (zeros if not given) must be as many as `flags`."""
    words = np.asarray(flags, "<i4")
    reals = np.zeros(len(words), "<f4") if values is None else np.asarray(values, "<f4")
    if len(reals) != len(words):
        raise ValueError(f"{len(words)} load-case flags but {len(reals)} values")
    _write(Path(directory, "mxs.lcflags"), [_int32(len(words)), words, reals])


@dataclass
class LoadCaseMap:
    """The four sections of `mxs.lcmap.NNNN`."""

    constraints: Array  # CONSTRAINT
    forces2: Array  # FORCE
    forces3: Array  # FORCE
    scalars: Array  # SCALAR


def read_loadcase_map(directory: PathLike, number: int) -> LoadCaseMap:
    """`mxs.lcmap.NNNN` of load case `number`."""
    with _Reader(Path(directory, numbered("mxs.lcmap", number))) as r:
        return LoadCaseMap(
            *(
                r.array(dtype, r.int32(f"count of {name}"), name)
                for dtype, name in (
                    (CONSTRAINT, "constraints"),
                    (FORCE, "forces of section 2"),
                    (FORCE, "forces of section 3"),
                    (SCALAR, "nodal scalars"),
                )
            )
        )


def write_loadcase_map(directory: PathLike, number: int, sections: LoadCaseMap) -> None:
    """`mxs.lcmap.NNNN` of load case `number`."""
    parts: list[bytes | Array] = []
    for rows, dtype in (
        (sections.constraints, CONSTRAINT),
        (sections.forces2, FORCE),
        (sections.forces3, FORCE),
        (sections.scalars, SCALAR),
    ):
        records = np.asarray(rows, dtype)
        parts += [_int32(len(records)), records]
    _write(Path(directory, numbered("mxs.lcmap", number)), parts)


# --- sparse structure ------------------------------------------------------------------------


@dataclass
class RawStructure:
    """`mxs.sadr`: upper triangle by rows, one row per displacement component.

    Rows run node 1 x, y, z, node 2 x, y, z, ...; `row_start` has one value more than there are
    rows; the first column of a row is the row itself, the others ascend. All values 1-based.
    """

    columns: Array  # int32 (entries,)
    row_start: Array  # int64 (rows + 1,)
    max_bandwidth: int

    @property
    def num_rows(self) -> int:
        return len(self.row_start) - 1


def read_structure(directory: PathLike) -> RawStructure:
    """`mxs.sadr`."""
    with _Reader(Path(directory, "mxs.sadr")) as r:
        rows, bandwidth = r.int32("NumRawRows"), r.int32("MaxBW")
        entries = r.int64("NumRawEntries")
        if rows <= 0:
            return RawStructure(np.empty(0, "<i4"), np.ones(1, "<i8"), bandwidth)
        columns = r.array("<i4", entries, "columns")
        return RawStructure(columns, r.array("<i8", rows + 1, "row starts"), bandwidth)


def write_structure(directory: PathLike, structure: RawStructure) -> None:
    """`mxs.sadr`."""
    columns = np.asarray(structure.columns, "<i4")
    header = struct.pack("<iiq", structure.num_rows, structure.max_bandwidth, len(columns))
    parts: list[bytes | Array] = [header]
    if structure.num_rows > 0:
        parts += [columns, np.asarray(structure.row_start, "<i8")]
    _write(Path(directory, "mxs.sadr"), parts)


# --- run options -----------------------------------------------------------------------------


@dataclass(frozen=True)
class Option:
    """One key of the options file: its type, its default and the limits the solver applies."""

    type: type
    default: float
    low: float | None = None
    high: float | None = None

    def clamp(self, value: float) -> float:
        """The value that the solver takes for a given one."""
        if self.low is not None and value < self.low:
            return self.low
        return self.high if self.high is not None and value > self.high else value


# In the order in which the solver compares a line with the keys.
OPTIONS: dict[str, Option] = {
    "Sys.AvailableMemGB": Option(float, 8.0),
    "Sys.MaxNumCompThreads": Option(int, 0),
    "Sys.ComputationMode": Option(int, 0, 0, 2),
    "Sta.SupportStiffness": Option(float, 1.0, 0.0),
    "Sta.ResponseDumpFac": Option(float, 0.0, 0.0, 0.99),
    "Sta.TopCriteriaCode": Option(int, 0, 0, 1),
    "Sta.BStressExp": Option(int, 4, 1, 24),
    "Sta.YieldStressFac": Option(float, 1.0, 0.0),
    "Sta.MatSlopeFactor": Option(float, 500.0, 10.0, 10000.0),
}

_INTEGER = re.compile(r"[+-]?\d+\Z")
_FLOAT = re.compile(r"([+-]?(?:\d+\.?\d*|\.\d+))(?:[eEdD]([+-]?\d+)|([+-]\d+))?\Z")


def _option_value(text: str, option: Option) -> float | None:
    """Value at the start of `text`; None where a separator leaves the option as it was."""
    text = text.lstrip(" \t")
    token = re.split(r"[ \t,/]", text, maxsplit=1)[0]
    if not token and text:
        return None
    if option.type is int:
        if _INTEGER.match(token):
            return int(token)
    elif match := _FLOAT.match(token):
        return float(f"{match[1]}e{match[2] or match[3] or 0}")
    raise ValueError(text)


@dataclass(frozen=True)
class OptionLine:
    """One line of the options file. `key` is None for comments, blank lines and unknown keys."""

    text: str  # without its line end
    key: str | None
    value: float | None  # None also where a separator leaves the option as it was
    readable: bool  # False: the solver stops here


def parse_option_line(text: str) -> OptionLine:
    """Read a line as the solver does: it counts as a key's line when it begins with the key."""
    line = text[:512].strip(" \r")
    key = next((k for k in OPTIONS if line.startswith(k)), None)
    if key is None:
        return OptionLine(text, None, None, True)
    try:
        value = _option_value(line[line.find("=") + 1 :], OPTIONS[key])
    except ValueError:
        return OptionLine(text, key, None, False)
    return OptionLine(text, key, value, True)


def read_option_lines(directory: PathLike) -> list[OptionLine]:
    """`vk_rund_cmd.txt` line by line."""
    text = Path(directory, OPTIONS_FILE).read_bytes().decode("latin-1")
    return [parse_option_line(line) for line in text.split("\n")]


def read_options(directory: PathLike) -> dict[str, float]:
    """`vk_rund_cmd.txt`: the values given there, by key, before the solver's limits.

    Follows the solver's reader: a line that begins with a key counts, whatever comes between the
    key and the first "="; comments, unknown keys and blank lines are passed over.
    """
    options: dict[str, float] = {}
    for number, line in enumerate(read_option_lines(directory), 1):
        if not line.readable:
            shown = line.text[:512].strip(" \r")
            path = Path(directory, OPTIONS_FILE)
            raise FormatError(path, f"line {number}: no value in {shown!r}")
        if line.key is not None and line.value is not None:
            options[line.key] = line.value
    return options


def _option_text(key: str, value: float) -> str:
    if key not in OPTIONS:
        raise KeyError(f"unknown option {key!r}, known are {', '.join(OPTIONS)}")
    return f"{key}={OPTIONS[key].type(value)!r}"


def update_options(directory: PathLike, changes: Mapping[str, float]) -> None:
    """Set options in `vk_rund_cmd.txt` and leave its other lines alone; made if missing.

    The first line of a key takes the new value, further lines of the key are dropped.
    """
    path = Path(directory, OPTIONS_FILE)
    lines = path.read_bytes().decode("latin-1").split("\n") if path.exists() else [""]
    end = "\r" if lines[0].endswith("\r") else ""
    waiting = {key: _option_text(key, value) + end for key, value in changes.items()}
    kept = []
    for line in lines:
        key = parse_option_line(line).key
        if key not in changes:
            kept.append(line)
        elif key in waiting:
            kept.append(waiting.pop(key))
    last = kept.pop() if kept and not kept[-1].strip("\r") else None
    kept += [*waiting.values(), "" if last is None else last]
    _write(path, ["\n".join(kept).encode("latin-1")])


def write_options(directory: PathLike, options: Mapping[str, float]) -> None:
    """`vk_rund_cmd.txt` from values by key. The solver passes over unknown keys, so they raise."""
    lines = [_option_text(key, value) + "\n" for key, value in options.items()]
    _write(Path(directory, OPTIONS_FILE), ["".join(lines).encode("ascii")])


# --- state and result files ------------------------------------------------------------------


def read_displacements(directory: PathLike, number: int) -> Array:
    """`ws.sstate.NNNN`: nodal displacements, prescribed ones included, float32 (n, 3)."""
    with _Reader(Path(directory, numbered("ws.sstate", number))) as r:
        r.int32("SaveKind")
        return r.array("<f4", r.int32("ValueCount"), "displacements").reshape(-1, 3)


def write_displacements(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.sstate.NNNN`, from which a repeated load case starts."""
    flat = np.asarray(values, "<f4").ravel()
    _write(Path(directory, numbered("ws.sstate", number)), [_int32(1, len(flat)), flat])


def read_element_state(directory: PathLike, number: int) -> Array:
    """`ws.mstate.NNNN`: state factor per element, float32."""
    return _read_counted(Path(directory, numbered("ws.mstate", number)), "<f4", "element states")


def write_element_state(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.mstate.NNNN`."""
    _write_counted(Path(directory, numbered("ws.mstate", number)), "<f4", values)


def read_criterion(directory: PathLike, number: int) -> Array:
    """`ws.tcval.NNNN`: criterion value per design point, float32."""
    return _read_counted(Path(directory, numbered("ws.tcval", number)), "<f4", "criterion values")


def write_criterion(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.tcval.NNNN`, with which a repeated load case may be blended."""
    _write_counted(Path(directory, numbered("ws.tcval", number)), "<f4", values)


def read_stress(directory: PathLike, number: int) -> Array:
    """`ws.amsval.NNNN`: signed stress per node, float32."""
    return _read_counted(Path(directory, numbered("ws.amsval", number)), "<f4", "stress values")


def read_magnitude(directory: PathLike, number: int) -> Array:
    """`ws.disval.NNNN`: displacement magnitude per node, float32."""
    return _read_counted(Path(directory, numbered("ws.disval", number)), "<f4", "magnitudes")


TOTALS = np.dtype(
    [
        ("LoadCase", "<i4"),
        ("Kind", "<i4"),
        ("ARQua", "<f4"),
        ("SEner", "<f4"),
        ("MatVolume", "<f4"),
        ("BStress", "<f4"),
        ("MaxDis", "<f4"),
        ("R", "<f4", (3,)),
    ]
)


def read_totals(directory: PathLike, number: int) -> np.void:
    """`ws.comval.NNNN`: one TOTALS record."""
    with _Reader(Path(directory, numbered("ws.comval", number))) as r:
        record: np.void = r.array(TOTALS, 1, "totals")[0]
        return record


def write_stress(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.amsval.NNNN`."""
    _write_counted(Path(directory, numbered("ws.amsval", number)), "<f4", values)


def write_magnitude(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.disval.NNNN`."""
    _write_counted(Path(directory, numbered("ws.disval", number)), "<f4", values)


def write_totals(directory: PathLike, number: int, totals: np.void) -> None:
    """`ws.comval.NNNN` from one TOTALS record."""
    _write(Path(directory, numbered("ws.comval", number)), [np.asarray(totals, TOTALS).reshape(1)])
