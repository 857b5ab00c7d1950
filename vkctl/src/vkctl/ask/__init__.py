"""Questions about solved load cases, with numbers as answers."""

from .answers import Answer, Wanted, answer
from .extremes import (
    CaseFields,
    Envelope,
    Extreme,
    case_fields,
    envelope,
    envelope_extremes,
    extremes,
)
from .reactions import Reaction, Reactions, Resultant, reactions
from .study import AskError, Region, Solved, Study, open_study, regions, solutions

__all__ = [
    "Answer",
    "AskError",
    "CaseFields",
    "Envelope",
    "Extreme",
    "Reaction",
    "Reactions",
    "Region",
    "Resultant",
    "Solved",
    "Study",
    "Wanted",
    "answer",
    "case_fields",
    "envelope",
    "envelope_extremes",
    "extremes",
    "open_study",
    "reactions",
    "regions",
    "solutions",
]
