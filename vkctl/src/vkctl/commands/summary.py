"""The command `vkctl summary`."""

from __future__ import annotations

from rich.console import Console

from vkctl.directory import formats
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refuse
from vkctl.view import demo


def summary_command(directory: Directory) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    try:
        text = demo.summary(directory)
    except (OSError, ValueError, formats.FormatError) as error:
        raise refuse(error) from None
    Console(highlight=False).print(text, markup=False, soft_wrap=True)
