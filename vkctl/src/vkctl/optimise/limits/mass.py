"""The volume of a loop for the least mass: down while limits hold, up where one is broken.

The largest stress of a part scatters by a tenth from step to step, and for a step by much more
where a member is about to go. So the volume follows the middle of some steps' values, and its steps
shorten whenever it turns, as in a search by trust regions: it settles at what the limits leave.

From all material on it falls as long as that makes nothing worse, even where a limit is broken: a
notch may be what breaks it, which only a part that isn't full can round off.
"""

from __future__ import annotations

import numpy as np

_FOLLOWS = 0.3  # power of the largest ratio that the volume is multiplied by in a step
_LOOKED_BACK = 3  # steps whose largest ratios the volume follows the middle of
_SHORTENED = 0.5  # by so much steps shorten with a turn
_LENGTHENED = 1.2  # and grow again in steps that go on one way
_SHORTEST = 1 / 16  # of the longest step
_NO_WORSE = 1.02  # part of the largest ratio of all material


def next_volume(ratios: list[float], volume: float, most: float, begins_full: bool) -> float:
    """From the largest ratio of a value to its limit in each step up to the present one.

    `most` is the longest step, `begins_full` whether the first one had all material.
    """
    middles = [float(np.median(ratios[max(k - _LOOKED_BACK, 0) : k])) for k in _counts(ratios)]
    if begins_full and max(middles) <= _NO_WORSE * middles[0]:
        return max(volume - most, volume / 2)
    reach = most * _calmed(middles)
    wanted = volume * max(middles[-1], 1e-6) ** _FOLLOWS
    return float(min(max(wanted, volume - reach), volume + reach, 1.0))


def _counts(ratios: list[float]) -> range:
    return range(1, len(ratios) + 1)


def _calmed(middles: list[float]) -> float:
    """Part of the longest step that is gone."""
    part = 1.0
    for before, now in zip(middles[:-1], middles[1:], strict=True):
        if (before > 1.0) != (now > 1.0):
            part = max(part * _SHORTENED, _SHORTEST)
        else:
            part = min(part * _LENGTHENED, 1.0)
    return part
