"""Material added to a part where it breaks its limits.

Each place whose stress is near its limit or above has material added at the nearest places that
have none, the more the higher it is, as trees and bones do it (C. Mattheck, S. Burkhardt, Int. J.
Fatigue 12 (1990) 185-190). Those may be across a member, where its own surface is the design
volume's. For limits on displacements and compliance the surface moves outwards everywhere.
"""

from __future__ import annotations

import numpy as np
import scipy

from vkctl.basics.types import Array

from .design import Design, as_kept

_NEAR = 0.9  # part of its limit from which a stress has material added
_FROM = 0.85  # part of it that the move of the surface is counted from
_GAIN = 0.6  # edges that the surface moves by for a stress as high again as its limit
_MOST = 0.5  # edges that it moves in a step
_WIDE = 1.0  # edges around the nearest places over which the move fades
_FURTHEST = 8.0  # edges to the nearest places, beyond which nothing is added
_FILLED = 0.5  # level from which a design point has no room
_INSIDE = 0.998  # part of a limit that is grown to
_HIGHEST = 2.0  # change of level that fills everything
_BLOCKED = 0.5  # part of a rise, less than which the wishes let through
_LARGEST = 1.1  # times the volume before, in a step


def grown(
    design: Design, levels: Array, places: Array, ratios: Array, others: float, edge: float
) -> Array:
    """Levels (p,) of the next part, with all that the designer wishes.

    `ratios` (n,) of stresses to their limits at `places` (n, 3), `others` the largest ratio of
    another limit; `edge` is the mesh's mean one.
    """
    rise = _patterned(design, added(design, levels, places, ratios, edge))
    raised = _raised(design, levels, rise)
    blocked = np.where(raised - levels < _BLOCKED * rise, rise, 0.0)
    if design.shape.maps and blocked.any():
        raised = _raised(design, levels, np.maximum(rise, _held(design, blocked, levels)))
    if others > _INSIDE:
        larger = min(others / _INSIDE, _LARGEST)
        raised = np.maximum(_lifted(design, raised, design.volume(raised) * larger), raised)
    loose = design.loose(design.levels_of_nodes(as_kept(raised)))
    return design.shape.levels(np.where(loose, -1.0, raised)) if loose.any() else raised


def _raised(design: Design, levels: Array, rise: Array) -> Array:
    return np.maximum(design.shape.levels(np.minimum(levels + rise, 1.0)), levels)


def _held(design: Design, rise: Array, levels: Array) -> Array:
    """A rise with what has to rise below it, so that a printed part is held."""
    for mapped in design.shape.maps:
        rise = mapped(rise, levels)
    return rise


def _patterned(design: Design, rise: Array) -> Array:
    """A rise as patterns and draw directions want it."""
    highest = rise.max(initial=0.0)
    for made in design.shape.steady:
        rise = made(rise)
    reached = rise.max(initial=0.0)  # less where only one of several images is high
    return rise * (highest / reached) if reached > 0 else rise


def added(design: Design, levels: Array, places: Array, ratios: Array, edge: float) -> Array:
    """What levels (p,) rise by: 1 for an edge that the surface moves."""
    found = np.zeros(len(levels))
    room = np.flatnonzero((levels < _FILLED) & ~design.shape.void)
    high = np.flatnonzero(ratios > _NEAR)
    if not len(room) or not len(high):
        return found
    moves = np.minimum(_GAIN * (ratios[high] - _FROM), _MOST)
    tree = scipy.spatial.cKDTree(design.points[room])
    nearest, _ = tree.query(places[high], distance_upper_bound=_FURTHEST * edge)
    for place, move, least in zip(places[high], moves, nearest, strict=True):
        if not np.isfinite(least):
            continue
        reach = least + _WIDE * edge
        around = room[tree.query_ball_point(place, reach)]
        distance = np.linalg.norm(design.points[around] - place, axis=1)
        faded = np.clip((reach - distance) / (_WIDE * edge), 0.0, 1.0)
        found[around] = np.maximum(found[around], move * faded)
    return found


def _lifted(design: Design, levels: Array, volume: float) -> Array:
    """Levels raised everywhere by what makes them a volume, or all that the wishes leave."""

    def lifted(by: float) -> Array:
        return design.shape.levels(np.minimum(levels + by, 1.0))

    if design.volume(lifted(0.0)) >= volume:
        return levels
    if design.volume(lifted(_HIGHEST)) <= volume:
        return lifted(_HIGHEST)
    found: float = scipy.optimize.brentq(
        lambda by: design.volume(lifted(by)) - volume, 0.0, _HIGHEST, xtol=1e-4
    )
    return lifted(found)
