"""State and result files of a load case."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike

from . import file_names
from .records import TOTALS
from .streams import (
    FormatError,
    Reader,
    int32_bytes,
    numbered,
    read_counted,
    write_counted,
    write_parts,
)


def _path(directory: PathLike, stem: str, number: int) -> Path:
    return Path(directory, numbered(stem, number))


def read_displacements(directory: PathLike, number: int) -> Array:
    """`ws.sstate.NNNN`: nodal displacements, prescribed ones included, float32 (n, 3)."""
    with Reader(_path(directory, file_names.DISPLACEMENTS_STEM, number)) as r:
        r.int32("SaveKind")
        count = max(r.int32("ValueCount"), 0)
        if count % 3:
            raise FormatError(r.path, f"{count} displacements, not three a node")
        return r.array("<f4", count, "displacements").reshape(-1, 3)


def write_displacements(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.sstate.NNNN`, from which a repeated load case starts."""
    flat = np.asarray(values, "<f4").ravel()
    write_parts(
        _path(directory, file_names.DISPLACEMENTS_STEM, number),
        [int32_bytes(1, len(flat)), flat],
    )


def read_element_state(directory: PathLike, number: int) -> Array:
    """`ws.mstate.NNNN`: state factor per element, float32."""
    return read_counted(
        _path(directory, file_names.ELEMENT_STATE_STEM, number), "<f4", "element states"
    )


def write_element_state(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.mstate.NNNN`."""
    write_counted(_path(directory, file_names.ELEMENT_STATE_STEM, number), "<f4", values)


def read_criterion(directory: PathLike, number: int) -> Array:
    """`ws.tcval.NNNN`: criterion value per design point, float32."""
    return read_counted(
        _path(directory, file_names.CRITERION_STEM, number), "<f4", "criterion values"
    )


def write_criterion(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.tcval.NNNN`, with which a repeated load case may be blended."""
    write_counted(_path(directory, file_names.CRITERION_STEM, number), "<f4", values)


def read_stress(directory: PathLike, number: int) -> Array:
    """`ws.amsval.NNNN`: signed stress per node, float32."""
    return read_counted(_path(directory, file_names.STRESS_STEM, number), "<f4", "stress values")


def write_stress(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.amsval.NNNN`."""
    write_counted(_path(directory, file_names.STRESS_STEM, number), "<f4", values)


def read_magnitude(directory: PathLike, number: int) -> Array:
    """`ws.disval.NNNN`: displacement magnitude per node, float32."""
    return read_counted(_path(directory, file_names.MAGNITUDE_STEM, number), "<f4", "magnitudes")


def write_magnitude(directory: PathLike, number: int, values: npt.ArrayLike) -> None:
    """`ws.disval.NNNN`."""
    write_counted(_path(directory, file_names.MAGNITUDE_STEM, number), "<f4", values)


def read_totals(directory: PathLike, number: int) -> np.void:
    """`ws.comval.NNNN`: one TOTALS record."""
    with Reader(_path(directory, file_names.TOTALS_STEM, number)) as r:
        record: np.void = r.array(TOTALS, 1, "totals")[0]
        return record


def write_totals(directory: PathLike, number: int, totals: np.void) -> None:
    """`ws.comval.NNNN` from one TOTALS record."""
    write_parts(
        _path(directory, file_names.TOTALS_STEM, number),
        [np.asarray(totals, TOTALS).reshape(1)],
    )
