"""Commands that show results: export and plot."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

Directory = Annotated[Path, typer.Argument(help="working directory")]
Case = Annotated[int | None, typer.Option(help="load case; the first solved one if not given")]


def _fail(error: Exception) -> typer.Exit:
    Console(stderr=True, highlight=False).print(str(error), markup=False, soft_wrap=True)
    return typer.Exit(2)


def export_command(
    directory: Directory,
    out: Annotated[Path, typer.Argument(help="file to write: .vtu, .pvd or .stl")],
    case: Case = None,
) -> None:
    """Write results as .vtu or as a .pvd series over load cases, or the part as .stl."""
    from .export import export

    try:
        files = export(directory, out, case)
    except (OSError, ValueError) as error:
        raise _fail(error) from None
    Console(highlight=False).print(f"written: {', '.join(map(str, files))}", soft_wrap=True)


def plot_command(
    directory: Directory,
    out: Annotated[Path, typer.Option("-o", "--out", help="picture to write, .png")],
    field: Annotated[str, typer.Option(help="magnitude, stress, criterion or level")] = "magnitude",
    case: Case = None,
    scale: Annotated[float | None, typer.Option(help="exaggeration of the deformation")] = None,
    edges: Annotated[bool, typer.Option("--edges", help="draw the triangles' edges")] = False,
) -> None:
    """Draw the deformed part, coloured by a field."""
    from .plot import FIELDS, View, plot

    if field not in FIELDS:
        raise _fail(ValueError(f"unknown field {field!r}: {', '.join(FIELDS)}"))
    try:
        plot(directory, out, case, View(field=field, scale=scale, edges=edges))  # type: ignore[arg-type]
    except (OSError, ValueError) as error:
        raise _fail(error) from None
    Console(highlight=False).print(f"written: {out}", soft_wrap=True)


def register(app: typer.Typer) -> None:
    """Add the commands to the application."""
    app.command("export")(export_command)
    app.command("plot")(plot_command)
