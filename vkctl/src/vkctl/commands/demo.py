"""The command `vkctl demo`."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from vkctl.directory import formats
from vkctl.directory.summary import summary
from vkctl.prepare.cantilever import write_cantilever
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refuse, refusing
from vkctl.view.deformed import picture

PICTURE = "deformed.png"


def demo_command(
    directory: Directory,
    vk_rund: Annotated[
        Path | None, typer.Option("--vk-rund", help="solver to run on it at once")
    ] = None,
) -> None:
    """Write the cantilever of the quick start; with --vk-rund solve it and draw it."""
    console = Console(highlight=False)
    write_cantilever(directory)
    console.print(f"cantilever written to {directory}")
    if vk_rund is None:
        return
    try:
        status = subprocess.run([vk_rund.resolve(), directory.resolve()], check=False).returncode
    except OSError as error:
        raise refuse(f"cannot run {vk_rund}: {error.strerror}") from None
    if Path(directory, formats.LOG_FILE).exists():
        console.print(summary(directory), markup=False, soft_wrap=True)
    if status:
        raise refuse(f"{vk_rund} ended with status {status}")
    with refusing():
        picture(directory, directory / PICTURE)
    console.print(f"picture in {directory / PICTURE}")
