"""Systems of axes of a deck: *ORIENTATION of materials and springs, *TRANSFORM of nodes."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array

_ALIGNED = 1e-6  # of components of unit vectors


@dataclass(frozen=True)
class Axes:
    """`first` lies on the first axis, `second` in the plane of the first two; or, `round`, they
    are two points of the axis of a cylinder, whose directions are radial, tangential, axial."""

    first: tuple[float, float, float]
    second: tuple[float, float, float]
    round: bool = False

    def at(self, place: Array) -> Array | None:
        """Unit vectors as rows, at a place; None where they aren't defined."""
        a, b = np.array(self.first), np.array(self.second)
        if not self.round:
            return _frame(a, b)
        axis = b - a
        if not np.linalg.norm(axis) > 0:
            return None
        axis = axis / np.linalg.norm(axis)
        radial = (place - a) - ((place - a) @ axis) * axis
        frame = _frame(radial, np.cross(axis, radial))
        return frame


def _frame(first: Array, second: Array) -> Array | None:
    third = np.cross(first, second)
    if not np.linalg.norm(third) > 1e-9 * np.linalg.norm(first) * np.linalg.norm(second):
        return None
    x, z = first / np.linalg.norm(first), third / np.linalg.norm(third)
    frame: Array = np.array((x, np.cross(z, x), z))
    return frame


def along(frame: Array) -> tuple[tuple[int, int, int], tuple[int, int, int]] | None:
    """Which of x, y, z each axis lies along, and with which sign; None where one lies askew."""
    place = np.argmax(np.abs(frame), axis=1)
    signs = np.sign(frame[np.arange(3), place])
    straight = np.zeros((3, 3))
    straight[np.arange(3), place] = signs
    if np.abs(frame - straight).max() > _ALIGNED:
        return None
    return tuple(int(p) for p in place), tuple(int(s) for s in signs)  # type: ignore[return-value]
