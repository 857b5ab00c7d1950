"""The command `vkctl`."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from . import (
    boxes,
    commands_check,
    commands_diff,
    commands_optimise,
    commands_run,
    commands_view,
    demo,
    formats,
    model,
)
from .new.command import new_command

app = typer.Typer(
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
    help="Prepares working directories for vk_rund and reads its results.",
)
console = Console(highlight=False)

PICTURE = "deformed.png"
Directory = Annotated[Path, typer.Argument(help="working directory")]


def _fail(text: str) -> typer.Exit:
    Console(stderr=True, highlight=False).print(text, markup=False, soft_wrap=True)
    return typer.Exit(2)


@app.command("box")
def box_command(
    directory: Directory,
    kind: Annotated[str, typer.Option(help="tet4, hex8, tet10 or mixed")] = "tet4",
    cells: Annotated[tuple[int, int, int], typer.Option(help="cells along x, y, z")] = (10, 4, 4),
    size: Annotated[tuple[float, float, float], typer.Option(help="extent")] = (10.0, 4.0, 4.0),
    modulus: Annotated[float, typer.Option(help="Young's modulus")] = 1000.0,
    poisson: Annotated[float, typer.Option(help="Poisson's ratio")] = 0.3,
    traction: Annotated[
        tuple[float, float, float], typer.Option(help="force per area on the side x+")
    ] = (0.0, 0.0, -1.0),
) -> None:
    """Write a box, clamped on the side x- and loaded on the side x+."""
    if kind not in ("tet4", "hex8", "tet10", "mixed"):
        raise _fail(f"unknown kind {kind!r}: tet4, hex8, tet10 or mixed")
    try:
        part = boxes.box(kind, cells, size)  # type: ignore[arg-type]
    except ValueError as error:
        raise _fail(str(error)) from None
    case = model.LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", traction))
    whole = model.Model(
        part.nodes, part.elements, [model.Material.isotropic(modulus, poisson)], [case]
    )
    model.write(whole, directory)
    console.print(f"{len(part.nodes)} nodes and {len(part.elements)} elements in {directory}")


@app.command("demo")
def demo_command(
    directory: Directory,
    vk_rund: Annotated[
        Path | None, typer.Option("--vk-rund", help="solver to run on it at once")
    ] = None,
) -> None:
    """Write the cantilever of the quick start; with --vk-rund solve it and draw it."""
    demo.write_cantilever(directory)
    console.print(f"cantilever written to {directory}")
    if vk_rund is None:
        return
    try:
        status = subprocess.run([vk_rund.resolve(), directory.resolve()], check=False).returncode
    except OSError as error:
        raise _fail(f"cannot run {vk_rund}: {error.strerror}") from None
    if Path(directory, formats.LOG_FILE).exists():
        console.print(demo.summary(directory), markup=False, soft_wrap=True)
    if status:
        raise _fail(f"{vk_rund} ended with status {status}")
    demo.picture(directory, directory / PICTURE)
    console.print(f"picture in {directory / PICTURE}")


@app.command("summary")
def summary_command(directory: Directory) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    try:
        text = demo.summary(directory)
    except (OSError, ValueError, formats.FormatError) as error:
        raise _fail(str(error)) from None
    console.print(text, markup=False, soft_wrap=True)


app.command("new")(new_command)


commands_run.register(app)
commands_check.register(app)
commands_diff.register(app)
commands_view.register(app)
commands_optimise.register(app)
