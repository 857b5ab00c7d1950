"""Members and holes of a smallest size: unions of balls.

Material that an opening by balls leaves is a union of balls, and so it has no member thinner than
them (J. Serra, Image Analysis and Mathematical Morphology, Academic Press 1982). But an opening
cuts a thin member through, and what is cut carries nothing any more. So the members that a design
has when its sizes come into force stay: balls around their middles are material from then on, as
around nodal densities in J. K. Guest, J. H. Prevost, T. Belytschko, Int. J. Numer. Meth. Engng 61
(2004) 238-254.
What is added to them is opened, and holes are opened as the void.
"""

from __future__ import annotations

from dataclasses import dataclass, replace

import numpy as np
import scipy

from vkctl.basics.types import Array

from .entries import SizeWishes
from .measure import COARSEST
from .places import PER_EDGE, Places, depths, distances, images_at, make_places
from .sampling import Field
from .thickest import Thickest, make_thickest

THIN = 0.3  # of the size, from which a member is thickened to it
_LEAST = 0.2  # of the size, below which nothing counts as a member
_SLENDER = 0.75  # of the size, below which a member may be given up
_MIDDLE = 0.6  # slope of the depth below which a place lies in the middle of a member
_CORNER = 0.5  # of the radius: further off than the nearest centre, a corner belongs to a ball
_SLACK = 1.0  # steps: what the grid doesn't resolve
_MOST_ROUNDS = 4
_ALONE = np.eye(4)[None]  # isometries where there is no pattern
_EVERYWHERE = np.ones((3, 3, 3))  # neighbours across corners too


@dataclass(frozen=True)
class Balls:
    """Where balls of a radius may lie, in steps of the grid."""

    places: Places
    radius: float
    room: Array  # bool grid: what balls may take up
    beyond: Array  # bool grid: what counts as taken, outside of the design volume
    closed: tuple[bool, ...]  # axes along which they end with the grid
    nearest: Array  # (3, x, y, z): the nearest place where the centre of a ball may lie
    reach: Array  # (p,): how far balls reach, which is further in corners that none fits into
    free: Array  # bool (p,): so far from all balls that the size has no meaning there
    points: Array  # (p, 3)
    isometries: Array  # (n, 4, 4) of a pattern: a ball comes with its images
    always: Array  # bool grid: centres of balls that are there whatever the field is

    def phase(self, levels: Array) -> Array:
        """Places in the material."""
        found: Array = self.beyond | self.room & (self.places.sampled(levels) > 0)
        return found

    def opened(self, levels: Array, centres: Array | None = None) -> Array:
        """The field made of balls, with those around given centres in any case."""
        phase = self.phase(levels)
        core = phase & (depths(phase, self.closed) >= self.radius - 0.5)
        found = np.minimum(levels, self.around(core, self.radius + _SLACK))
        if centres is not None:
            found = np.maximum(found, self.around(centres))
        found[self.free] = levels[self.free]
        return np.clip(found, -1.0, 1.0)

    def middles(self, levels: Array, thin: float) -> Array:
        """Centres (x, y, z) of balls that hold the members with `thin` of the size on average."""
        phase = self.phase(levels)
        depth = depths(phase, self.closed)
        # Towards a face a member goes on straight on: its middle doesn't fork into the corners.
        through = depths(phase | ~self.room, (False, False, False))
        level = _is_level(depth) | _is_level(through)
        within = phase & (depth >= _LEAST * self.radius)
        middles = _one_wide(within & level)
        # Where the grid has no clear middle the deepest places stand in.
        away = distances(middles | (depth >= self.radius)) > 0.5 * self.radius
        middles |= within & away & (depth >= scipy.ndimage.maximum_filter(depth, 3))
        slender = middles & (depth < _SLENDER * self.radius)
        near = scipy.ndimage.binary_dilation(slender, _EVERYWHERE)
        numbers = np.where(slender, scipy.ndimage.label(near, _EVERYWHERE)[0], 0)
        sums = np.bincount(numbers.ravel(), depth.ravel()) / np.bincount(numbers.ravel())
        sums[0] = self.radius
        middles &= sums[numbers] >= thin * self.radius
        found = self.always.copy()
        found[tuple(self.nearest[:, middles])] = True
        return found

    def followed(self, levels: Array, centres: Array) -> Array:
        """The centres of a design's members: those that there were, where members have their size.

        Elsewhere they follow the middle, and new ones stand in where members have grown thin.
        """
        slender = centres & (depths(self.phase(levels), self.closed) < self.radius + 1.0)
        middles = self.middles(levels, THIN)
        found: Array = slender | middles & (distances(slender) > 0.5 * self.radius)
        return found

    def around(self, centres: Array, reach: Array | float | None = None) -> Array:
        """Levels of balls around centres: 0 on their surfaces, 1 an edge inside."""
        reach = self.reach if reach is None else reach
        away = images_at(
            self.places, np.minimum(distances(centres), 1e9), self.isometries, self.points
        )
        return np.asarray((reach - away) / PER_EDGE)


def _is_level(depth: Array) -> Array:
    slopes = [np.gradient(depth, axis=k) for k in range(3) if depth.shape[k] > 1]
    return np.asarray(sum(slope**2 for slope in slopes) < _MIDDLE**2)


def _one_wide(some: Array) -> Array:
    """Without one of two places side by side, where a middle lies between them."""
    found = some.copy()
    for axis in range(3):
        lines = np.moveaxis(np.pad(found, [(2 * (k == axis),) * 2 for k in range(3)]), axis, 0)
        before, own, after, beyond = (lines[k : len(lines) - 3 + k] for k in range(4))
        pairs = own & after & ~before & ~beyond
        found &= ~np.moveaxis(pairs[1:], 0, axis)[tuple(slice(n) for n in found.shape)]
    return found


@dataclass(frozen=True)
class Sized:
    """Fields whose members and holes have their sizes."""

    member: Balls | None
    hole: Balls | None
    thickest: Thickest | None
    centres: Array | None = None  # bool grid: of the members that stay; None: not in force yet
    floor: Array | float = -1.0  # levels (p,) that no step falls below
    before: Array | None = None  # levels (p,) that no ball which would be full rises above

    def followed(self, levels: Array) -> Array:
        """Centres for the step after a design that has its sizes."""
        assert self.centres is not None
        if self.member is None:
            return self.centres
        centres = self.centres
        if self.thickest is not None:  # what was cut holds no member any more
            centres = centres & (self.member.phase(levels) | self.member.always)
        return self.member.followed(levels, centres)

    @property
    def shape(self) -> tuple[int, ...]:
        """Of the grid."""
        some = self.member or self.hole or self.thickest
        assert some is not None
        return some.places.inside.shape

    def sized(self, levels: Array) -> Array:
        """The field without what is too thin, and with holes that are too small filled."""
        if self.centres is None:
            return levels
        levels = np.maximum(levels, self.floor)
        for _ in range(_MOST_ROUNDS):
            before = levels > 0
            if self.hole is not None:
                levels = -self.hole.opened(-levels)
            if self.member is not None:
                levels = self.member.opened(levels, self.centres)
            if self.member is None or self.hole is None or np.array_equal(levels > 0, before):
                break
        return levels if self.thickest is None else self.thickest.held(levels, self.before)

    def following(self, levels: Array, centres: Array) -> Sized:
        """In force for the step after a design; its surface recedes by an edge at most.

        So no hole opens inside of a member, whose sides alone might be too thin to stay.
        """
        before = None if self.thickest is None else self.thickest.opened(levels)
        balls = self.member or self.hole
        if balls is None:
            return replace(self, centres=centres, before=before)
        inner = depths(balls.phase(levels), balls.closed)
        floor = np.minimum(balls.places.at(inner, balls.points) / PER_EDGE - 1.0, 1.0)
        return replace(self, centres=centres, floor=floor, before=before)

    def without(self, points: Array) -> Sized:
        """Without the members at some design points."""
        if self.centres is None or self.member is None:
            return self
        there = self.member.places.sampled(points.astype(np.float64)) > 0
        return replace(self, centres=self.centres & ~there | self.member.always)

    def begun(self, levels: Array, thin: float) -> Array:
        """Centres of the members of a design."""
        if self.member is None:
            return np.zeros(self.shape, np.bool_)
        return self.member.middles(levels, thin)


def make_sized(
    field: Field, sizes: SizeWishes, kept: Array, void: Array, isometries: Array = _ALONE
) -> Sized:
    """The sizes on a mesh, with the images of a pattern; ValueError where it can't have them."""
    places = make_places(field)
    member = hole = thickest = None
    if sizes.member is not None:
        room = places.inside & (places.sampled(void.astype(np.float64)) < 0.5)
        member = _balls(field, places, sizes.member, "member", room, kept, isometries)
    if sizes.hole is not None:
        room = np.ones_like(places.inside)
        hole = _balls(field, places, sizes.hole, "hole", room, np.zeros_like(void), isometries)
    if sizes.thickest is not None:
        thickest = make_thickest(field, places, sizes.thickest, sizes.hole, kept, isometries)
    return Sized(member, hole, thickest)


def _balls(
    field: Field,
    places: Places,
    size: float,
    what: str,
    room: Array,
    always: Array,
    isometries: Array,
) -> Balls:
    if size < COARSEST * field.edge:
        raise ValueError(
            f"{what} = {size:.4g} in [optimise.sizes] is below two edges of the mesh, which are "
            f"{COARSEST * field.edge:.4g}: make the size larger, or the mesh finer"
        )
    radius = 0.5 * size / places.step
    # Across something that is thinner than the balls all over they stand out.
    closed = tuple(bool(n >= 2.0 * radius and what == "member") for n in room.shape)
    fitting = room & (depths(room, closed) >= radius - 0.5)
    if not fitting.any():
        raise ValueError(
            f"{what} = {size:.4g} in [optimise.sizes] is thicker than the design volume"
        )
    away, nearest = scipy.ndimage.distance_transform_edt(~fitting, return_indices=True)
    far = places.at(away, field.points)
    held = np.zeros_like(room)
    held[tuple(nearest[:, *places.nearest(field.points[always]).T])] = True
    return Balls(
        places,
        radius,
        room,
        ~places.inside if what == "hole" else np.zeros_like(room),
        closed,
        nearest,
        np.where(far > radius, far + _CORNER * radius, radius),
        far > 2.0 * radius,
        field.points,
        isometries,
        held,
    )
