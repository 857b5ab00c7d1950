"""Boxes as parts, with the nodes of each side as a set, for the tests of `vkctl.prepare`."""

from __future__ import annotations

from typing import get_args

import numpy as np

from vkctl.prepare import Part
from vkctl.shapes.boxes import Box, Side
from vkctl.shapes.topology import TYPES

SIDES: tuple[Side, ...] = get_args(Side)


def part_of(made: Box) -> Part:
    """The part that a file of the box would give."""
    solids = [(code, *made.elements.of_type(code)) for code in TYPES]
    part = Part(np.arange(1, len(made.nodes) + 1), made.nodes, [s for s in solids if len(s[1])])
    part.node_sets = {side: made.face(side) for side in SIDES}
    return part
