"""The files of the model: materials, nodes, elements, flags, design points."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike

from . import file_names
from .records import ELEMENT, MATERIAL
from .streams import Reader, int32_bytes, read_counted, write_counted, write_parts


def read_materials(directory: PathLike) -> Array:
    """`mx.mats`: MATERIAL records."""
    with Reader(Path(directory, file_names.MATERIALS)) as r:
        r.int32("header")
        return r.array(MATERIAL, r.int32("NumMaterials"), "material records")


def write_materials(directory: PathLike, records: Array, header: int = 0) -> None:
    """`mx.mats` from MATERIAL records; `header` is a word that no reader uses."""
    rows = np.asarray(records, MATERIAL).copy()
    rows["Name"] = [name.ljust(32) for name in rows["Name"]]
    write_parts(Path(directory, file_names.MATERIALS), [int32_bytes(header, len(rows)), rows])


def read_nodes(directory: PathLike) -> Array:
    """`mx.nodes`: coordinates, float32 (n, 3)."""
    with Reader(Path(directory, file_names.NODES)) as r:
        r.int32("header")
        count = max(r.int32("NumNodes"), 0)
        return r.array("<f4", 3 * count, "coordinates").reshape(-1, 3)


def write_nodes(directory: PathLike, nodes: npt.ArrayLike, header: int = 0) -> None:
    """`mx.nodes` from coordinates (n, 3)."""
    xyz = np.asarray(nodes, "<f4").reshape(-1, 3)
    write_parts(Path(directory, file_names.NODES), [int32_bytes(header, len(xyz)), xyz])


@dataclass
class ElementTables:
    """`mx.elems`: ELEMENT records and the connectivity tables (node numbers) they point into."""

    records: Array  # ELEMENT (m,)
    tet4: Array  # int32 (k, 4)
    hex8: Array  # int32 (k, 8)
    tet10: Array  # int32 (k, 10)


def read_elements(directory: PathLike) -> ElementTables:
    """`mx.elems`."""
    with Reader(Path(directory, file_names.ELEMENTS)) as r:
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
    parts: list[bytes | Array] = [int32_bytes(header, len(records)), records]
    for table, width in ((tables.tet4, 4), (tables.hex8, 8), (tables.tet10, 10)):
        rows = np.asarray(table, "<i4").reshape(-1, width)
        parts += [int32_bytes(len(rows)), rows]
    write_parts(Path(directory, file_names.ELEMENTS), parts)


def read_node_flags(directory: PathLike) -> Array:
    """`mxs.nodeflags`: int16 per node."""
    return read_counted(Path(directory, file_names.NODE_FLAGS), "<i2", "node flags")


def write_node_flags(directory: PathLike, flags: npt.ArrayLike) -> None:
    """`mxs.nodeflags` from one int16 per node."""
    write_counted(Path(directory, file_names.NODE_FLAGS), "<i2", flags)


def read_tp_index(directory: PathLike) -> Array:
    """`mxs.tpadr`: int32 per node, design point of the node, zero or below for none."""
    return read_counted(Path(directory, file_names.TP_INDEX), "<i4", "design-point indices")


def write_tp_index(directory: PathLike, index: npt.ArrayLike) -> None:
    """`mxs.tpadr` from one int32 per node."""
    write_counted(Path(directory, file_names.TP_INDEX), "<i4", index)


def read_element_flags(directory: PathLike) -> Array:
    """`mxs.elemflags`: int16 per element."""
    return read_counted(Path(directory, file_names.ELEMENT_FLAGS), "<i2", "element flags")


def write_element_flags(directory: PathLike, flags: npt.ArrayLike) -> None:
    """`mxs.elemflags` from one int16 per element."""
    write_counted(Path(directory, file_names.ELEMENT_FLAGS), "<i2", flags)


def read_tp(directory: PathLike) -> Array:
    """`mxs.tp`: level value of each design point, float32; scaled by the solver on loading."""
    return read_counted(Path(directory, file_names.TP), "<f4", "level values")


def write_tp(directory: PathLike, values: npt.ArrayLike) -> None:
    """`mxs.tp` from one float32 per design point."""
    write_counted(Path(directory, file_names.TP), "<f4", values)
