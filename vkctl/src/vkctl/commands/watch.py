"""The command `vkctl watch`."""

from __future__ import annotations

from typing import Annotated

import typer

from vkctl.running.watch import KILLED_STATUS, watch
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.display import closing_lines, result_as_dict, shown
from vkctl.terminal.last_resort import INTERRUPTED
from vkctl.terminal.refusal import refuse, refusing


def watch_command(
    directory: Directory,
    patience: Annotated[
        float | None,
        typer.Option(
            ...,
            help="seconds without a log line after which the run counts as killed, for runs on "
            "another machine; otherwise this machine's locks and processes decide",
        ),
    ] = None,
    wait: Annotated[float, typer.Option(..., help="seconds to wait for a log to appear")] = 0.0,
    as_json: AsJson = False,
) -> None:
    """Follow a run that something else started, until it ends.

    Exit status: 0 normal end, 242 the run stopped with an error, 1 it was killed, 2 there is no
    log.
    """
    console = output.console(silent=as_json)
    try:
        with refusing(), shown(console) as show:
            result = watch(directory, on_progress=show, patience=patience, wait=wait)
    except KeyboardInterrupt:
        raise refuse("Interrupted: the run goes on.", INTERRUPTED) from None
    if as_json:
        output.print_json(result_as_dict(result))
    for line in closing_lines(result):
        console.print(line, markup=False, soft_wrap=True)
    raise typer.Exit(KILLED_STATUS if result.status is None else result.status)
