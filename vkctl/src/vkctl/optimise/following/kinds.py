"""Which load cases change with the design, and which of them have no criterion."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.directory.model import Model
from vkctl.stress.solution import option_of


def heated_cases(model: Model, cases: Sequence[int]) -> list[int]:
    """Those in which strains are free: by temperatures, or of the material."""
    if any(material.initial_strain for material in model.materials):
        return list(cases)
    return [number for number in cases if len(model.load_cases[number - 1].scalars)]


def refuse_unknown(model: Model, heated: Sequence[int], following: Sequence[int]) -> None:
    """ValueError for what the criterion of loads that change with the design isn't known of."""
    if not heated and not following:
        return
    if option_of(model, "Sta.TopCriteriaCode"):
        raise ValueError(
            "Sta.TopCriteriaCode asks for a criterion of stresses, which knows nothing of weight "
            "that follows the design or of heat: leave it out"
        )
    for number in heated:
        if np.any(model.load_cases[number - 1].constraints["Value"]):
            raise ValueError(
                f"load case {number} has temperatures or initial strains and prescribed "
                "displacements: make two load cases of it, since what is stiff against the one "
                "is strained by the other"
            )
    if heated and any(material.has_state for material in model.materials):
        raise ValueError(
            "temperatures or initial strains can't be optimised with materials that yield or "
            "carry compression only: what they add to the criterion depends on their states"
        )
