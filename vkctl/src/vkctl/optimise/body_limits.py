"""The limits of an optimisation, on the part that it left and on the body meshed of it."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.directory.results import Results
from vkctl.stress.solution import solution_of

from .limits.aggregates import recovered
from .limits.on_body import OnBody
from .limits.settings import Limit
from .limits.table import HELD
from .limits.terms import Term, make_terms

FINER = (
    "a body has notches that the loop's mesh is too coarse for: where a limit must hold on it, "
    "body_steps in [optimise] add material, with goal = 'mass'; or take smaller elements"
)

Sides = tuple[Results, Results]  # of the part and of the body


@dataclass(frozen=True)
class LimitCompared:
    """A limit in one load case: the value on the optimised part and on the body."""

    name: str
    part: float
    body: float
    at_most: float
    held: bool  # by the body

    def told(self) -> str:
        text = (
            f"{self.name}: part {self.part:.4g}, body {self.body:.4g} of at most {self.at_most:g}"
        )
        return text if self.held else f"{text}: the body doesn't hold the limit"


def sets_of(limits: tuple[Limit, ...]) -> set[str]:
    """Names of the sets that limits need."""
    names = (name for limit in limits for name in (limit.set, *limit.away_from))
    return {name for name in names if name}


def compare_limits(
    original: Model,
    body: Model,
    limits: tuple[Limit, ...],
    reach: float,
    results: Mapping[int, Sides],
) -> list[LimitCompared]:
    """Limits of the load cases with results, by number; ValueError where they can't be looked at.

    `reach` is how far from a set stresses aren't looked at where a limit gives no distance.
    """
    found = []
    numbers = list(results)
    sides = (make_terms(whole, limits, numbers, reach) for whole in (original, body))
    for ours, bodys in zip(*sides, strict=True):
        part, own = (
            term.value(whole, solution_of(whole, one)).measured
            for term, whole, one in zip(
                (ours, bodys), (original, body), results[ours.case], strict=True
            )
        )
        at_most = ours.limit.at_most
        found.append(LimitCompared(ours.name, part, own, at_most, own <= HELD * at_most))
    return found


@dataclass(frozen=True)
class Looked:
    """What the limits of a part come to on its body."""

    rows: list[OnBody]
    places: Array  # (n, 3) nodes of the body
    ratios: Array  # (n,) of the stress there to its limit, the largest of all
    others: float  # largest ratio of what isn't a stress


def look_at(
    body: Model,
    limits: tuple[Limit, ...],
    reach: float,
    results: Mapping[int, Results],
    terms: list[Term],
    step: int,
) -> Looked:
    """Limits on the body of a step's part, whose own terms are `terms`.

    ValueError where they can't be looked at.
    """
    rows, ratios, others = [], np.zeros(len(body.nodes)), 0.0
    solutions = {number: solution_of(body, one) for number, one in results.items()}
    for ours, bodys in zip(terms, make_terms(body, limits, list(results), reach), strict=True):
        at_most, place = ours.limit.at_most, np.full(3, np.nan)
        if ours.limit.kind == "stress":
            stresses = recovered(solutions[ours.case], bodys.nodes)
            value, place = float(stresses.max()), body.nodes[np.argmax(stresses)]
            ratios = np.maximum(ratios, stresses / at_most)
        else:
            value = bodys.value(body, solutions[ours.case]).measured
            others = max(others, value / at_most)
        rows.append(OnBody(step, ours.name, value, at_most, *place.tolist()))
    return Looked(rows, body.nodes, ratios, others)
