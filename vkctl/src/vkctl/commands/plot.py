"""The command `vkctl plot`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import Case, Directory
from vkctl.terminal.refusal import refuse, refusing

_FIELD_HELP = (
    "magnitude of the displacement, level, criterion, a stress at nodes (von_mises, "
    "signed_von_mises, tresca, principal_1 to principal_3, stress_xx, _yy, _zz, _xy, _yz, _xz), "
    "energy_density, or element_mean, the solver's averaged von Mises stress"
)


def plot_command(
    directory: Directory,
    out: Annotated[Path, typer.Option(..., "-o", "--out", help="picture to write, .png")],
    field: Annotated[str, typer.Option(..., help=_FIELD_HELP)] = "magnitude",
    case: Case = None,
    scale: Annotated[
        float | None, typer.Option(..., help="exaggeration of the deformation")
    ] = None,
    edges: Annotated[bool, typer.Option(..., "--edges", help="draw the triangles' edges")] = False,
) -> None:
    """Draw the deformed part, coloured by a field."""
    from vkctl.view.fields import FIELDS
    from vkctl.view.plot import View, plot

    if field not in FIELDS:
        raise refuse(f"unknown field {field!r}: {', '.join(FIELDS)}")
    with refusing(ValueError):
        plot(directory, out, case, View(field=field, scale=scale, edges=edges))
    output.console().print(f"written: {out}", soft_wrap=True)
