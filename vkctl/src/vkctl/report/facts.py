"""What a report tells of each load case: fields at nodes, extremes, reactions, safety."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field

import numpy as np

from vkctl import stress
from vkctl.ask import Extreme, Reactions, Solved, case_fields, extremes, reactions
from vkctl.ask.extremes import FIELDS as WITH_EXTREMES
from vkctl.ask.study import whole_part
from vkctl.basics.types import Array, PathLike
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import Model
from vkctl.directory.results import Results, read_results
from vkctl.stress.fields import STRESS_FIELDS, stress_field
from vkctl.stress.safety import DRAWN_ALIKE, Safety, safety_field
from vkctl.view.fields import FIELDS, point_fields

# Shown and told of by default, in this order, where a load case has them.
SHOWN = ("magnitude", "von_mises", "principal_1", "principal_3")
SHOWABLE = tuple(name for name in FIELDS if name != "level")


@dataclass(frozen=True)
class CaseFacts:
    """A solved load case. `fields` are per node, float32, NaN where there is none."""

    number: int
    title: str
    results: Results
    displacement: Array | None  # (n, 3)
    fields: dict[str, Array]
    extremes: list[Extreme] = field(default_factory=list)
    reactions: Reactions | None = None
    safety: list[Safety] = field(default_factory=list)
    poor: str = ""  # why there is no stress and no reaction, if there is none

    def extreme(self, name: str, end: str = "largest") -> Extreme | None:
        """The extreme of a field at an end, where it has one."""
        every = (one for one in self.extremes if one.field == name and one.end == end)
        return next(every, None)


def case_facts(
    model: Model, directory: PathLike, number: int, shown: Iterable[str] = SHOWN
) -> CaseFacts:
    """Facts of a solved load case; without stresses where it was solved too poorly to tell one."""
    results = read_results(directory, number)
    every = point_fields(model, results)
    displacement = every.pop("displacement", None)
    wanted, names = tuple(shown), case_names(model)
    title = titled(number, names)
    if poor := _poor(results):
        kept = {name: every[name].astype(np.float32) for name in wanted if name in every}
        if displacement is not None and not np.isfinite(displacement).all():
            displacement = None
        return CaseFacts(number, title, results, displacement, kept, poor=poor)
    case = Solved(number, names[number - 1], results, stress.solution_of(model, results))
    found = case_fields(model, case)
    assert found.stress is not None
    merged = found.stress.merged()
    fields = {}
    for name in wanted:
        if name in STRESS_FIELDS:
            fields[name] = stress_field(merged.stress, merged.energy, name).astype(np.float32)
        elif name == "safety":
            factors = safety_field(model, found.stress)
            fields[name] = np.minimum(factors, DRAWN_ALIKE).astype(np.float32)
        elif name in every:
            fields[name] = every[name].astype(np.float32)
    told = [name for name in fields if name in WITH_EXTREMES]
    return CaseFacts(
        number,
        title,
        results,
        displacement,
        fields,
        extremes(model, found, [whole_part(model)], told),
        reactions(model, case),
        stress.safety(model, found.stress),
    )


def _poor(results: Results) -> str:
    """Why results can't tell stresses and reactions; empty where they can."""
    if not stress.has_stress(results) or results.displacements is None:
        return "was solved too poorly to leave displacements"
    finite = np.isfinite(results.displacements).all()
    return "" if finite else "left displacements that aren't all numbers"
