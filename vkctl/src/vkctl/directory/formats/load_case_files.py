"""The files of the load cases: table, flags, and one map each."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike

from . import file_names
from .records import (
    CONSTRAINT,
    FORCE,
    LOADCASE,
    LOADCASE_DONE,
    LOADCASE_EXCLUDED,
    LOADCASE_FORMAT,
    LOADCASE_REQUESTED,
    LOADCASE_STATIC,
    SCALAR,
)
from .streams import FormatError, Reader, int32_bytes, numbered, write_parts


def read_loadcases(directory: PathLike) -> Array:
    """`mxs.lcdata`: LOADCASE records; another format number than 128 is an error."""
    path = Path(directory, file_names.LOAD_CASES)
    with Reader(path) as r:
        count, number = r.int32("NumLoadCases"), r.int32("format number")
        if number != LOADCASE_FORMAT:
            raise FormatError(path, f"format number {number}, expected {LOADCASE_FORMAT}")
        return r.array(LOADCASE, count, "load-case records")


def write_loadcases(directory: PathLike, records: Array) -> None:
    """`mxs.lcdata` from LOADCASE records."""
    rows = np.asarray(records, LOADCASE)
    write_parts(
        Path(directory, file_names.LOAD_CASES), [int32_bytes(len(rows), LOADCASE_FORMAT), rows]
    )


def read_loadcase_flags(directory: PathLike) -> tuple[Array, Array]:
    """`mxs.lcflags`: int32 flags and float32 values, one each per load case."""
    with Reader(Path(directory, file_names.LOAD_CASE_FLAGS)) as r:
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
    write_parts(
        Path(directory, file_names.LOAD_CASE_FLAGS), [int32_bytes(len(words)), words, reals]
    )


def is_wanted(kind: int, flags: int) -> bool:
    """Whether a load case takes part in runs: static, requested, not excluded; done or not."""
    requested = flags & LOADCASE_REQUESTED != 0
    return kind == LOADCASE_STATIC and requested and not flags & LOADCASE_EXCLUDED


def is_to_run(kind: int, flags: int) -> bool:
    """Whether the next run works on a load case: wanted and not done."""
    return is_wanted(kind, flags) and not flags & LOADCASE_DONE


@dataclass
class LoadCaseMap:
    """The four sections of `mxs.lcmap.NNNN`."""

    constraints: Array  # CONSTRAINT
    forces2: Array  # FORCE
    forces3: Array  # FORCE
    scalars: Array  # SCALAR


def read_loadcase_map(directory: PathLike, number: int) -> LoadCaseMap:
    """`mxs.lcmap.NNNN` of load case `number`."""
    with Reader(Path(directory, numbered(file_names.LOAD_CASE_MAP_STEM, number))) as r:
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
        parts += [int32_bytes(len(records)), records]
    write_parts(Path(directory, numbered(file_names.LOAD_CASE_MAP_STEM, number)), parts)
