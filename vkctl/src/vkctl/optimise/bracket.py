"""The root of a falling function of a positive number, in few trials."""

from __future__ import annotations

import math
from dataclasses import dataclass, field

_FAR = 1.5  # most factor from the first trial to the second, squared with each trial after it
_LOST = _FAR**8  # factor from which on no steepness is trusted
_LEAST = 2.0**-60  # of the upper end: no root is looked for below
_HALVED = 3  # trials within a bracket that have to halve it, else the next one does
_NO_CHANGE = 1e-12  # of the larger of two values: that little is rounding


@dataclass
class Bracket:
    """Where the root may lie, and where to try next.

    Trials go from the first one outwards until the signs differ, by the secant over the logarithm
    where a steepness is given, and then by the false position, with the weight of an end halved
    that stays (M. Dowell, P. Jarratt, BIT 11 (1971) 168-174).
    """

    low: float
    high: float
    trial: float
    steepness: float | None = None  # by which the logarithm rises for each unit of the value
    factor: float = _FAR
    last: tuple[float, float] | None = None  # trial before, and its value
    learnt: float | None = None  # steepness between the last two trials
    values: dict[bool, float] = field(default_factory=dict)  # at the lower end, and at the upper
    rising: bool | None = None  # whether the last trial became the lower end
    within: int = 0  # trials since the signs differ, or since the width was noted
    width: float = math.inf

    def __post_init__(self) -> None:
        self.low = max(self.low, _LEAST * self.high)
        self.trial = min(max(self.trial, self.low), self.high)

    def narrow(self, value: float) -> bool:
        """Take the value at the trial, and set the next trial; False where there is none."""
        self.learn(value)
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

    def learn(self, value: float) -> None:
        """Note the value at the trial for the steepness, which a later search may begin with."""
        before, self.last = self.last, (self.trial, value)
        if before is not None and self.trial > 0:
            rise = before[1] - value
            if abs(rise) > _NO_CHANGE * max(abs(before[1]), abs(value)):
                steepness = (math.log(self.trial) - math.log(before[0])) / rise
                self.learnt = steepness if steepness > 0 else self.learnt

    def _further(self) -> float:
        """The trial after one that has not closed the bracket."""
        assert self.last is not None
        factor, value = self.factor, abs(self.last[1])
        self.factor *= self.factor
        if self.steepness is not None and factor < _LOST and math.isfinite(value):
            rise = (self.learnt or self.steepness) * value
            factor = min(factor, math.exp(min(rise, 1.0)))
        further = self.low * factor if self.rising else self.high / factor
        return min(max(further, self.low), self.high)

    def _next(self) -> float:
        if len(self.values) < 2:
            return self._further()
        low, high = math.log(self.low), math.log(self.high)
        self.within += 1
        if self.within > _HALVED:
            slow, self.within, self.width = high - low > 0.5 * self.width, 1, high - low
            if slow:
                return math.exp(0.5 * (low + high))
        above, below = self.values[True], self.values[False]
        return math.exp((low * -below + high * above) / (above - below))
