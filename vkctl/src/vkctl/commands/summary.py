"""The command `vkctl summary`."""

from __future__ import annotations

from rich.console import Console

from vkctl.directory.summary import summary
from vkctl.terminal.arguments import Directory
from vkctl.terminal.refusal import refusing


def summary_command(directory: Directory) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    with refusing():
        text = summary(directory)
    Console(highlight=False).print(text, markup=False, soft_wrap=True)
