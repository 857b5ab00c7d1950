"""Members of a largest thickness: no ball of more than a diameter fits into the part.

Where one does, the criterion around its middle loses weight, step by step, until the design has
less material there, and gets it back slowly once it has. So thick members part where they carry
least, from the first step on, while there is still material everywhere to choose from. What is
left once the sizes come into force is opened around the middle of each ball, and grows in none.

That is a multiplier for each local limit on the volume in a ball: J. K. Guest, Struct. Multidisc.
Optim. 37 (2009) 463-473; B. S. Lazarov, F. Wang, Comput. Methods Appl. Mech. Engrg. 318 (2017)
826-844; by distances from the surface, as here, G. Allaire, F. Jouve, G. Michailidis, Struct.
Multidisc. Optim. 53 (2016) 1349-1382.
"""

from __future__ import annotations

from dataclasses import dataclass, replace

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.basics.words import place_words

from .measure import COARSEST
from .places import PER_EDGE, Places, depths, distances, images_at
from .sampling import Field

_TAKEN = 0.1  # of the criterion in a step, where a ball fits
_GIVEN_BACK = 0.05  # where none does any more
_MOST_TAKEN = 0.95
_CLOSE = 1.0  # edges from the middle of a ball, where all of that is taken
_FAR = 1.5  # where none is
_GAP = 1.25  # edges, radius of an opening
_PART_OF_SIZE = 0.25  # that is no more than this of the thickness
_OPENED = 0.25  # of the levels in the middle, in a step
_EDGED = 1.5  # times that radius, where the opening ends
_RIDGE = 3  # places across which a middle is the deepest
_BESIDE = 2.0  # steps from a ball, that its points' neighbours may be away
_UNSEEN = 0.5  # steps that places leave open
_LEAST_HOLE = 1.0  # edges: what a mesh can have as a hole
# Void in thinnest coverings of space and plane by balls, as a part of their own volume.
_COVERING = {2: 1.2092, 3: 1.4635}


@dataclass(frozen=True)
class Thickest:
    """Where balls of a diameter fit, in steps of the grid, and what is done about them."""

    size: float
    places: Places
    radius: float
    gap: float
    closed: tuple[bool, ...]  # axes along which balls end with the grid
    isometries: Array  # (n, 4, 4) of a pattern
    points: Array  # (p, 3)
    taken: Array  # (p,): parts of the criterion

    def weakened(self, criterion: Array) -> Array:
        """The criterion with less of it where members are too thick."""
        found: Array = criterion - self.taken * np.abs(criterion)
        return found

    def following(self, levels: Array) -> Thickest:
        """With what the step after a design takes."""
        away = self._away(self._depth(levels) >= self.radius - _UNSEEN) / PER_EDGE
        near = np.clip((_FAR - away) / (_FAR - _CLOSE), 0.0, 1.0)
        taken = self.taken + _TAKEN * near - _GIVEN_BACK * (1.0 - near)
        return self.with_taken(np.clip(taken, 0.0, _MOST_TAKEN))

    def with_taken(self, taken: Array) -> Thickest:
        """As a restart reads it."""
        return replace(self, taken=taken.astype(np.float32).astype(np.float64))

    def opened(self, levels: Array) -> Array:
        """The field with less in the middles of what is too thick: some steps open them."""
        depth = self._depth(levels)
        full = depth >= self.radius - _UNSEEN
        if not full.any():
            return levels
        middles = full & (depth >= scipy.ndimage.maximum_filter(depth, _RIDGE))
        near = np.clip(2.0 * (_EDGED - self._away(middles) / self.gap), 0.0, 1.0)
        near[self.places.weights[np.flatnonzero(middles)].indices] = 1.0  # whatever the mesh
        return np.maximum(levels - _OPENED * near, -1.0)

    def held(self, levels: Array, before: Array | None) -> Array:
        """The field with the levels of a design that isn't too thick in each ball that is full.

        There nothing grows, so that no ball is full any more.
        """
        full = self._depth(levels) >= self.radius - _UNSEEN
        if before is None or not full.any():
            return levels
        within = self._away(full) <= self.radius + _BESIDE
        return np.where(within, np.minimum(levels, before), levels)

    def _depth(self, levels: Array) -> Array:
        return depths(self.places.inside & (self.places.sampled(levels) > 0), self.closed)

    def _away(self, some: Array) -> Array:
        return images_at(
            self.places, np.minimum(distances(some), 1e9), self.isometries, self.points
        )


def make_thickest(
    field: Field, places: Places, size: float, hole: float | None, kept: Array, isometries: Array
) -> Thickest:
    """The limit on a mesh; ValueError where it can't be held."""
    step, shape = places.step, places.inside.shape
    if size < COARSEST * field.edge:
        raise ValueError(
            f"thickest = {size:.4g} in [optimise.sizes] is below two edges of the mesh, which are "
            f"{COARSEST * field.edge:.4g}: make it larger, or the mesh finer"
        )
    found = Thickest(
        size,
        places,
        0.5 * size / step,
        max(min(_GAP * PER_EDGE, _PART_OF_SIZE * size / step), 0.5 * (hole or 0.0) / step),
        tuple(bool(n * step >= size) for n in shape),
        isometries,
        field.points,
        np.zeros(len(field.points)),
    )
    _refuse_thick_sets(found, kept)
    return found


def _refuse_thick_sets(thickest: Thickest, kept: Array) -> None:
    if not kept.any():
        return
    places = thickest.places
    phase = places.inside & (places.sampled(kept.astype(np.float64)) >= 0.5)
    depth = depths(phase, thickest.closed)
    if depth.max() <= thickest.radius:
        return
    middle = places.lowest + places.step * np.array(np.unravel_index(depth.argmax(), depth.shape))
    raise ValueError(
        f"what is to be kept is {2 * depth.max() * places.step:.4g} thick at "
        f"{place_words(middle, 4)}, more than thickest = {thickest.size:.4g} in [optimise.sizes]: "
        "keep less, or make it larger"
    )


def most_filled(thickest: Thickest, hole: float | None) -> float:
    """The part of the design volume that such members can't exceed, whatever their shape.

    The middles of all balls lie within a radius of some hole, or of the faces. So balls of the
    radius of both around the holes cover what is further inside, as thinly as they can.
    """
    hole = max(hole or 0.0, _LEAST_HOLE * PER_EDGE * thickest.places.step)
    dimensions = sum(thickest.closed)
    if dimensions not in _COVERING:
        return 1.0
    inside = thickest.places.inside
    inner = (depths(inside, thickest.closed) >= thickest.radius).sum() / inside.sum()
    void = _COVERING[dimensions] * (hole / (hole + thickest.size)) ** dimensions
    return float(1.0 - void * inner)
