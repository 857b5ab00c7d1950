"""Which reader takes a file, told by its ending."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from vkctl.basics.types import PathLike

from ..part import MeshOptions, Part, PartError
from .gmsh import mesh_geometry, read_msh
from .inp import read_inp
from .vtu import read_vtu

_READERS: dict[str, Callable[[PathLike], Part]] = {
    ".msh": read_msh,
    ".inp": read_inp,
    ".vtu": read_vtu,
}

_GEOMETRY = (".step", ".stp", ".geo")


def read_part(path: PathLike, options: MeshOptions | None = None) -> Part:
    """Part of a file, told apart by its ending; `options` are for geometry. Raises PartError."""
    place = Path(path)
    ending = place.suffix.lower()
    if ending not in _READERS and ending not in _GEOMETRY:
        known = ", ".join((*_READERS, *_GEOMETRY))
        raise PartError(f"{path}: unknown kind of part {ending!r}; known are {known}")
    if not place.is_file():
        raise PartError(f"{path}: no such file")
    if ending in _GEOMETRY:
        return mesh_geometry(path, options or MeshOptions())
    return _READERS[ending](path)
