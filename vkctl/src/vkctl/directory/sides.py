"""The sides of a box as sets."""

from __future__ import annotations

from vkctl.shapes.boxes import Box, Side
from vkctl.shapes.faces import faces_within

from .formats import NamedSet

SIDES: tuple[Side, ...] = ("x-", "x+", "y-", "y+", "z-", "z+")


def side_sets(part: Box) -> list[NamedSet]:
    """The six sides as face sets of their names."""
    tables = {side: faces_within(part.elements, part.face(side)) for side in SIDES}
    return [NamedSet(side, "face", faces=tuple(faces)) for side, faces in tables.items()]
