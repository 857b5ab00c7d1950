"""Topology optimisation: the loop around the solver that moves the level field.

Each step solves all load cases, combines their criterion (density of strain energy by default),
smooths it over a radius, and moves the level of every design point towards

    criterion / threshold - 1,

with the threshold that gives the step's volume: material gathers where much is carried and goes
where little is. At the end the part's surface lies where the criterion has one value, which is
what a stiffest part of its volume shows on a free surface (M. Y. Wang, X. Wang, D. Guo, CMAME
192 (2003) 227-246).
"""

from .history import HistoryRow, read_history
from .loop import Optimised, StepShown, optimise
from .pictures import write_animation, write_part_series
from .settings import Settings, read_settings
from .standing import OptimiseError
from .wishes.measure import Sizes, measured_sizes

__all__ = [
    "HistoryRow",
    "OptimiseError",
    "Optimised",
    "Settings",
    "Sizes",
    "StepShown",
    "measured_sizes",
    "optimise",
    "read_history",
    "read_settings",
    "write_animation",
    "write_part_series",
]
