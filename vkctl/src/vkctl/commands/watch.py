"""The command `vkctl watch`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.interrupt import undoing
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
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
    page: Annotated[
        bool,
        typer.Option(..., "--page", help="show runs and the part in a browser, until Ctrl-C"),
    ] = False,
    port: Annotated[
        int, typer.Option(..., min=0, max=65535, help="of --page; any that is free if not given")
    ] = 0,
) -> None:
    """Follow a run that something else started, until it ends.

    Exit status: 0 normal end, 242 the run stopped with an error, 1 it was killed, 2 there is no
    log.
    """
    from vkctl.running.watch import KILLED_STATUS, watch
    from vkctl.terminal.display import closing_lines, result_as_dict, shown

    if page and (as_json or patience is not None or wait):
        raise refuse("--page goes on until Ctrl-C: it takes no --json, --patience or --wait")
    if page:
        _show_page(directory, port)
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


def _show_page(directory: Path, port: int) -> None:
    """Serve the page that follows the directory; only an interrupt ends it."""
    from vkctl.report.live import follow, live_page
    from vkctl.report.server import Board, serving
    from vkctl.terminal.display import shown, state_line

    console = output.console()
    with refusing():
        if not directory.is_dir():
            raise NotADirectoryError(f"{directory} is no directory")
        board = Board(live_page(directory))
        with serving(board, port) as address, undoing():
            console.print(f"Open {address}", markup=False, soft_wrap=True)
            console.print("It is for this machine's own browsers; Ctrl-C ends it.")
            with shown(console) as show:
                follow(directory, board, state_line, show)
