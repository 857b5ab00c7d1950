"""Boxes whose shape a designer has wishes for."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from small_loops import NOBODY

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.optimise.design import Design, make_design
from vkctl.optimise.wishes.entries import Wishes
from vkctl.optimise.wishes.shape import Shape
from vkctl.shapes.boxes import box


def design_of(
    wishes: Wishes, distortion: float = 0.0, kept: Array = NOBODY, void: Array = NOBODY
) -> Design:
    """Of a box of 8 x 6 x 6 cells of size 1, inner nodes moved at random."""
    part = box("hex8", (8, 6, 6), (8.0, 6.0, 6.0))
    inner = np.all((part.nodes > 0.5) & (part.nodes < (7.5, 5.5, 5.5)), axis=1)
    moved = distortion * np.random.default_rng(7).uniform(-1, 1, part.nodes.shape)
    nodes = part.nodes + moved * inner[:, None]
    model = Model(nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    return make_design(model, 1.0, kept, void, wishes)


def shape_of(wishes: Wishes, kept: Array = NOBODY, void: Array = NOBODY) -> Shape:
    return design_of(wishes, 0.0, kept, void).shape


def plate(field: Callable[[Array, Array], Array]) -> Model:
    """24 x 24 x 1 cells of size 1, with a level of x and y."""
    part = box("hex8", (24, 24, 1), (24.0, 24.0, 1.0))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)], [LoadCase()])
    model.set_level(1.0)
    x, y, _ = part.nodes.T
    model.tp = np.asarray(field(x, y), np.float32)
    return model
