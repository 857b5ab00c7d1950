"""The command `vkctl run`."""

from __future__ import annotations

from enum import StrEnum
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any, NoReturn

import typer

from vkctl.running.enough import MOST_ROUNDS, TOLERANCE
from vkctl.spread.work import STARTS
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory, On
from vkctl.terminal.refusal import refuse, refusing

if TYPE_CHECKING:
    from rich.console import Console

    from vkctl.directory.formats import Mode
    from vkctl.running.run import RunResult
    from vkctl.running.settle import RoundShown, Settled


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
    again: Annotated[
        bool, typer.Option(..., "--again", help="run load cases that are done once more")
    ] = False,
    until_settled: Annotated[
        bool,
        typer.Option(
            ...,
            "--settle",
            help="repeat load cases until displacements, element state and strain energy change by "
            f"less than TOL, a part of their largest value: --settle TOL, {TOLERANCE:g} without",
        ),
    ] = False,
    tolerance: Annotated[
        float, typer.Option(..., "--settle-to", hidden=True, help="TOL of --settle")
    ] = TOLERANCE,
    rounds: Annotated[
        int, typer.Option(..., help="of --settle at most; started again, it goes on")
    ] = MOST_ROUNDS,
    on: On = None,
    starts: Annotated[
        int, typer.Option(..., min=1, help="of a pattern at most with --on, where workers die")
    ] = STARTS,
    vk_rund: Annotated[Path | None, typer.Option(..., "--vk-rund", help="the solver")] = None,
    as_json: AsJson = False,
) -> None:
    """Run the solver on a directory and follow it.

    Exit status: that of vk_rund, 128 + signal where a signal ended it, 127 or 126 where it can't
    be found or executed, 2 where the directory can't be run on, 3 where load cases don't settle.
    """
    from vkctl.running.run import NotFoundError, run
    from vkctl.running.settle import SettleError
    from vkctl.terminal.display import shown

    chosen: Mode | None = None if mode is None else mode.value
    console = output.console(silent=as_json)
    try:
        with refusing(ValueError, SettleError):
            if until_settled:
                how: dict[str, Any] = {"threads": threads, "mode": chosen, "vk_rund": vk_rund}
                settled = _settle(console, directory, tolerance, rounds, how, on, starts)
                _close_settled(console, settled, as_json)
                raise typer.Exit(settled.status)
            if on is not None:
                result = _spread(console, directory, on, again, threads, chosen, vk_rund, starts)
                _close(console, result, as_json)
            with shown(console) as show:
                result = run(
                    directory,
                    again=again,
                    threads=threads,
                    mode=chosen,
                    vk_rund=vk_rund,
                    on_progress=show,
                )
    except NotFoundError as error:
        raise refuse(error, error.status) from None
    _close(console, result, as_json)


def _close(console: Console, result: RunResult, as_json: bool) -> NoReturn:
    """The end of a run, told, with its status."""
    from vkctl.terminal.display import closing_lines, result_as_dict

    if as_json:
        output.print_json(result_as_dict(result))
    for line in closing_lines(result):
        console.print(line, markup=False, soft_wrap=True)
    # Status 0 without a complete log was not a run.
    raise typer.Exit((result.status or 0) if result.ok or result.status else 1)


def _spread(
    console: Console,
    directory: Path,
    on: str,
    again: bool,
    threads: int | None,
    mode: Mode | None,
    vk_rund: Path | None,
    starts: int,
) -> RunResult:
    from vkctl.spread.run import run_on
    from vkctl.spread.where import WhereError
    from vkctl.terminal.spreading import spread_shown

    with refusing(WhereError, ValueError), spread_shown(console) as (show, say):
        return run_on(
            directory,
            on,
            again=again,
            threads=threads,
            mode=mode,
            vk_rund=vk_rund,
            most_starts=starts,
            on_progress=show,
            on_line=say,
        )


def _settle(
    console: Console,
    directory: Path,
    tolerance: float,
    rounds: int,
    how: dict[str, Any],
    on: str | None,
    starts: int,
) -> Settled:
    """Rounds of runs here or on workers; `how` is said of every run."""
    from vkctl.directory.case_names import read_case_names
    from vkctl.running.settle import settle
    from vkctl.terminal.display import shown
    from vkctl.terminal.settling import round_lines

    names = read_case_names(directory)

    def show_round(shown_round: RoundShown) -> None:
        for line in round_lines(shown_round, names):
            console.print(line, markup=False, soft_wrap=True)

    how = {**how, "most_rounds": rounds, "on_round": show_round}
    if on is None:
        with shown(console, plain_lines=False) as show:
            return settle(directory, tolerance, **how, on_progress=show)
    from vkctl.spread.settle import settle_on
    from vkctl.spread.where import WhereError
    from vkctl.terminal.spreading import spread_shown

    with refusing(WhereError), spread_shown(console, plain_lines=False) as (look, say):
        told: dict[str, Any] = {"on_progress": look, "on_line": say}
        return settle_on(directory, on, tolerance, **how, **told, most_starts=starts)


def _close_settled(console: Console, settled: Settled, as_json: bool) -> None:
    from vkctl.directory.case_names import read_case_names
    from vkctl.terminal.display import closing_lines, result_as_dict, warning_lines
    from vkctl.terminal.settling import settled_as_dict, settled_lines

    if as_json:
        run_of_last = None if settled.run is None else result_as_dict(settled.run)
        output.print_json({**settled_as_dict(settled), "run": run_of_last})
    lines = []
    if settled.run is not None:
        names = read_case_names(settled.directory)
        lines = closing_lines(settled.run) if settled.failed else warning_lines(settled.run, names)
    for line in [*lines, *settled_lines(settled)]:
        console.print(line, markup=False, soft_wrap=True)
