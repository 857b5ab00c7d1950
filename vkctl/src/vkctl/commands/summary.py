"""The command `vkctl summary`."""

from __future__ import annotations

from typing import Annotated

import typer
from rich.console import Console

from vkctl.directory.summary import summary
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refusing


def summary_command(
    directory: Directory,
    safety: Annotated[
        bool,
        typer.Option(
            ..., "--safety", help="add how far each material is from its yield stress, and where"
        ),
    ] = False,
) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    with refusing(ValueError):
        text = summary(directory)
        if safety:
            from vkctl.stress.safety import safety_lines

            text = "\n".join((text, *safety_lines(directory)))
    Console(highlight=False).print(text, markup=False, soft_wrap=True)
