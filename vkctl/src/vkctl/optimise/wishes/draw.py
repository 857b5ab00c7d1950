"""Shapes that a mould or a tool can be drawn from: no undercut along the directions.

Along a direction material must not follow on void, so a level is raised to the highest that lies
further along. With several directions a point may be empty that one of them reaches: the lowest of
their fields counts.

Q. Xia, T. Shi, M. Y. Wang, S. Liu, Struct. Multidisc. Optim. 41 (2010) 735-747.
A. R. Gersborg, C. S. Andreasen, Struct. Multidisc. Optim. 44 (2011) 875-881.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import numpy as np

from vkctl.basics.types import Array

from .columns import Columns, columns_along
from .entries import Draw
from .sampling import Field

Drawn = Callable[[Array], Array]


def highest_beyond(columns: Columns, values: Array) -> Array:
    """At each point the highest value on its line from there on."""
    lined = columns.lined(values, -np.inf)
    return columns.own(np.maximum.accumulate(lined[:, ::-1], axis=1)[:, ::-1])


def highest_before(columns: Columns, values: Array) -> Array:
    """At each point the highest value on its line up to there."""
    return columns.own(np.maximum.accumulate(columns.lined(values, -np.inf), axis=1))


def _from_parting(columns: Columns, above: Array, values: Array) -> Array:
    """Away from the parting plane on both of its sides."""
    up, down = highest_beyond(columns, values), highest_before(columns, values)
    found: Array = np.where(above, up, down)
    return found


def _reached(every: list[Columns], values: Array) -> Array:
    """What none of several directions reaches stays as high as what covers it."""
    lowest: Array = np.min([highest_beyond(columns, values) for columns in every], axis=0)
    return lowest


def draw_operators(field: Field, draw: Draw) -> tuple[Drawn, Drawn | None]:
    """What raises a field so that it can be drawn, and what spreads void.

    Void can't be spread where it isn't known to which side.
    """
    every = [columns_along(field, direction) for direction in draw.directions]
    if len(every) > 1:
        return partial(_reached, every), None
    if draw.parting is None:
        return partial(highest_beyond, every[0]), partial(highest_before, every[0])
    above = (field.points - np.array(draw.parting)) @ np.array(draw.directions[0]) >= 0
    apart = partial(_from_parting, every[0], above)
    return apart, partial(_void_from_parting, every[0], above)


def _void_from_parting(columns: Columns, above: Array, values: Array) -> Array:
    """Void on one side of the parting plane reaches from there outwards, on that side alone."""
    upper = highest_before(columns, np.where(above, values, 0.0))
    lower = highest_beyond(columns, np.where(above, 0.0, values))
    found: Array = np.where(above, upper, lower)
    return found
