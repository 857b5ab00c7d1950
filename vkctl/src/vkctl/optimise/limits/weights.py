"""How the weights of terms follow their values from step to step.

The least of a largest value: weights that add up to 1 are multiplied by a power of the values and
scaled back, which is dual ascent with a step that depends on the value (S. Arora, E. Hazan,
S. Kale, Theory Comput. 8 (2012) 121-164). At rest all terms with a weight have the same value.

A value with a limit beside another goal: the multiplier of an augmented Lagrangian, which grows
with what the value is above its limit and falls with what it is below (J. Nocedal, S. J. Wright,
Numerical Optimization, 2nd ed., 17.3; with level fields G. Allaire, F. Jouve, G. Michailidis,
Struct. Multidisc. Optim. 53 (2016) 1349-1382).
"""

from __future__ import annotations

import math

import numpy as np

from vkctl.basics.types import Array

_POWER = 3.0  # of the values in the first step; it falls with the root of the steps
_LEAST = 1e-4  # weight, so that a term can come back
_GROWTH = 0.1  # of a multiplier in a step, by the part that the value is above its limit
_MOST = 1.0  # multiplier; beyond, the noise of a stress's derivative leads the design


def shares(before: Array, values: Array, step: int) -> Array:
    """Weights that add up to 1, from those of the step before and values that are to be equal."""
    largest = values.max(initial=0.0)
    if largest <= 0:
        return before
    raised = before * np.maximum(values / largest, 1e-3) ** (_POWER / math.sqrt(step))
    raised = np.maximum(raised / raised.sum(), _LEAST)
    scaled: Array = raised / raised.sum()
    return scaled


def multipliers(before: Array, ratios: Array) -> Array:
    """Multipliers from those of the step before and values over their limits."""
    grown: Array = np.clip(before + _GROWTH * (ratios - 1.0), 0.0, _MOST)
    return grown
