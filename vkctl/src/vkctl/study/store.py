"""Meshes that several variants share, each made once and kept in a file."""

from __future__ import annotations

import fcntl
import hashlib
import json
import os
import zipfile
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.formats import RawStructure
from vkctl.directory.structure import build_structure
from vkctl.prepare.case_file.entries import Cases
from vkctl.prepare.mesh import PartMesh, make_mesh
from vkctl.prepare.part import Reading
from vkctl.prepare.readers.registry import read_part
from vkctl.shapes.elements import Elements

_TABLES = ("tet4", "hex8", "tet10")


@dataclass
class MeshedPart:
    """What follows from the part and `[mesh]` of the case file alone."""

    mesh: PartMesh
    structure: RawStructure


def part_digest(part: Path, mesh_table: object) -> str:
    """Of a part's file and of how it is meshed."""
    total = hashlib.sha256(json.dumps(mesh_table, sort_keys=True, default=str).encode())
    total.update(part.suffix.lower().encode())
    with formats.open_regular(part) as stream:
        while block := stream.read(1 << 20):
            total.update(block)
    return total.hexdigest()


def made(cases: Cases, reading: Reading) -> MeshedPart:
    """Read the part of a case file, mesh it where it is geometry."""
    part = cases.path.parent / cases.part
    mesh = make_mesh(read_part(part, cases.mesh, reading), scale=cases.scale, reorder=cases.reorder)
    return MeshedPart(mesh, build_structure(len(mesh.nodes), mesh.elements.used_tables()))


def taken_or_made(stored: Path, cases: Cases, reading: Reading) -> MeshedPart:
    """The mesh kept in a file, made first where nobody has; one process makes it at a time."""
    with _alone(stored):
        if (found := load(stored)) is None:
            found = made(cases, reading)
            save(found, stored)
    return found


@contextmanager
def _alone(stored: Path) -> Iterator[None]:
    """Others that want the same mesh wait. On file systems without locks each makes its own."""
    with open(stored.with_suffix(".lock"), "wb") as stream:
        with suppress(OSError):
            fcntl.flock(stream, fcntl.LOCK_EX)
        yield


def save(part: MeshedPart, path: Path) -> None:
    """Replace the file as a whole."""
    mesh, structure = part.mesh, part.structure
    arrays: dict[str, Array] = {
        "nodes": mesh.nodes,
        "type_codes": mesh.elements.type_codes,
        "conn_index": mesh.elements.conn_index,
        "node_labels": mesh.node_labels,
        "element_labels": mesh.element_labels,
        "columns": structure.columns,
        "row_start": structure.row_start,
        **{name: getattr(mesh.elements, name) for name in _TABLES},
    }
    named = {"node_sets": mesh.node_sets, "element_sets": mesh.element_sets}
    head: dict[str, Any] = {
        "bandwidth": structure.max_bandwidth,
        "notes": mesh.notes,
        "surfaces": {name: len(tables) for name, tables in mesh.surfaces.items()},
    }
    for kind, sets in {**named, "node_data": mesh.node_data}.items():
        head[kind] = list(sets)
        arrays |= {f"{kind}.{k}": values for k, values in enumerate(sets.values())}
    for k, tables in enumerate(mesh.surfaces.values()):
        arrays |= {f"surfaces.{k}.{n}": rows for n, rows in enumerate(tables)}
    arrays["head"] = np.frombuffer(json.dumps(head).encode(), np.uint8)
    with formats.replacing(path) as stream:
        np.savez(stream, allow_pickle=False, **arrays)


def load(path: Path) -> MeshedPart | None:
    """What `save` has written; None where it isn't there or is damaged, so that it is made anew."""
    try:
        with np.load(os.fspath(path), allow_pickle=False) as arrays:
            return _loaded(arrays)
    except (OSError, ValueError, KeyError, TypeError, EOFError, zipfile.BadZipFile):
        return None


def _loaded(arrays: Any) -> MeshedPart:
    head = json.loads(arrays["head"].tobytes())
    codes = arrays["type_codes"]
    elements = Elements(
        codes,
        np.ones(len(codes), np.int16),
        arrays["conn_index"],
        *(arrays[name] for name in _TABLES),
    )
    by_name = {
        kind: {name: arrays[f"{kind}.{k}"] for k, name in enumerate(head[kind])}
        for kind in ("node_sets", "element_sets", "node_data")
    }
    surfaces = {
        name: [arrays[f"surfaces.{k}.{n}"] for n in range(count)]
        for k, (name, count) in enumerate(head["surfaces"].items())
    }
    mesh = PartMesh(
        arrays["nodes"],
        elements,
        arrays["node_labels"],
        arrays["element_labels"],
        by_name["node_sets"],
        by_name["element_sets"],
        surfaces,
        by_name["node_data"],
        list(head["notes"]),
    )
    structure = RawStructure(arrays["columns"], arrays["row_start"], int(head["bandwidth"]))
    return MeshedPart(mesh, structure)
