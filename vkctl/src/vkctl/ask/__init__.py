"""Questions about solved load cases, with numbers as answers."""

from .answers import Answer, Wanted, answer
from .cut import Behind, Cut, cut
from .extremes import (
    CaseFields,
    Envelope,
    Extreme,
    case_fields,
    envelope,
    envelope_extremes,
    extremes,
    values_in,
)
from .mass import Mass, MaterialMass, mass
from .reactions import Reaction, Reactions, Resultant, reactions
from .study import (
    AskError,
    Region,
    Solved,
    Study,
    find_elements,
    open_study,
    regions,
    solutions,
)
from .values import Spots, find_spots, line_points, values_at, why_nothing

__all__ = [
    "Answer",
    "AskError",
    "Behind",
    "CaseFields",
    "Cut",
    "Envelope",
    "Extreme",
    "Mass",
    "MaterialMass",
    "Reaction",
    "Reactions",
    "Region",
    "Resultant",
    "Solved",
    "Spots",
    "Study",
    "Wanted",
    "answer",
    "case_fields",
    "cut",
    "envelope",
    "envelope_extremes",
    "extremes",
    "find_elements",
    "find_spots",
    "line_points",
    "mass",
    "open_study",
    "reactions",
    "regions",
    "solutions",
    "values_at",
    "values_in",
    "why_nothing",
]
