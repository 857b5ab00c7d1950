"""The command `vkctl`."""

from __future__ import annotations

from typing import Annotated

import typer

from . import __version__
from .commands.box import box_command
from .commands.check import check_command
from .commands.demo import demo_command
from .commands.diff import diff_command
from .commands.export import export_command
from .commands.new import new_command
from .commands.optimise import optimise_command
from .commands.plot import plot_command
from .commands.run import run_command
from .commands.summary import summary_command
from .commands.watch import watch_command
from .terminal.declare import declared
from .terminal.last_resort import show_details
from .terminal.optional_value import SettleCommand

app = typer.Typer(
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
    help="Prepares working directories for vk_rund and reads its results.",
)


def _print_version(wanted: bool) -> None:
    if wanted:
        typer.echo(f"vkctl {__version__}")
        raise typer.Exit


def _without_command(
    version: Annotated[
        bool,
        typer.Option(
            ..., "--version", callback=_print_version, is_eager=True, help="Show the version."
        ),
    ] = False,
    debug: Annotated[
        bool, typer.Option(..., "--debug", help="Show where an unexpected failure comes from.")
    ] = False,
) -> None:
    """What `vkctl` takes before a command."""
    show_details(debug)


app.callback()(declared(_without_command))
app.command("box")(declared(box_command))
app.command("demo")(declared(demo_command))
app.command("summary")(declared(summary_command))
app.command("new")(declared(new_command))
app.command("run", cls=SettleCommand)(declared(run_command))
app.command("watch")(declared(watch_command))
app.command("check")(declared(check_command))
app.command("diff")(declared(diff_command))
app.command("export")(declared(export_command))
app.command("plot")(declared(plot_command))
app.command("optimise")(declared(optimise_command))
