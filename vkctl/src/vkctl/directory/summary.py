"""What the log and the results of a directory say, in a few lines."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np

from vkctl.basics.types import PathLike
from vkctl.basics.units import UnitSystem, in_unit

from .case_names import name_of, read_case_names, read_units, titled
from .formats import MODES, FormatError, read_loadcase_map
from .log import LoadCaseLog, digest, read_log
from .results import read_results, solved
from .sums import size_of_forces, without_noise


def summary(directory: PathLike) -> str:
    """A few lines on the log and the results of a run directory."""
    run = digest(read_log(directory))
    names, units = read_case_names(directory), read_units(directory)
    lines = []
    for case in run.load_cases:
        lines.append(f"{titled(case.number, names)}: {_solver_words(case)}")
        lines += [f"  warning: {text}" for text in case.warnings]
    for number in solved(directory):
        lines.append(f"results of {titled(number, names)}:")
        lines += _result_lines(directory, number, units)
    if run.error:
        lines.append(f"the run stopped: {run.error}")
    elif run.seconds is None:
        lines.append("the run has not ended")
    else:
        lines.append(f"the whole run took {run.seconds:.1f} s")
    return "\n".join(lines)


def summary_values(directory: PathLike) -> dict[str, Any]:
    """The same for programs."""
    run = digest(read_log(directory))
    names, units = read_case_names(directory), read_units(directory)
    return {
        "units": units.name if units else None,
        "log": {
            "load_cases": [case_values(case, names) for case in run.load_cases],
            "error": run.error,
            "seconds": run.seconds,
        },
        "results": [_result_values(directory, number, names) for number in solved(directory)],
    }


def case_values(case: LoadCaseLog, names: Sequence[str]) -> dict[str, Any]:
    """What the log tells of a load case."""
    return {
        "load_case": case.number,
        "name": name_of(case.number, names),
        "pattern": case.pattern,
        "mode": {number: name for name, number in MODES.items()}.get(case.mode or 0),
        "iterations": case.iterations,
        "seconds": case.seconds,
        "values": case.data,
        "warnings": list(case.warnings),
    }


def _result_values(directory: PathLike, number: int, names: Sequence[str]) -> dict[str, Any]:
    r = read_results(directory, number)
    return {
        "load_case": number,
        "name": name_of(number, names),
        "quality": r.quality,
        "strain_energy": r.strain_energy,
        "material_volume": r.material_volume,
        "stress_norm": r.stress_norm,
        "max_displacement": r.max_displacement,
        "applied_load": list(r.applied_load),
    }


def _solver_words(case: LoadCaseLog) -> str:
    words = []
    if case.equations_millions is not None:
        words.append(f"{case.equations_millions:.2f} million equations")
    if case.mode is not None:
        words.append("factorised" if case.mode == 2 else "iterative")
    if case.iterations is not None:
        words.append(f"{case.iterations} iterations")
    if "ARQua" in case.data:
        words.append(f"quality {case.data['ARQua']:.3f}")
    if case.seconds is not None:
        words.append(f"{case.seconds:.1f} s")
    return ", ".join(words) or "begun"


def _result_lines(directory: PathLike, number: int, units: UnitSystem | None) -> list[str]:
    r = read_results(directory, number)
    sums = without_noise(np.array(r.applied_load), _size_of_load(directory, number))
    load = ", ".join(f"{component:.5g}" for component in sums)
    moved, energy = f"{r.max_displacement:.4g}", f"{r.strain_energy:.4g}"
    lines = [
        f"  largest displacement {in_unit(moved, units, 'length')}",
        f"  strain energy        {in_unit(energy, units, 'energy')}",
    ]
    if len(r.stress):
        ends = f"{r.stress.min():.4g} to {r.stress.max():.4g}"
        lines.append(f"  element mean stress  {in_unit(ends, units, 'stress')}")
    return [*lines, f"  sum of loads         {in_unit(f'({load})', units, 'force')}"]


def _size_of_load(directory: PathLike, number: int) -> float:
    """0 where the load case's forces aren't there to be read."""
    try:
        return size_of_forces(read_loadcase_map(directory, number))
    except (OSError, FormatError):
        return 0.0
