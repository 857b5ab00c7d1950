"""What a file says it is, in its first bytes, before any library sees it.

The libraries go by content as they please: Gmsh takes a mesh whose head it doesn't know as a
script and runs it.
"""

from __future__ import annotations

import re
from collections.abc import Callable
from pathlib import Path

from vkctl.basics.failures import reason
from vkctl.basics.types import PathLike

from ..part import PartError

_HEAD = 64 * 1024  # bytes that are looked at
_MESH_FORMAT = re.compile(rb"\$MeshFormat[ \t]*\r?\n[ \t]*([1-9]\.?\d*)[ \t]+[01][ \t]+[48]\b")
_COMMENTS = re.compile(rb"\$Comments[ \t]*\r?\n.*?\$EndComments[ \t]*\r?\n", re.DOTALL)
_OLD_MESH = re.compile(rb"\$NOD[ \t]*\r?\n[ \t]*\d+[ \t]*\r?\n")
_STEP = re.compile(rb"(?:\s|/\*.*?\*/)*ISO-10303-21\s*;", re.DOTALL)
_VTK = re.compile(
    rb"(?:\xef\xbb\xbf)?\s*(?:<\?xml[^>]*\?>\s*)?(?:<!--.*?-->\s*)*<VTKFile\s", re.DOTALL
)
_MESH_VERSIONS = (b"1", b"2", b"3", b"4")


def check_head(path: PathLike, ending: str) -> None:
    """PartError for a file that isn't what its ending promises."""
    try:
        with open(Path(path), "rb") as stream:
            head = stream.read(_HEAD)
    except OSError as error:
        raise PartError(f"{path}: can't be read: {reason(error)}") from None
    if not _KINDS[ending](head):
        raise PartError(f"{path}: isn't {_TITLES[ending]}, whatever its name says")


def _is_mesh(head: bytes) -> bool:
    while comments := _COMMENTS.match(head):
        head = head[comments.end() :]
    found = _MESH_FORMAT.match(head)
    if found is None:
        return _OLD_MESH.match(head) is not None
    return found[1][:1] in _MESH_VERSIONS


def _is_step(head: bytes) -> bool:
    return _STEP.match(head) is not None


def _is_vtk(head: bytes) -> bool:
    return _VTK.match(head) is not None


def _is_deck(head: bytes) -> bool:
    """The first line that isn't blank nor a comment begins with a keyword."""
    lines = (line.strip() for line in head.split(b"\n"))
    first = next((line for line in lines if line and not line.startswith(b"**")), b"")
    return first.startswith(b"*") or (not first and head.lstrip().startswith(b"**"))


def _is_script(head: bytes) -> bool:
    """Text. What it says is judged as a whole by `geo_script`."""
    return b"\0" not in head


_KINDS: dict[str, Callable[[bytes], bool]] = {
    ".msh": _is_mesh,
    ".step": _is_step,
    ".stp": _is_step,
    ".geo": _is_script,
    ".inp": _is_deck,
    ".vtu": _is_vtk,
}

_TITLES = {
    ".msh": "a mesh of Gmsh (version 1 to 4)",
    ".step": "a STEP file",
    ".stp": "a STEP file",
    ".geo": "a script of Gmsh",
    ".inp": "an input deck",
    ".vtu": "an XML file of VTK",
}
