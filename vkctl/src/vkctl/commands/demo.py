"""The command `vkctl demo`."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.extras import MissingPartError
from vkctl.basics.failures import reason
from vkctl.terminal import output
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refuse, refusing

PICTURE = "deformed.png"


def demo_command(
    directory: Directory,
    vk_rund: Annotated[
        Path | None, typer.Option(..., "--vk-rund", help="solver; otherwise the one that is found")
    ] = None,
) -> None:
    """Write the cantilever of the quick start, solve it and draw it."""
    from vkctl.prepare.cantilever import write_cantilever
    from vkctl.running.run import NotFoundError, find_vk_rund
    from vkctl.view.deformed import picture

    with refusing():
        write_cantilever(directory)
    output.tell(f"cantilever written to {directory}")
    try:
        program = find_vk_rund(vk_rund)
    except NotFoundError as error:
        if vk_rund is not None:
            raise refuse(error) from None
        output.tell(f"not solved: {error}")
        return
    _solve(program, directory)
    try:
        picture(directory, directory / PICTURE)
    except MissingPartError as error:
        output.tell(f"no picture: {error}")
    else:
        output.tell(f"picture in {directory / PICTURE}")


def _solve(program: Path, directory: Path) -> None:
    from vkctl.directory.formats import LOG_FILE
    from vkctl.directory.summary import summary

    try:
        status = subprocess.run([program, directory.resolve()], check=False).returncode
    except OSError as error:
        raise refuse(f"cannot run {program}: {reason(error)}") from None
    if Path(directory, LOG_FILE).exists():
        with refusing():
            text = summary(directory)
        output.tell(text)
    if status:
        raise refuse(f"{program} ended with status {status}")
