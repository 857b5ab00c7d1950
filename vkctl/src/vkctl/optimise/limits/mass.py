"""The volume of a loop for the least mass: down while limits hold, up where one is broken.

The largest stress of a part scatters by a tenth from step to step, and for a step by much more
where a member is about to go. So the volume follows the middle of some steps' values, and its steps
shorten whenever it turns, as in a search by trust regions: it settles at what the limits leave.

From all material on it falls as long as that makes nothing worse, even where a limit is broken: a
notch may be what breaks it, which only a part that isn't full can round off.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

_FOLLOWS = 0.3  # power of the largest ratio that the volume is multiplied by in a step
_LOOKED_BACK = 3  # steps whose ratios the volume follows the middle of, the lower one of two
_SHORTENED = 0.5  # by so much steps shorten with a turn
_LENGTHENED = 1.2  # and grow again in steps that go on one way
_SHORTEST = 1 / 16  # of the longest step
_FALLS = 0.9  # what the volume is multiplied by in a step that makes nothing worse, at most
_NO_WORSE = 1.02  # part of the largest ratio of all material


def next_volume(ratios: Array, volume: float, most: float, begins_full: bool) -> float:
    """From the ratios (steps, terms) of values to their limits, up to the present step's.

    `most` is the longest step, `begins_full` whether the first one had all material.
    """
    middles = _middles(ratios.max(axis=1))
    fallen = _fallen(ratios, middles) if begins_full else 0
    follows = max(middles[-1], 1e-6) ** _FOLLOWS
    if fallen == len(ratios):
        return float(max(volume * min(follows, _FALLS), volume - most))
    above = middles[fallen:] > 1.0
    # A fall is a way down, from which the first step up is a turn.
    reach = most * _calmed(np.append(False, above) if fallen else above)
    return float(min(max(volume * follows, volume - reach), volume + reach, 1.0))


def _middles(ratios: Array) -> Array:
    """Of each step (steps, ...) the middle one of it and those before."""
    found = np.empty_like(ratios)
    for k in range(len(ratios)):
        some = np.sort(ratios[max(k + 1 - _LOOKED_BACK, 0) : k + 1], axis=0)
        found[k] = some[(len(some) - 1) // 2]
    return found


def _fallen(ratios: Array, largest: Array) -> int:
    """How many steps from all material on made nothing worse, and broke no other limit."""
    if not np.isfinite(ratios[0]).all():
        return 0
    each = (_middles(ratios) <= np.maximum(_NO_WORSE * ratios[0], 1.0)).all(axis=1)
    worse = ~(each & (largest <= _NO_WORSE * largest[0]))
    return int(np.argmax(worse)) if worse.any() else len(ratios)


def _calmed(above: Array) -> float:
    """Part of the longest step that is gone, from whether each step is above its limits."""
    part = 1.0
    for turned in above[1:] != above[:-1]:
        part = max(part * _SHORTENED, _SHORTEST) if turned else min(part * _LENGTHENED, 1.0)
    return part
