"""Which files are parts, told by their endings; all are read in a process of their own."""

from __future__ import annotations

from pathlib import Path

from vkctl.basics.types import PathLike

from ..part import MeshOptions, Part, PartError, Reading
from .apart import read_apart
from .heads import check_head

ENDINGS = (".msh", ".inp", ".vtu", ".step", ".stp", ".geo")


def read_part(
    path: PathLike, options: MeshOptions | None = None, reading: Reading | None = None
) -> Part:
    """Part of a file, told apart by its ending; `options` are for geometry. Raises PartError."""
    place = Path(path)
    ending = place.suffix.lower()
    if ending not in ENDINGS:
        known = ", ".join(ENDINGS)
        raise PartError(f"{path}: unknown kind of part {ending!r}; known are {known}")
    if not place.is_file():
        raise PartError(f"{path}: no such file")
    check_head(path, ending)
    return read_apart(place, ending, options or MeshOptions(), reading or Reading())


def mesh_within(
    surface: PathLike, options: MeshOptions | None = None, reading: Reading | None = None
) -> Part:
    """The body within a closed surface that vkctl has written as .stl. Raises PartError."""
    return read_apart(Path(surface), ".stl", options or MeshOptions(), reading or Reading())
