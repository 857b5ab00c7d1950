"""The command `vkctl run`."""

from __future__ import annotations

from enum import StrEnum
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from vkctl.directory.formats import Mode
from vkctl.running.run import NotFoundError, run
from vkctl.terminal.arguments import Directory
from vkctl.terminal.display import closing_lines, shown
from vkctl.terminal.refusal import refuse, refusing


class _Mode(StrEnum):
    automatic = "automatic"
    iterative = "iterative"
    direct = "direct"


def run_command(
    directory: Directory,
    threads: Annotated[
        int | None, typer.Option(..., help="set Sys.MaxNumCompThreads in the options file")
    ] = None,
    mode: Annotated[
        _Mode | None, typer.Option(..., help="set Sys.ComputationMode in the options file")
    ] = None,
    vk_rund: Annotated[Path | None, typer.Option(..., "--vk-rund", help="the solver")] = None,
) -> None:
    """Run the solver on a directory and follow it.

    Exit status: that of vk_rund, 128 + signal where a signal ended it, 127 or 126 where it can't
    be found or executed, 2 where the directory can't be run on.
    """
    console = Console(highlight=False)
    chosen: Mode | None = None if mode is None else mode.value
    try:
        with refusing(ValueError), shown(console) as show:
            result = run(directory, threads=threads, mode=chosen, vk_rund=vk_rund, on_progress=show)
    except NotFoundError as error:
        raise refuse(error, error.status) from None
    for line in closing_lines(result):
        console.print(line, markup=False, soft_wrap=True)
    # Status 0 without a complete log was not a run.
    raise typer.Exit((result.status or 0) if result.ok or result.status else 1)
