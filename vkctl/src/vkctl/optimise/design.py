"""The design field on a mesh: smoothing, volume, and the threshold that meets a volume."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.directory.levels import MEAN_LEVEL
from vkctl.directory.model import Model

from .pieces import Joints, Pieces, find_pieces, loose_nodes, make_joints
from .smoothing import near_points, smoothing_of
from .teeth import uneven_nodes
from .volume import MET, NEARLY_MET, DesignVolume, design_volume
from .wishes.entries import SizeWishes, Wishes
from .wishes.sampling import Field, mean_edge
from .wishes.shape import Shape, make_shape

DEFAULT_RADIUS = 1.5  # mean distances of neighbouring nodes
_LEVEL_RADIUS = 1.25  # edges: what levels are smoothed over, at most the radius of the criterion
_SIZE_RADIUS = 0.7  # of the smallest size wished: members come out about as thick
_NO_NODES = np.empty(0, np.int64)
_MOST_ROUNDS = 3  # of a move and clearing up, since the volume moves the surface once more
_MOST_RAISED = 1.1  # times the threshold of a design at rest, while sizes hold
_ALL = 1e-3  # share of points outside a set below which all of those alike are in it


@dataclass(frozen=True)
class Sought:
    """What the search for a threshold came to, from which the next step's begins."""

    ratio: float = 1.0  # of the threshold to that of a design at rest
    steepness: float | None = None  # by which its logarithm rises for each unit of volume less


@dataclass
class _Asked:
    """A move of the levels, whose threshold is sought."""

    levels: Array
    criterion: Array  # as the wishes want it
    volume: float
    move: float
    lowest: float  # of the criterion, where it is negative: what is sought lies above
    least_unit: float  # of what is above or below the threshold
    set_to: Array  # levels of points that don't move, no number elsewhere
    steepness: float | None = None


@dataclass
class Design:
    """What the loop needs of a model. Nodes and design points are 0-based here."""

    points: Array  # (p, 3) a place of each design point: the mean of its nodes
    node_of: Array  # nodes that have a design point
    point_of: Array  # and the design point of each
    smoothing: Any  # of the criterion: sparse (p, p), rows add up to 1
    evening: Any  # the same of the levels that the criterion asks for
    shape: Shape
    space: DesignVolume
    joints: Joints
    num_nodes: int
    sought: Sought = Sought()
    latest: tuple[Array, Pieces] | None = None  # levels per node, and the pieces they leave

    def levels_of_nodes(self, levels: Array) -> Array:
        """Level per node, scaled as the solver does; nodes without a design point are material."""
        mean = float(np.abs(levels).mean())
        nodes = np.ones(self.num_nodes)
        scale = MEAN_LEVEL / mean if mean > 0 else 0.0
        nodes[self.node_of] = levels.take(self.point_of) * scale
        return nodes

    def volume(self, levels: Array) -> float:
        """Part of the design volume that is material, as the solver counts it."""
        return self.space.share(self.levels_of_nodes(levels))

    def pieces(self, nodes: Array) -> Pieces:
        """That levels per node leave. Those of the latest are kept: asked for made and solved."""
        if self.latest is None or not np.array_equal(self.latest[0], nodes):
            self.latest = nodes, find_pieces(self.joints, nodes)
        return self.latest[1]

    def fullest(self) -> float:
        """The volume of the design that has all material which the wishes leave."""
        return self.volume(self.shape.levels(np.ones(len(self.points))))

    def next_levels(
        self, levels: Array, criterion: Array, volume: float, move: float
    ) -> tuple[Array, float]:
        """The moved field whose volume is `volume`, and its threshold.

        `solved_levels` has the levels of the design that follows.
        Pieces that carry nothing are emptied at once, and teeth and dents of the surface levelled;
        the volume is met by the rest.
        """
        asked = _asked(levels, self.shape.criterion(criterion, levels), volume, move)
        at_rest = float(np.quantile(asked.criterion, 1.0 - volume)) - asked.lowest
        highest = float(asked.criterion.max()) - asked.lowest
        if self.shape.has_sizes and self.shape.members_stay:
            # Members that stay make the volume lag: gone to at once, it would wear away all others.
            rest = self._met(replace(asked, move=1.0), at_rest, highest)[1]
            highest = min(highest, _MOST_RAISED * (asked.lowest + rest) - asked.lowest)
        guess, asked.steepness = at_rest * self.sought.ratio, self.sought.steepness
        following, above = self._met(asked, guess, highest, NEARLY_MET)
        for again in range(1, _MOST_ROUNDS):
            changed = self._cleared_up(following, asked.set_to)
            if changed or (again == 1 and not self.shape.has_sizes):
                following, above = self._met(asked, above, highest)
            if not changed:
                break
        if not self.shape.has_sizes:
            self.sought = Sought(above / at_rest if at_rest > 0 else 1.0, asked.steepness)
        return following, asked.lowest + above

    def _cleared_up(self, following: Array, set_to: Array) -> bool:
        """Set what a moved field leaves loose or uneven to other levels; whether there is any."""
        solved = as_kept(self.solved_levels(following))
        nodes = self.levels_of_nodes(solved)
        loose = self.loose(nodes)
        uneven = self._points(uneven_nodes(self.space, nodes)) & ~self.shape.kept
        if not (loose | uneven).any():
            return False
        around = self.smoothing @ solved
        for made in self.shape.steady:
            around = made(around)
        set_to[uneven] = around[uneven]
        set_to[loose] = -1.0
        return True

    def solved_levels(self, following: Array) -> Array:
        """Levels of a moved field: with its sizes, where the loop goes on from the field before."""
        return self.shape.levels(following) if self.shape.has_sizes else following

    def _met(
        self, asked: _Asked, guess: float, highest: float, near: float = MET
    ) -> tuple[Array, float]:
        """The moved field with the volume asked for, and its threshold above the lowest."""

        def field(above: float) -> Array:
            return self.levels_of_nodes(self.solved_levels(self._moved(asked, above)))

        if self.shape.has_sizes:
            above = self.space.nearest_threshold(asked.volume, highest, field, guess)
        else:
            above, asked.steepness = self.space.threshold(
                asked.volume, highest, field, guess, asked.steepness, near
            )
        return self._moved(asked, above), above

    def _moved(self, asked: _Asked, above: float) -> Array:
        """Of the levels that points are set to, unless they are no number, and else of the move."""
        threshold = asked.lowest + above
        unit = max(abs(threshold), asked.least_unit)
        if unit <= 0:
            moved = np.ones_like(asked.levels)
        else:
            wanted = asked.criterion - threshold  # tried often: in place
            wanted /= unit
            np.clip(wanted, -1.0, 1.0, out=wanted)
            wanted = self.evening @ wanted
            for made in self.shape.steady:  # images differ by the order of these sums
                wanted = made(wanted)
            moved = np.clip(wanted, -1.0, 1.0)  # which sums round beyond
            moved *= asked.move
            moved += (1.0 - asked.move) * asked.levels
            np.copyto(moved, asked.set_to, where=~np.isnan(asked.set_to))
        return moved if self.shape.has_sizes else self.shape.levels(moved)

    def loose(self, nodes: Array) -> Array:
        """Design points of pieces that carry nothing, of the levels per node."""
        return self._points(loose_nodes(self.joints, self.pieces(nodes), self._staying()))

    def _staying(self) -> Array:
        """Nodes that are material whatever happens."""
        stays = np.ones(self.num_nodes, np.bool_)
        stays[self.node_of] = self.shape.kept[self.point_of]
        return stays

    def _points(self, nodes: Array) -> Array:
        """Design points of the nodes of a mask; of those that the wishes make alike all or none."""
        chosen = np.zeros(len(self.points), np.bool_)
        chosen[self.point_of[nodes[self.node_of]]] = True
        for made in self.shape.steady:
            chosen = made((~chosen).astype(np.float64)) < _ALL
        return chosen


def as_kept(levels: Array) -> Array:
    """Levels as the loop's files keep them, in 32 bits, which it goes on from."""
    return levels.astype(np.float32).astype(np.float64)


def _asked(levels: Array, criterion: Array, volume: float, move: float) -> _Asked:
    lowest = min(float(criterion.min()), 0.0)
    # A threshold may be 0 where material can harm.
    least_unit = 0.5 * float(np.abs(criterion).mean()) if lowest < 0 else 0.0
    set_to = np.full(len(levels), np.nan)
    return _Asked(levels, criterion, volume, move, lowest, least_unit, set_to)


def make_design(
    model: Model,
    radius: float | None,
    kept_nodes: Array,
    void_nodes: Array = _NO_NODES,
    wishes: Wishes | None = None,
    cases: Sequence[int] | None = None,
    evened: bool = True,
) -> Design:
    """Design of a model with the wishes of its designer.

    Design points of `kept_nodes`, by number, stay material, those of `void_nodes` empty. `cases`
    are the numbers of the load cases that take part, all if not given; `evened` has the levels
    smoothed that the criterion asks for. ValueError where the mesh
    can't have the wishes.
    """
    assert model.node_tp_index is not None
    nodes = np.flatnonzero(model.node_tp_index > 0)
    points_of_nodes = model.node_tp_index[nodes].astype(np.int64) - 1
    count = len(model.tp)
    share = np.maximum(np.bincount(points_of_nodes, minlength=count), 1)
    points = np.column_stack(
        [np.bincount(points_of_nodes, model.nodes[nodes, k], count) / share for k in range(3)]
    )
    space = design_volume(model)
    edge = mean_edge(model)
    wishes = wishes or Wishes()
    radius = radius or reach_of(model, None, wishes.sizes)
    near = near_points(points, radius)
    shape = make_shape(
        Field(model, points, edge),
        wishes,
        _points_of(model, kept_nodes),
        _points_of(model, void_nodes),
    )
    smoothing = smoothing_of(near, radius)
    evening = scipy.sparse.identity(len(points), format="csr")
    if evened:
        evening = smoothing_of(near, min(radius, _LEVEL_RADIUS * edge), shape.void)
    joints, count = make_joints(model, cases), len(model.nodes)
    return Design(points, nodes, points_of_nodes, smoothing, evening, shape, space, joints, count)


def _points_of(model: Model, nodes: Array) -> Array:
    """Mask (p,) of the design points of nodes, by number."""
    assert model.node_tp_index is not None
    mask = np.zeros(len(model.tp), np.bool_)
    chosen = model.node_tp_index[np.asarray(nodes, np.int64) - 1]
    mask[chosen[chosen > 0] - 1] = True
    return mask


def reach_of(model: Model, radius: float | None, sizes: SizeWishes | None) -> float:
    """The radius of smoothing, by the mesh and the sizes where it isn't given."""
    largest = 0.0 if sizes is None else max(sizes.member or 0.0, sizes.hole or 0.0)
    return radius or max(DEFAULT_RADIUS * mean_edge(model), _SIZE_RADIUS * largest)
