"""Load cases of a case file: their records, their patterns, their resultants."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats, model
from vkctl.directory.model import LoadCase

from .case_file.entries import CaseEntry, Cases
from .conditions import AppliedLoad

_NAME_BYTES = 64  # of a load case's name in its reserved bytes


def load_case(
    entry: CaseEntry, supports: dict[str, Array], applied: dict[str, AppliedLoad], cases: Cases
) -> LoadCase:
    """Records of a load case: surface and point loads in section 2, body forces in section 3.

    Where some follow the level field, section 3 has these alone: it changes with the field.
    """
    flags = formats.LOADCASE_REQUESTED if entry.requested else 0
    flags |= formats.LOADCASE_EXCLUDED if entry.excluded else 0
    name = entry.name.encode("utf-8")[:_NAME_BYTES]
    case = LoadCase(flags=flags, reserved=name)
    rows = [supports[name] for name in entry.supports]
    case.constraints = np.concatenate([*rows, np.empty(0, formats.CONSTRAINT)])
    temperatures: dict[int, tuple[Array, Array]] = {}
    follows = body_of(entry, applied) is not None
    for place, (title, factor) in enumerate(entry.loads.items()):
        load = applied[title]
        if load.kind == "temperature":
            temperatures[place] = load.nodes, factor * load.values
        elif len(load.nodes):
            third = load.kind == "gravity" and (load.body is not None or not follows)
            case.load(load.nodes, factor * load.values, 3 if third else 2)
    if temperatures:
        case.scalars = _merged(list(temperatures.values()))
    return case


def body_of(entry: CaseEntry, applied: dict[str, AppliedLoad]) -> Array | None:
    """Forces (m, 3) per volume that follow the level field in a load case; None if none do."""
    total: Array | None = None
    for title, factor in entry.loads.items():
        body = applied[title].body
        if body is not None:
            total = factor * body + (0.0 if total is None else total)
    return total


def _merged(pieces: list[tuple[Array, Array]]) -> Array:
    """SCALAR records, of each node the value that comes last."""
    numbers = np.concatenate([n for n, _ in pieces])[::-1]
    values = np.concatenate([v for _, v in pieces])[::-1]
    unique, last = np.unique(numbers, return_index=True)
    return model.scalars(unique, values[last])


def assign_patterns(cases: list[LoadCase]) -> None:
    """Give load cases with the same supports the same pattern number, from 1 on.

    Within a pattern the solver keeps numbering, matrix and factor, and refers to prescribed
    values by the row of their record. So the records must agree row by row in everything but the
    values, whose zeros must stand at the same places; those of elastic supports may differ.
    """
    seen: dict[bytes, int] = {}
    for case in cases:
        rows = np.array(case.constraints, formats.CONSTRAINT)
        penalty = (rows["Kind"] & formats.CONSTRAINT_PENALTY) != 0
        moved = (rows["Value"] != 0) & ~penalty[:, None]
        axes = np.where(penalty[:, None, None], rows["Axis"], 0.0)
        words = [rows["Kind"], rows["DofMask"], rows["Node"], moved, axes]
        key = b"|".join(np.ascontiguousarray(w).tobytes() for w in words)
        case.pattern = seen.setdefault(key, len(seen) + 1)


def grouped(patterns: list[int]) -> list[int]:
    """Load-case numbers ordered so that each pattern is set up once."""
    return [int(i) + 1 for i in np.argsort(patterns, kind="stable")]


def resultant(case: LoadCase, nodes: Array) -> Array:
    total = np.zeros(6)
    for section in (case.forces2, case.forces3):
        force = section["Force"].astype(np.float64)
        total[:3] += force.sum(axis=0)
        total[3:] += np.cross(nodes[section["Node"] - 1], force).sum(axis=0)
    return total
