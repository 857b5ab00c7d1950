"""Wishes on a mesh: what changes the criterion, and what holds the levels."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.basics.words import counted, place_words

from .columns import columns_along
from .draw import draw_operators
from .entries import Wishes
from .images import images
from .overhang import held_points
from .sampling import Field, sampling
from .sizes import Sized, make_sized

_MOST_ALONE = 0.1  # of the images, that may lie outside of the part
_WITHIN = 0.5  # of an image's weight, that makes a point one of a set

CriterionMap = Callable[[Array, Array], Array]  # of the criterion and the present levels
Projection = Callable[[Array], Array]  # of levels; a higher field stays higher


@dataclass(frozen=True)
class Mean:
    """A mean over points that a pattern makes alike."""

    matrix: Any  # sparse (p, p)
    alike: Array  # (p,) how many

    def of(self, values: Array) -> Array:
        found: Array = self.matrix @ values
        return found

    def any(self, mask: Array) -> Array:
        """Whether one of those alike is in a set."""
        found: Array = self.of(mask.astype(np.float64)) * self.alike >= _WITHIN
        return found


@dataclass(frozen=True)
class Shape:
    """What the loop does for the wishes, step by step."""

    kept: Array  # bool (p,): stays material
    void: Array  # bool (p,): stays empty
    steady: tuple[Projection, ...] = ()  # of criterion and levels alike
    maps: tuple[CriterionMap, ...] = ()
    projections: tuple[Projection, ...] = ()
    sized: Sized | None = None  # the sizes that are wished

    def criterion(self, criterion: Array, levels: Array) -> Array:
        """The criterion by which the wishes are held, before the threshold."""
        if self.sized is not None and self.sized.thickest is not None:
            criterion = self.sized.thickest.weakened(criterion)
        for made in self.steady:
            criterion = made(criterion)
        for mapped in self.maps:
            criterion = mapped(criterion, levels)
        return criterion

    def begun(self, levels: Array) -> Array:
        """The levels that the wishes come into force with, from any."""
        for made in self.steady:
            levels = made(levels)
        return self.levels(levels)

    def levels(self, levels: Array) -> Array:
        """The levels as near as the wishes let them be."""
        levels = np.where(self.void, -1.0, levels)
        levels[self.kept] = 1.0
        for projection in self.projections:
            levels = projection(levels)
        if self.sized is not None and self.has_sizes:
            levels = self.sized.sized(levels)
            for made in self.steady:  # the grid has other images than the mesh
                levels = made(levels)
            levels[self.void], levels[self.kept] = -1.0, 1.0
        return levels

    @property
    def has_sizes(self) -> bool:
        """Whether sizes are in force: the loop then goes on from the field before it has them."""
        return self.sized is not None and self.sized.centres is not None

    @property
    def members_stay(self) -> bool:
        """Whether there is material that the loop can't take away."""
        return self.sized is not None and self.sized.member is not None


def make_shape(field: Field, wishes: Wishes, kept: Array, void: Array) -> Shape:
    """The wishes on a mesh, with sets of its design points to keep and to leave void.

    ValueError where the mesh can't have them.
    """
    void = void & ~kept
    steady: list[Projection] = []
    maps: list[CriterionMap] = []
    projections: list[Projection] = []
    for mean in _patterns(field, wishes):
        kept, void = mean.any(kept), mean.any(void)
        steady.append(mean.of)
    if wishes.draw is not None:
        drawn, spread = draw_operators(field, wishes.draw)
        kept = drawn(kept.astype(np.float64)) >= _WITHIN
        if spread is not None:
            void = spread(void.astype(np.float64)) >= _WITHIN
        steady.append(drawn)
        projections.append(drawn)  # what is cleared up after a move may not be drawn
    if wishes.overhang is not None:
        held = held_points(field, wishes.overhang, kept)
        maps.append(held.holding)
        projections.append(held.printed)
    sized = None
    if wishes.sizes is not None:
        isometries = images(wishes.symmetry, wishes.cyclic)
        sized = make_sized(field, wishes.sizes, kept, void, isometries)
    if (both := kept & void).any():
        raise ValueError(
            f"the wishes put {counted(int(both.sum()), 'point')} both among those to keep and "
            f"those to leave void, such as {place_words(field.points[both][0], 4)}"
        )
    return Shape(kept, void, tuple(steady), tuple(maps), tuple(projections), sized)


def _patterns(field: Field, wishes: Wishes) -> list[Mean]:
    found = []
    if wishes.extruded is not None:
        found.append(Mean(*columns_along(field, wishes.extruded).mean()))
    if wishes.symmetry or wishes.cyclic is not None:
        found.append(_over_images(field, images(wishes.symmetry, wishes.cyclic)))
    return found


def _over_images(field: Field, isometries: Array) -> Mean:
    """The mean over the images of each point that lie in the part."""
    total = scipy.sparse.csr_matrix((len(field.points),) * 2)
    there = np.zeros(len(field.points))
    for one in isometries:
        weights = sampling(field, field.points @ one[:3, :3].T + one[:3, 3])
        total = total + weights
        there += np.diff(weights.indptr) > 0
    missing = len(isometries) - there
    if missing.sum() > _MOST_ALONE * len(field.points) * (len(isometries) - 1):
        alone = counted(int((missing > 0).sum()), "point")
        lost = place_words(field.points[np.argmax(missing)], 4)
        raise ValueError(
            f"the part isn't like its images by symmetry or cyclic: {alone} of {len(field.points)} "
            f"have images outside of it, such as {lost}; check the points and directions of the "
            "pattern"
        )
    matrix = (scipy.sparse.diags(1.0 / there) @ total).tocsr()
    matrix.sort_indices()
    return Mean(matrix, there)
