"""What a report says of the load cases: totals, reactions, extremes with their places, safety."""

from __future__ import annotations

from collections.abc import Collection, Mapping, Sequence

import numpy as np

from vkctl.ask.tables import Cell
from vkctl.ask.told import extreme_table, reaction_table
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import called
from vkctl.directory.log import LoadCaseLog
from vkctl.directory.model import LoadCase, Model
from vkctl.directory.results import POOR_QUALITY
from vkctl.directory.sums import size_of_forces, without_noise

from .facts import CaseFacts
from .markup import answer_table, paragraph, section, table
from .units import in_unit


def about_cases(
    model: Model,
    names: Sequence[str],
    cases: Sequence[CaseFacts],
    there: Collection[int],
    logs: Mapping[int, LoadCaseLog],
    units: UnitSystem | None,
) -> str:
    """The section on the load cases, those that are `there` with results and others."""
    heads = ["", "name", "state", f"sum of loads x{in_unit(units, 'force')}", "y", "z"]
    heads += [f"largest displacement{in_unit(units, 'length')}"]
    heads += [f"strain energy{in_unit(units, 'energy')}", "quality", "iterations"]
    shown = {case.number: case for case in cases}
    rows: list[tuple[Cell, ...]] = []
    for number, name in enumerate(names, 1):
        case = shown.get(number)
        load = model.load_cases[number - 1]
        cells = _case_cells(case, load, logs.get(number)) if case else [None] * 7
        state = _state(load, case, number in there)
        rows.append((number, name or None, state, *cells))
    poor = [paragraph(f"{case.title} {case.poor}.", "warning") for case in cases if case.poor]
    return section("cases", "Load cases", *poor, table("Load cases", heads, rows))


def _case_cells(case: CaseFacts, load: LoadCase, log: LoadCaseLog | None) -> list[Cell]:
    results = case.results
    return [
        *without_noise(np.array(results.applied_load), size_of_forces(load)).tolist(),
        results.max_displacement,
        results.strain_energy,
        results.quality,
        None if log is None else log.iterations,
    ]


def _state(load_case: LoadCase, case: CaseFacts | None, has_results: bool) -> str:
    if case is not None:
        return "solved" if case.results.quality >= POOR_QUALITY else "solved poorly"
    if has_results:
        return "not shown"
    if load_case.excluded:
        return "excluded"
    return "not solved" if load_case.requested else "not requested"


def about_reactions(cases: Sequence[CaseFacts], units: UnitSystem | None) -> str:
    """The section on what the supports put on the part, and how well that balances the loads."""
    found = [case.reactions for case in cases if case.reactions is not None]
    if not found:
        return ""
    return section("reactions", "Reactions", answer_table(reaction_table(found, units)))


def about_extremes(model: Model, cases: Sequence[CaseFacts], units: UnitSystem | None) -> str:
    """The section on the largest and smallest values and their places."""
    found = [one for case in cases for one in case.extremes]
    if not found:
        return ""
    words = "extremes over the nodes of the part; stresses are those recovered at nodes"
    return section(
        "extreme-values", "Extremes", answer_table(extreme_table(found, units, model, words))
    )


def about_safety(model: Model, cases: Sequence[CaseFacts], units: UnitSystem | None) -> str:
    """The section on safety factors, where a material has a yield stress."""
    labels = {} if model.labels is None else {"labels": model.labels.nodes}
    stress = in_unit(units, "stress")
    heads = ["load case", "material", "safety factor", f"von Mises stress{stress}"]
    heads += [f"yield stress{stress}", "node", f"x{in_unit(units, 'length')}", "y", "z"]
    rows = [
        (
            case.title,
            least.name or f"material {least.material}",
            least.factor,
            least.von_mises,
            least.yield_stress,
            called(least.node, **labels),
            *least.place,
        )
        for case in cases
        for least in case.safety
    ]
    if not rows:
        return ""
    words = "Yield stress over the largest von Mises stress at a node of the material; "
    told = paragraph(words + "below 1 it yields.")
    return section("safety", "Safety", told, table("Least safety", heads, rows))
