"""The root of a falling function of a positive number, in few trials."""

from __future__ import annotations

import math
from dataclasses import dataclass, field

FAR = 1.5  # factor from the first trial to the second, if nothing is known of the root
NEAR = 1.02  # and if the first is nearly right
_LEAST = 2.0**-60  # of the upper end: no root is looked for below
_HALVED = 3  # trials within a bracket that have to halve it, else the next one does


@dataclass
class Bracket:
    """Where the root may lie, and where to try next.

    Trials go from the first one outwards until the signs differ, and then by the false position
    over the logarithm, with the weight of an end halved that stays (M. Dowell, P. Jarratt, BIT 11
    (1971) 168-174).
    """

    low: float
    high: float
    trial: float
    factor: float = FAR  # squared with each trial until the signs differ
    values: dict[bool, float] = field(default_factory=dict)  # at the lower end, and at the upper
    rising: bool | None = None  # whether the last trial became the lower end
    within: int = 0  # trials since the signs differ, or since the width was noted
    width: float = math.inf

    def __post_init__(self) -> None:
        self.low = max(self.low, _LEAST * self.high)
        self.trial = min(max(self.trial, self.low), self.high)

    def narrow(self, value: float) -> bool:
        """Take the value at the trial, and set the next trial; False where there is none."""
        rising = value > 0
        if self.trial == (self.high if rising else self.low):
            return False
        if rising:
            self.low = self.trial
        else:
            self.high = self.trial
        self.values[rising] = value
        if rising == self.rising and (not rising) in self.values:
            self.values[not rising] *= 0.5
        self.rising = rising
        last, self.trial = self.trial, self._next()
        return self.trial != last

    def _next(self) -> float:
        if len(self.values) < 2:
            further = self.low * self.factor if self.rising else self.high / self.factor
            self.factor *= self.factor
            return min(max(further, self.low), self.high)
        low, high = math.log(self.low), math.log(self.high)
        self.within += 1
        if self.within > _HALVED:
            slow, self.within, self.width = high - low > 0.5 * self.width, 1, high - low
            if slow:
                return math.exp(0.5 * (low + high))
        above, below = self.values[True], self.values[False]
        return math.exp((low * -below + high * above) / (above - below))
