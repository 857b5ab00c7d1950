"""When sizes come into force in a loop, and which members stay.

The loop first finds a part without them, smoothed over a radius that leaves members of about their
size. Once that has come to rest, the middles of its members are kept, and the loop goes on to rest
with them. Where these members are more than the volume at their size, the radius grows instead,
which leaves fewer. The last third of the steps has the sizes in any case.
"""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from vkctl.basics.types import Array

from . import history
from .design import Design, smoothing_over
from .history import HistoryRow
from .standing import Loop, levels_of
from .wishes.entries import LeastSizes
from .wishes.measure import Sizes
from .wishes.sizes import THIN

_LATEST = 2 / 3  # of the steps
_OVER = 0.002  # of the design volume, from which it is told
_ROUNDING = 1e-6
_WIDENED = 1.25  # times the radius before


def follow_sizes(loop: Loop, levels: Array, target: float, settled: bool) -> None:
    """Put the sizes that are wished into force with the next step, or widen the radius."""
    design, state, settings = loop.design, loop.state, loop.settings
    shape, sized = design.shape, design.shape.sized
    if sized is None:
        return
    if state.sized:
        design.shape = replace(shape, sized=sized.following(levels, sized.followed(levels)))
        return
    late = state.step >= _LATEST * settings.steps
    if not (settled or late):
        return
    for thin in (THIN, 0.0):  # where loads need them, members that are thinner as well
        begun = sized.following(levels, sized.begun(levels, thin))
        design.shape = replace(shape, sized=begun)
        if not design.pieces(_nodes(design, levels)).broken:
            break
    least = design.volume(replace(begun, floor=-1.0).sized(np.full_like(levels, -1.0)))
    state.since = state.step + 1
    if late or least <= target:
        state.sized = state.step + 1
    else:
        design.shape = shape
        state.widened *= _WIDENED
        design.smoothing = smoothing_over(design.points, state.widened * loop.reach)


def _nodes(design: Design, levels: Array) -> Array:
    return design.levels_of_nodes(design.solved_levels(levels))


def write_centres(loop: Loop, step: int) -> None:
    """Keep the centres that a step's levels were made with."""
    sized = loop.design.shape.sized
    if sized is not None and sized.centres is not None:
        path = history.centres_file(loop.directory, step)
        history.save_array(path, np.flatnonzero(sized.centres))


def read_centres(loop: Loop) -> None:
    """Put the sizes of a loop that has them into force as its next step has them."""
    sized = loop.design.shape.sized
    if sized is None or not loop.state.sized:
        return
    count = int(np.prod(sized.shape))
    places = history.load_array(history.centres_file(loop.directory, loop.state.step))
    centres = np.zeros(count, np.bool_)
    centres[places[(places >= 0) & (places < count)].astype(np.int64)] = True
    levels = levels_of(loop, loop.state.step - 1)
    sized = sized.following(levels, centres.reshape(sized.shape))
    loop.design.shape = replace(loop.design.shape, sized=sized)


def told_sizes(wished: LeastSizes, measured: Sizes, last: HistoryRow) -> list[str]:
    """A sentence for each size that was wished, and one where it takes more than the volume."""
    told = []
    for name in ("member", "hole"):
        least, found = getattr(wished, name), getattr(measured, name)
        if least is None:
            continue
        if found is None:
            told.append(f"no {name}: at least {least:g} was asked for")
            continue
        text = f"smallest {name}: {found:.4g} of at least {least:g}"
        told.append(text if found >= least * (1 - _ROUNDING) else f"{text}: the size isn't met")
    if wished.member is not None and last.volume > last.target + _OVER:
        told.append(
            f"members of {wished.member:g} are {last.volume:.4g} of the design volume: more than "
            f"the {last.target:.4g} asked for"
        )
    return told
