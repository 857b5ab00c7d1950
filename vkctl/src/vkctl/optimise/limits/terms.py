"""What a loop weighs against each other: its limits, load case by load case, on its own model."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import scipy

from vkctl.ask.study import find_set, set_nodes
from vkctl.basics.types import Array
from vkctl.directory.case_names import case_names, name_of
from vkctl.directory.model import Model
from vkctl.stress.solution import Solution

from .aggregates import Value, largest_displacement, largest_stress, work_of_forces
from .settings import Limit
from .table import Weighed


@dataclass(frozen=True)
class Term:
    """A limit in one load case, with what it needs of the model."""

    name: str  # what it is called in tables and sentences; no two are called the same
    limit: Limit
    case: int  # number of the load case
    nodes: Array  # displacement: numbers; stress: mask of those that are looked at
    own_adjoint: bool  # its adjoint displacements are the load case's own

    def value(self, model: Model, solution: Solution) -> Value:
        if self.limit.kind == "compliance":
            return work_of_forces(model, solution, self.case)
        if self.limit.kind == "stress":
            return largest_stress(solution, self.nodes)
        way = self.limit.direction
        return largest_displacement(solution, self.nodes, None if way is None else np.array(way))


@dataclass
class Steering:
    """The terms of a loop, and what was weighed so far."""

    model: Model
    terms: list[Term]
    rows: list[Weighed]


def make_terms(
    model: Model, limits: tuple[Limit, ...], cases: list[int], radius: float
) -> list[Term]:
    """Terms of the load cases `cases`; ValueError for what the model can't be limited by."""
    if not limits:
        return []
    _refuse_states(model)
    found: list[Term] = []
    for limit in limits:
        nodes = _nodes(model, limit, radius)
        for case in _cases(model, limit, cases):
            name = _named(limit, case, model, [term.name for term in found])
            own = limit.kind == "compliance" and is_linear(model, case)
            found.append(Term(name, limit, case, nodes, own))
    return found


def _refuse_states(model: Model) -> None:
    for number, material in enumerate(model.materials, 1):
        if material.has_state:
            raise ValueError(
                f"material {number} changes with its stress (yielding or compression-only): "
                "[optimise.limits] are for materials that don't"
            )


def _cases(model: Model, limit: Limit, cases: list[int]) -> list[int]:
    if limit.load_case is None:
        return cases
    found = [number for number in cases if case_names(model)[number - 1] == limit.load_case]
    if not found:
        raise ValueError(f"load case {limit.load_case!r}, which has a limit, doesn't take part")
    return found


def _named(limit: Limit, case: int, model: Model, taken: list[str]) -> str:
    what = f"displacement of {limit.set}" if limit.kind == "displacement" else limit.kind
    where = name_of(case, case_names(model)) or f"load case {case}"
    name = f"{what} in {where}"
    return name if name not in taken else f"{name} ({len(taken) + 1})"


def _nodes(model: Model, limit: Limit, radius: float) -> Array:
    if limit.kind == "displacement":
        return _nodes_of_set(model, limit.set)
    mask = np.ones(len(model.nodes), np.bool_)
    if limit.away_from:
        reach = radius if limit.distance is None else limit.distance
        chosen = np.concatenate([_nodes_of_set(model, name) for name in limit.away_from])
        distance, _ = scipy.spatial.cKDTree(model.nodes[chosen - 1]).query(model.nodes)
        mask = distance > reach
        if not mask.any():
            raise ValueError(
                f"no node is further than {reach:g} from the sets {', '.join(limit.away_from)}: "
                "the stress limit looks at nothing; give a shorter distance"
            )
    return mask


def _nodes_of_set(model: Model, name: str) -> Array:
    return set_nodes(model, find_set(model, name))


def is_linear(model: Model, case: int) -> bool:
    """Whether nothing but nodal forces loads the part."""
    loaded = model.load_cases[case - 1]
    strained = any(material.initial_strain for material in model.materials)
    return not (strained or len(loaded.scalars) or np.any(loaded.constraints["Value"]))
