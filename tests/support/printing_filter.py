"""What of the densities of a regular grid can be printed, layer after layer from the plate up.

An element is printed as dense as its blueprint, at most as dense as the densest of what holds it:
the elements of the layer below, under it and beside that. M. Langelaar, Addit. Manuf. 12 (2016)
60-70; Struct. Multidisc. Optim. 55 (2017) 871-883. The smaller and the largest are smooth, with the
constants of these papers.
"""

from __future__ import annotations

from dataclasses import dataclass
from itertools import product

import numpy as np

_POWER = 40.0  # P of the largest
_EVEN = 0.5  # density that the largest of as many equal ones is exact at
_ROUND = 1e-4  # epsilon of the smaller
_SHIFT = 100 * np.finfo(np.float64).tiny ** (1 / _POWER)  # added: powers stay above zero


@dataclass(frozen=True)
class Printer:
    """Elements of a grid in layers from the plate up."""

    layers: np.ndarray  # (l, k), numbers of elements
    holders: np.ndarray  # (k, s), places in the layer below, k where there is none
    kept: np.ndarray  # bool (elements,): there whatever holds them

    def printed(self, blueprint: np.ndarray) -> np.ndarray:
        """Densities as they are printed."""
        found = blueprint.copy()
        for below, layer in zip(self.layers, self.layers[1:], strict=False):
            held = self._largest(found[below])[0]
            drawn = blueprint[layer]
            found[layer] = np.where(self.kept[layer], drawn, _smaller(drawn, held))
        return found

    def slope(self, blueprint: np.ndarray, by_printed: np.ndarray) -> np.ndarray:
        """Derivative by the blueprint of what has a derivative by the printed densities."""
        printed, found = self.printed(blueprint), by_printed.copy()
        for below, layer in zip(self.layers[-2::-1], self.layers[:0:-1], strict=True):
            held, by_holders = self._largest(printed[below])
            away = blueprint[layer] - held
            by_held = 0.5 * (1 + away / np.sqrt(away**2 + _ROUND))
            by_held[self.kept[layer]] = 0.0
            total = np.zeros(layer.size + 1)
            np.add.at(total, self.holders, (by_held * found[layer])[:, None] * by_holders)
            found[below] += total[:-1]
            found[layer] *= 1 - by_held
        return found

    def _largest(self, below: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """The smooth largest (k,) of the holders, and its derivatives (k, s) by each."""
        count = self.holders.shape[1]
        root = _POWER + np.log(count) / np.log(_EVEN)
        shifted = np.append(below, 0.0)[self.holders] + _SHIFT
        total = (shifted**_POWER).sum(axis=1)
        largest = total ** (1 / root)
        slopes = _POWER / root * (largest / total)[:, None] * shifted ** (_POWER - 1)
        return largest, slopes


def _smaller(one: np.ndarray, other: np.ndarray) -> np.ndarray:
    found: np.ndarray = 0.5 * (one + other - np.sqrt((one - other) ** 2 + _ROUND) + np.sqrt(_ROUND))
    return found


def printer(middles: np.ndarray, build: np.ndarray, kept: np.ndarray) -> Printer:
    """Of a box of cubes of one size, by their middles (n, 3), printed along an axis.

    Three elements hold one in a grid that is one cube thick, otherwise five, fewer at its sides.
    """
    axis = int(np.abs(build).argmax())
    places = [np.unique(np.round(middles[:, k], 6), return_inverse=True)[1] for k in range(3)]
    counts = [int(place.max()) + 1 for place in places]
    numbers = np.full(counts, -1)
    numbers[tuple(places)] = np.arange(len(middles))
    if (numbers < 0).any() or len(middles) != numbers.size:
        raise ValueError("the overhang of densities is for a box of hexahedra in a grid")
    layers = np.moveaxis(numbers, axis, 0)
    if build[axis] < 0:
        layers = layers[::-1]
    flat = layers.reshape(len(layers), -1)
    return Printer(flat, _holders(layers.shape[1:]), kept)


def _holders(counts: tuple[int, ...]) -> np.ndarray:
    """Of each place of a layer: itself and its neighbours, where the layer has more than one."""
    numbers = np.pad(np.arange(np.prod(counts)).reshape(counts), 1, constant_values=np.prod(counts))
    steps = [(a, b) for a, b in product((-1, 0, 1), repeat=2) if not (a and b)]
    steps = [(a, b) for a, b in steps if not (a and counts[0] == 1) and not (b and counts[1] == 1)]
    n, m = counts
    found = [numbers[1 + a : 1 + a + n, 1 + b : 1 + b + m].ravel() for a, b in steps]
    return np.column_stack(found)
