"""The smallest member and hole of a part, and its thickest place, measured on its level field.

Balls of growing diameter open the part. What an opening loses at a corner or an edge stays close to
what is left; where something is lost that is further away than the ball is thick, there is a
member that is thinner than the ball. That is looked for on a grid of points
finer than the mesh. T. Hildebrand, P. Ruegsegger, J. Microsc. 185 (1997) 67-75, have the thickness
at a point as the largest ball in the part that holds it.
"""

from __future__ import annotations

from dataclasses import dataclass, replace

import numpy as np
import scipy

from vkctl.basics.types import Array, PathLike
from vkctl.directory.levels import level_field
from vkctl.directory.model import Model, read

from .places import Places, depths, make_places
from .sampling import Field, mean_edge

COARSEST = 2.0  # edges that a size must have
_LONG = 2.0  # radii from what an opening leaves: further away it isn't a corner
_BETWEEN = 1.0  # steps of a diameter that places leave open, on average
_ROUNDING = 1e-6


@dataclass(frozen=True)
class Sizes:
    """Diameters, to a third of an edge of the mesh or so; None where there is no such thing."""

    member: float | None
    hole: float | None
    thickest: float | None  # the largest ball in the part


def measured_sizes(part: PathLike | Model, thickest: float | None = None) -> Sizes:
    """The smallest member and hole of a directory's part, and its thickest place.

    They are as its level field stands. Corners sharper than 39 degrees count as members that end.
    Balls of members and holes may stand out of the design volume: on its faces something half as
    thick counts as whole. The largest ball lies inside of the part, but across a part that is
    thinner than `thickest` all over (two edges if not given), such as a plate, it stands out.
    """
    model = part if isinstance(part, Model) else read(part)
    levels, places = _gridded(model)
    inside, step = places.inside, places.step
    material, void = inside & (levels > 0), inside & (levels <= 0)
    across = COARSEST * mean_edge(model) if thickest is None else thickest
    return Sizes(
        _smallest(material, inside, step),
        _smallest(void, inside, step),
        _largest(material, step, across),
    )


def _gridded(model: Model) -> tuple[Array, Places]:
    """Levels on a regular grid, by those of all nodes."""
    count = len(model.nodes)
    nodes = replace(model, node_tp_index=np.arange(1, count + 1, dtype=np.int32))
    places = make_places(Field(nodes, model.nodes, mean_edge(model)))
    return places.sampled(level_field(model).astype(np.float64)), places


def _largest(material: Array, step: float, across: float) -> float | None:
    """The diameter of the largest ball in the material."""
    if not material.any():
        return None
    closed = tuple(bool(n * step >= across) for n in material.shape)
    return float((2.0 * depths(material, closed).max() + _BETWEEN) * step)


def _smallest(phase: Array, inside: Array, step: float) -> float | None:
    """The largest diameter up to which openings lose nothing but corners."""
    if not phase.any():
        return None
    depth = np.where(phase, depths(phase | ~inside, (False, False, False)), -0.5)
    diameters = np.arange(1.0, 2.0 * depth.max() + 1.0)
    for diameter in diameters:
        radius = 0.5 * diameter
        core = phase & (depth >= radius - 0.5)  # half a step is what places leave open
        if not core.any():
            return float((diameter - 1.0) * step)
        lost = phase & (scipy.ndimage.distance_transform_edt(~core) > radius + _ROUNDING)
        if not lost.any():
            continue
        away = scipy.ndimage.distance_transform_edt(lost | ~phase)
        if (away[lost] > _LONG * radius + 1.0).any():
            return float((diameter - 1.0) * step)
    return float(diameters[-1] * step)
