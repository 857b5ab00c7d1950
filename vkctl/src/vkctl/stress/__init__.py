"""Stress as it is: inside elements, at nodes, and what follows from it."""

from .measures import (
    mean_normal,
    principal,
    principal_directions,
    signed_von_mises,
    tresca,
    von_mises,
)
from .nodal import MaterialStress, NodalStress, nodal_stress
from .points import element_means, integration_points
from .safety import Safety, safety
from .solution import Solution, has_stress, read_solution, solution_of

__all__ = [
    "MaterialStress",
    "NodalStress",
    "Safety",
    "Solution",
    "element_means",
    "has_stress",
    "integration_points",
    "mean_normal",
    "nodal_stress",
    "principal",
    "principal_directions",
    "read_solution",
    "safety",
    "signed_von_mises",
    "solution_of",
    "tresca",
    "von_mises",
]
