"""The commands `vkctl run` and `vkctl watch`."""

from __future__ import annotations

from enum import StrEnum
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from .display import closing_lines, shown
from .run import BusyError, Mode, NotFoundError, RunResult, run
from .watch import KILLED_STATUS, watch

Directory = Annotated[Path, typer.Argument(help="working directory")]


class _Mode(StrEnum):
    automatic = "automatic"
    iterative = "iterative"
    direct = "direct"


def _tell(console: Console, result: RunResult) -> None:
    for line in closing_lines(result):
        console.print(line, markup=False, soft_wrap=True)


def _refuse(error: Exception, status: int) -> typer.Exit:
    Console(stderr=True, highlight=False).print(str(error), markup=False, soft_wrap=True)
    return typer.Exit(status)


def run_command(
    directory: Directory,
    threads: Annotated[
        int | None, typer.Option(help="set Sys.MaxNumCompThreads in the options file")
    ] = None,
    mode: Annotated[
        _Mode | None, typer.Option(help="set Sys.ComputationMode in the options file")
    ] = None,
    vk_rund: Annotated[Path | None, typer.Option("--vk-rund", help="the solver")] = None,
) -> None:
    """Run the solver on a directory and follow it.

    Exit status: that of vk_rund, 128 + signal where a signal ended it, 127 or 126 where it can't
    be found or executed, 2 where the directory can't be run on.
    """
    console = Console(highlight=False)
    chosen: Mode | None = None if mode is None else mode.value
    try:
        with shown(console) as show:
            result = run(directory, threads=threads, mode=chosen, vk_rund=vk_rund, on_progress=show)
    except NotFoundError as error:
        raise _refuse(error, error.status) from None
    except (BusyError, OSError) as error:
        raise _refuse(error, 2) from None
    _tell(console, result)
    # Status 0 without a complete log was not a run.
    raise typer.Exit((result.status or 0) if result.ok or result.status else 1)


def watch_command(
    directory: Directory,
    patience: Annotated[
        float | None,
        typer.Option(
            help="seconds without a log line after which the run counts as killed, for runs on "
            "another machine; otherwise this machine's process table decides"
        ),
    ] = None,
    wait: Annotated[float, typer.Option(help="seconds to wait for a log to appear")] = 0.0,
) -> None:
    """Follow a run that something else started, until it ends.

    Exit status: 0 normal end, 242 the run stopped with an error, 1 it was killed, 2 there is no
    log.
    """
    console = Console(highlight=False)
    try:
        with shown(console) as show:
            result = watch(directory, on_progress=show, patience=patience, wait=wait)
    except OSError as error:
        raise _refuse(error, 2) from None
    except KeyboardInterrupt:
        raise typer.Exit(130) from None  # ends the watching, not the run
    _tell(console, result)
    raise typer.Exit(KILLED_STATUS if result.status is None else result.status)


def register(app: typer.Typer) -> None:
    """Add the commands to `app`."""
    app.command("run")(run_command)
    app.command("watch")(watch_command)
