"""A density method of what can be printed, on a grid.

Blueprints are filtered, driven to black and white and printed (`printing_filter`); the material is
what is printed of them, driven so again. Optimality criteria, with the multiplier bisected on the
printed volume. Grey holds well and costs little: parts that aren't driven stand on grey.
F. Wang, B. S. Lazarov, O. Sigmund, Struct. Multidisc. Optim. 43 (2011) 767-784.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from density_method import EMPTY
from printing_filter import Printer
from scipy import sparse

_FALL = 60  # steps from the start's volume to the one that is wanted
_STAGE = 30  # steps with each sharpness of the projection: none, 1, 2, 4, ...
_SHARPEST = 32.0
_LAST = 90  # most steps with the sharpest
_REST = 1e-3  # of the compliance: the most that it changes over ten steps at rest
_MOVE = 0.05  # of a variable in a step, less in proportion beyond a sharpness of _COARSE
_COARSE = 4.0
_EXACT = 1e-4  # of the multiplier


@dataclass(frozen=True)
class Drawing:
    """From design variables to what is printed of them, and back for derivatives."""

    means: sparse.csr_matrix
    printer: Printer
    sharpness: float  # 0: not projected

    def printed(self, x: np.ndarray) -> np.ndarray:
        return self._driven(self.printer.printed(self._blueprint(x)[0]))[0]

    def slope(self, x: np.ndarray, by_printed: np.ndarray) -> np.ndarray:
        blueprint, by_mean = self._blueprint(x)
        by_print = self._driven(self.printer.printed(blueprint))[1]
        by_blueprint = self.printer.slope(blueprint, by_print * by_printed)
        found: np.ndarray = self.means.T @ (by_mean * by_blueprint)
        return found

    def _blueprint(self, x: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Means, driven to black and white and 1 where they are kept, and their derivatives."""
        value, slope = self._driven(self.means @ x)
        return np.where(self.printer.kept, 1.0, value), np.where(self.printer.kept, 0.0, slope)

    def _driven(self, values: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Values driven to black and white, and their derivatives."""
        beta = self.sharpness
        if not beta:
            return values, np.ones_like(values)
        turned, whole = np.tanh(beta * (values - 0.5)), np.tanh(0.5 * beta)
        return 0.5 * (1 + turned / whole), 0.5 * beta * (1 - turned**2) / whole


def printed_densities(
    local: Callable[[np.ndarray], np.ndarray],
    means: sparse.csr_matrix,
    printer: Printer,
    begin: float,
    volume: float,
) -> tuple[np.ndarray, list[float]]:
    """Printed densities, and the compliance of each step, from blueprints of one value.

    `local` gives u K u of each element at modulus 1 from their moduli; all are of one volume.
    """
    x = np.where(printer.kept, 1.0, begin)
    told: list[float] = []
    multiplier, drawing = 1.0, Drawing(means, printer, 0.0)
    while not _at_rest(told):
        drawing = Drawing(means, printer, _sharpness(len(told)))
        there = drawing.printed(x)
        moduli = EMPTY + there**3 * (1 - EMPTY)
        found = local(moduli)
        told.append(float((moduli * found).sum()))
        gain = drawing.slope(x, 3 * (1 - EMPTY) * there**2 * found)
        cost = drawing.slope(x, np.ones_like(there))
        share = max(volume, begin + (volume - begin) * len(told) / _FALL)
        x, multiplier = _updated(x, gain / np.maximum(cost, 1e-12), drawing, share, multiplier)
    return drawing.printed(x), told


def _sharpness(step: int) -> float:
    stage = (step - _FALL) // _STAGE
    return 0.0 if stage < 1 else min(_SHARPEST, 2.0 ** (stage - 1))


def _at_rest(told: list[float]) -> bool:
    sharp = sum(_sharpness(step) == _SHARPEST for step in range(len(told)))
    last = told[-10:]
    rest = sharp >= _STAGE and max(last) - min(last) < _REST * min(last)
    return rest or sharp == _LAST


def _updated(
    x: np.ndarray, worth: np.ndarray, drawing: Drawing, share: float, multiplier: float
) -> tuple[np.ndarray, float]:
    """Where material is worth more than the multiplier it grows, to the share that is printed."""
    low, high = 0.5 * multiplier, 2.0 * multiplier
    most = _MOVE / max(1.0, drawing.sharpness / _COARSE)

    def moved(price: float) -> np.ndarray:
        new = np.clip(x * np.sqrt(np.maximum(worth, 1e-10) / price), x - most, x + most)
        found: np.ndarray = np.where(drawing.printer.kept, 1.0, np.clip(new, 0.0, 1.0))
        return found

    def too_much(price: float) -> bool:
        return bool(drawing.printed(moved(price)).mean() > share)

    while not too_much(low) and low > 1e-12:
        low /= 4
    while too_much(high) and high < 1e12:
        high *= 4
    while high / low > 1 + _EXACT:
        middle = float(np.sqrt(low * high))
        low, high = (middle, high) if too_much(middle) else (low, middle)
    return moved(high), high
