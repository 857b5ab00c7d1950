"""The command `vkctl`.

A command's module is loaded when it is called: most take a while, for numpy, scipy and their like.
Help is plain text: rich, which would frame it, loads a reader of Markdown and more for that.
"""

from __future__ import annotations

from importlib import import_module
from typing import Annotated, Any

import typer
from typer.core import TyperCommand, TyperGroup

from .terminal.declare import declared
from .terminal.last_resort import show_details
from .terminal.negative_numbers import NumbersCommand
from .terminal.optional_value import SettleCommand
from .terminal.output import be_quiet

# Each command, in `commands/NAME.py`, with the first sentence of its own help.
COMMANDS = {
    "box": "Write a box, clamped on the side x- and loaded on the side x+.",
    "demo": "Write the cantilever of the quick start, solve it and draw it.",
    "summary": "Tell in a few lines what the log and the results of a directory say.",
    "new": "Write the working directory of a part under the loads of a case file.",
    "import": "Write a case file with the materials, supports, loads and steps of a deck.",
    "run": "Run the solver on a directory and follow it.",
    "watch": "Follow a run that something else started, until it ends.",
    "check": "Say everything about a prepared directory that would fail or surprise.",
    "diff": "Compare the results of two directories.",
    "export": "Write results as .vtu or .pvd (all load cases), or the part as .stl or .3mf.",
    "plot": "Draw the deformed part, coloured by a field, or what is prepared.",
    "ask": "Answer questions about solved load cases with numbers.",
    "report": "Write a report as one page, with the part in three dimensions.",
    "optimise": "Optimise the part for stiffness or least mass; started again, it goes on.",
    "verify-part": "Mesh the smooth part as a body, solve it, compare it with the optimised one.",
    "study": "Make variants of a case file and a table of results; started again, it goes on.",
}
# Where the name is a word of Python, or none that Python would take.
_MODULES = {"import": "import_deck", "verify-part": "verify_part"}
_CLASSES: dict[str, type[TyperCommand]] = {"run": SettleCommand, "ask": NumbersCommand}


def load(name: str) -> Any:
    """The command of a name, its module loaded."""
    module = import_module(f"{__package__}.commands.{_MODULES.get(name, name)}")
    alone = typer.Typer(add_completion=False, rich_markup_mode=None)
    function = getattr(module, f"{name.replace('-', '_')}_command")
    alone.command(name, cls=_CLASSES.get(name))(declared(function))
    return typer.main.get_command(alone)


class _Commands(TyperGroup):
    """The commands by name; a list of them takes only what is told of them here."""

    is_listing = False

    def list_commands(self, ctx: Any) -> list[str]:
        return list(COMMANDS)

    def get_command(self, ctx: Any, cmd_name: str) -> Any:
        if cmd_name not in COMMANDS:
            return None
        if self.is_listing:
            return TyperCommand(cmd_name, short_help=COMMANDS[cmd_name])
        return load(cmd_name)

    def format_help(self, ctx: Any, formatter: Any) -> None:
        self.is_listing = True
        try:
            super().format_help(ctx, formatter)
        finally:
            self.is_listing = False

    def shell_complete(self, ctx: Any, incomplete: str) -> Any:
        self.is_listing = True
        try:
            return super().shell_complete(ctx, incomplete)
        finally:
            self.is_listing = False


app = typer.Typer(
    cls=_Commands,
    no_args_is_help=True,
    pretty_exceptions_enable=False,
    rich_markup_mode=None,
    help="Prepares working directories for vk_rund and reads its results.",
)


def _print_version(wanted: bool) -> None:
    if wanted:
        from . import __version__  # looked up among the installed packages

        typer.echo(f"vkctl {__version__}")
        raise typer.Exit


def _without_command(
    version: Annotated[
        bool,
        typer.Option(
            ..., "--version", callback=_print_version, is_eager=True, help="Show the version."
        ),
    ] = False,
    quiet: Annotated[
        bool, typer.Option(..., "--quiet", help="Print nothing but refusals and JSON.")
    ] = False,
    debug: Annotated[
        bool, typer.Option(..., "--debug", help="Show where an unexpected failure comes from.")
    ] = False,
) -> None:
    """What `vkctl` takes before a command."""
    show_details(debug)
    be_quiet(quiet)


app.callback()(declared(_without_command))
