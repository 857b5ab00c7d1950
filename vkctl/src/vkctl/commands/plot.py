"""The command `vkctl plot`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.words import did_you_mean
from vkctl.terminal import output
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refuse, refusing

_FIELD_HELP = (
    "magnitude of the displacement, level, criterion, a stress at nodes (von_mises, "
    "signed_von_mises, tresca, principal_1 to principal_3, stress_xx, _yy, _zz, _xy, _yz, _xz), "
    "energy_density, or element_mean, the solver's averaged von Mises stress"
)


def plot_command(
    directory: Directory,
    out: Annotated[Path, typer.Option(..., "-o", "--out", help="picture to write, .png")],
    field: Annotated[str | None, typer.Option(..., help=_FIELD_HELP)] = None,
    case: Annotated[
        int | None,
        typer.Option(..., help="load case; if not given the first solved one, with --loads 1"),
    ] = None,
    scale: Annotated[
        float | None, typer.Option(..., help="exaggeration of the deformation")
    ] = None,
    edges: Annotated[bool, typer.Option(..., "--edges", help="draw the elements' edges")] = False,
    loads: Annotated[
        bool,
        typer.Option(..., "--loads", help="forces, supports and springs instead; no run is needed"),
    ] = False,
    sets: Annotated[
        bool,
        typer.Option(..., "--sets", help="sets of the case file instead; no run is needed"),
    ] = False,
    quality: Annotated[
        bool,
        typer.Option(..., "--quality", help="shapes of the elements instead; no run is needed"),
    ] = False,
) -> None:
    """Draw the deformed part, coloured by a field, or what is prepared."""
    if sum((field is not None, loads, sets, quality)) > 1:
        raise refuse("Give one of --field, --loads, --sets and --quality.")
    with refusing(ValueError):
        if loads:
            from vkctl.view.loads import plot_loads

            plot_loads(directory, out, case)
        elif sets:
            from vkctl.view.sets import plot_sets

            plot_sets(directory, out)
        elif quality:
            from vkctl.view.quality import plot_quality

            plot_quality(directory, out)
        else:
            _plot_field(directory, out, field or "magnitude", case, scale, edges)
    output.tell(f"written: {out}")


def _plot_field(
    directory: Path, out: Path, field: str, case: int | None, scale: float | None, edges: bool
) -> None:
    from vkctl.view.fields import FIELDS
    from vkctl.view.plot import View, plot

    if field not in FIELDS:
        raise refuse(f"unknown field {field!r}: {did_you_mean(field, FIELDS)}")
    plot(directory, out, case, View(field=field, scale=scale, edges=edges))
