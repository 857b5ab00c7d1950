"""The command `vkctl report`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refuse, refusing


def report_command(
    directory: Directory,
    out: Annotated[Path, typer.Option(..., "-o", "--out", help="page to write, .html")],
    title: Annotated[
        str | None, typer.Option(..., help="heading; the directory's name if not given")
    ] = None,
    case: Annotated[
        list[int] | None,
        typer.Option(..., help="load case to show, again for more; the solved ones if not given"),
    ] = None,
    field: Annotated[
        list[str] | None,
        typer.Option(..., help="field to show, again for more; those of `vkctl plot --field`"),
    ] = None,
    triangles: Annotated[
        int, typer.Option(..., min=100, help="most triangles of the surface; more are simplified")
    ] = 1_000_000,
) -> None:
    """Write a report as one page, with the part in three dimensions."""
    from vkctl.report import Wanted, write_report
    from vkctl.report.facts import SHOWABLE, SHOWN

    if out.suffix.lower() not in (".html", ".htm"):
        raise refuse(f"{out}: the suffix must be .html")
    for name in field or ():
        if name not in SHOWABLE:
            raise refuse(f"unknown field {name!r}: {', '.join(SHOWABLE)}")
    wanted = Wanted(
        title=title,
        cases=tuple(case) if case else None,
        fields=tuple(field) if field else SHOWN,
        triangles=triangles,
    )
    with refusing(ValueError):
        written = write_report(directory, out, wanted)
    size = f"{written.bytes / 1e6:.1f} MB"
    if written.found > written.triangles:
        size += f", the surface simplified from {written.found} to {written.triangles} triangles"
    output.tell(f"written: {out}, {size}")
