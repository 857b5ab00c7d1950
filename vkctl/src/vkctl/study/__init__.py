"""Variants of a case file: parameters in, a table of results out."""

from .entries import Keep, Parameter, Sample, StudyFile, Wanted
from .journal import Plan
from .loop import Planned, Progress, Studied, StudyError, planned, study
from .read import read_study
from .variants import variants_of
from .work import Outcome, Task, solve

__all__ = [
    "Keep",
    "Outcome",
    "Parameter",
    "Plan",
    "Planned",
    "Progress",
    "Sample",
    "Studied",
    "StudyError",
    "StudyFile",
    "Task",
    "Wanted",
    "planned",
    "read_study",
    "solve",
    "study",
    "variants_of",
]
