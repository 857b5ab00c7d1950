"""The command `vkctl export`."""

from __future__ import annotations

from dataclasses import asdict
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Case, Directory
from vkctl.terminal.refusal import refusing

if TYPE_CHECKING:
    from vkctl.view.part_file import PartSurface


def export_command(
    directory: Directory,
    out: Annotated[Path, typer.Argument(..., help="file to write: .vtu, .pvd, .stl or .3mf")],
    case: Case = None,
    smooth: Annotated[
        bool,
        typer.Option(..., help="make the part's surface smooth, of the same volume (.stl, .3mf)"),
    ] = False,
    as_json: AsJson = False,
) -> None:
    """Write results as .vtu or .pvd (all load cases), or the part as .stl or .3mf."""
    from vkctl.view.part_file import PART_SUFFIXES, told, write_part

    if out.suffix in PART_SUFFIXES:
        with refusing(ValueError):
            part = _part(directory, smooth)
            write_part(part, out, directory)
        files, more = [out], _values(part)
        lines = told(part)
    else:
        from vkctl.view.export import export

        with refusing(ValueError):
            if smooth:
                raise ValueError(f"--smooth is for {' and '.join(PART_SUFFIXES)}, not for {out}")
            files, more, lines = export(directory, out, case), {}, []
    if as_json:
        output.print_json({"files": [str(path) for path in files], **more})
        return
    output.tell(f"written: {', '.join(map(str, files))}", *lines)


def _part(directory: Path, smooth: bool) -> PartSurface:
    """The part; sets that an optimisation keeps stay as they are where it is made smooth."""
    if smooth:
        from vkctl.optimise.as_body import smooth_part

        return smooth_part(directory)
    from vkctl.view.part_file import part_of

    return part_of(directory)


def _values(part: PartSurface) -> dict[str, Any]:
    said = {name: value for name, value in asdict(part).items() if name != "points"}
    return {"part": {**said, "triangles": len(part.triangles)}}
