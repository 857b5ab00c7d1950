"""Result files of a load case."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from vkctl.basics.types import Array, PathLike
from vkctl.directory.formats import file_names

from . import formats

STOP_QUALITY = 0.5  # below this the run stops
POOR_QUALITY = 0.9  # below this a solution draws a warning
KEEP_QUALITY = 0.9  # above this a solution leaves a start vector
LOWEST_STATE = 0.001  # the solver holds the states of elements at this in single precision or above


@dataclass
class Results:
    """Result files of one load case; arrays per node unless told otherwise, float32."""

    number: int
    kind: int
    quality: float  # 1 is converged, below 0.9 poor
    strain_energy: float
    material_volume: float
    stress_norm: float  # "BStress"
    max_displacement: float  # over free components
    applied_load: tuple[float, float, float]
    criterion: Array  # per design point
    stress: Array  # signed
    magnitude: Array  # of the displacement, prescribed components included
    displacements: Array | None  # (n, 3); None where the quality was too poor for a state file
    element_state: Array | None  # per element; None for models without state


def read_results(directory: PathLike, number: int) -> Results:
    """Results of load case `number`; FileNotFoundError if it hasn't been solved."""
    totals = formats.read_totals(directory, number)
    return Results(
        number=int(totals["LoadCase"]),
        kind=int(totals["Kind"]),
        quality=float(totals["ARQua"]),
        strain_energy=float(totals["SEner"]),
        material_volume=float(totals["MatVolume"]),
        stress_norm=float(totals["BStress"]),
        max_displacement=float(totals["MaxDis"]),
        applied_load=tuple(totals["R"].tolist()),
        criterion=formats.read_criterion(directory, number),
        stress=formats.read_stress(directory, number),
        magnitude=formats.read_magnitude(directory, number),
        displacements=_if_there(formats.read_displacements, directory, number),
        element_state=_if_there(formats.read_element_state, directory, number),
    )


def _if_there(
    reader: Callable[[PathLike, int], Array], directory: PathLike, number: int
) -> Array | None:
    try:
        return reader(directory, number)
    except FileNotFoundError:
        return None


def solved(directory: PathLike) -> list[int]:
    """Numbers of the load cases that have results."""
    names = Path(directory).glob(f"{file_names.TOTALS_STEM}.{file_names.FOUR_DIGITS}")
    return sorted(int(path.suffix[1:]) for path in names)
