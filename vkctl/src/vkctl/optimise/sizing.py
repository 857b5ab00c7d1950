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
from .design import Design
from .history import HistoryRow
from .settings import Settings
from .smoothing import smoothing_over
from .standing import Loop, levels_of
from .wishes.entries import SizeWishes
from .wishes.measure import Sizes
from .wishes.sizes import THIN, Sized
from .wishes.thickest import most_filled

_LATEST = 2 / 3  # of the steps
_OVER = 0.002  # of the design volume, from which it is told
_ROUNDING = 1e-6
_WIDENED = 1.25  # times the radius before


def follow_sizes(loop: Loop, levels: Array, free: Array, target: float, settled: bool) -> None:
    """Put the sizes that are wished into force with the next step, or widen the radius.

    `free` is the field that the levels were made from.
    """
    design, state, settings = loop.design, loop.state, loop.settings
    shape, sized = design.shape, design.shape.sized
    if sized is None:
        return
    if sized.thickest is not None:
        sized = replace(sized, thickest=sized.thickest.following(free))
        shape = design.shape = replace(shape, sized=sized)
    if state.sized:
        design.shape = replace(shape, sized=sized.following(levels, sized.followed(levels)))
        _give_up_loose(design, levels)
        return
    late = state.step >= _LATEST * settings.steps
    if not (settled or late):
        return
    for thin in (THIN, 0.0):  # where loads need them, members that are thinner as well
        begun = sized.following(levels, sized.begun(levels, thin))
        design.shape = replace(shape, sized=begun)
        if not design.pieces(_nodes(design, levels)).broken:
            break
    begun = _give_up_loose(design, levels)
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


def _give_up_loose(design: Design, levels: Array) -> Sized:
    """Leave out members in pieces that carry nothing, which their balls alone would keep."""
    sized = design.shape.sized
    assert sized is not None
    if (loose := design.loose(_nodes(design, levels))).any():
        sized = sized.without(loose)
        design.shape = replace(design.shape, sized=sized)
    return sized


def write_sizes(loop: Loop, step: int) -> None:
    """Keep what a step's levels were made with, so that they have their sizes."""
    sized = loop.design.shape.sized
    if sized is not None and sized.thickest is not None:
        history.save_array(history.taken_file(loop.directory, step), sized.thickest.taken)
    if sized is not None and sized.centres is not None:
        path = history.centres_file(loop.directory, step)
        history.save_array(path, np.flatnonzero(sized.centres))


def read_sizes(loop: Loop) -> None:
    """Put the sizes of a loop into force as far as its next step has them."""
    sized = loop.design.shape.sized
    if sized is None:
        return
    path = history.taken_file(loop.directory, loop.state.step)
    if sized.thickest is not None and path.exists():
        taken = history.load_array(path, len(loop.design.points))
        sized = replace(sized, thickest=sized.thickest.with_taken(taken))
        loop.design.shape = replace(loop.design.shape, sized=sized)
    if not loop.state.sized:
        return
    count = int(np.prod(sized.shape))
    places = history.load_array(history.centres_file(loop.directory, loop.state.step))
    centres = np.zeros(count, np.bool_)
    centres[places[(places >= 0) & (places < count)].astype(np.int64)] = True
    levels = levels_of(loop, loop.state.step - 1)
    sized = sized.following(levels, centres.reshape(sized.shape))
    loop.design.shape = replace(loop.design.shape, sized=sized)


def refuse_overfull(design: Design, settings: Settings) -> None:
    """ValueError where members that are no thicker than wished can't be the volume."""
    sizes, sized = settings.wishes.sizes, design.shape.sized
    if sizes is None or sized is None or sized.thickest is None or settings.goal == "mass":
        return
    most = most_filled(sized.thickest, sizes.hole)
    if settings.volume > most:
        raise ValueError(
            f"members of at most {sizes.thickest:g} fill no more than {most:.3g} of the design "
            f"volume, and volume = {settings.volume:g}: make thickest larger, or the volume smaller"
        )


def _told_thickest(most: float, found: float | None, last: HistoryRow) -> list[str]:
    if found is None:
        return []
    text = f"largest thickness: {found:.4g} of at most {most:g}"
    told = [text if found <= most * (1 + _ROUNDING) else f"{text}: the size isn't met"]
    if last.volume < last.target - _OVER:
        told.append(
            f"members of at most {most:g} are {last.volume:.4g} of the design volume: less than "
            f"the {last.target:.4g} asked for"
        )
    return told


def told_sizes(wished: SizeWishes, measured: Sizes, last: HistoryRow) -> list[str]:
    """A sentence for each size that was wished, and one where it takes more than the volume."""
    told = []
    if wished.thickest is not None:
        told += _told_thickest(wished.thickest, measured.thickest, last)
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
