"""The command `vkctl summary`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated, Any

import typer

from vkctl.directory.summary import summary, summary_values
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.refusal import refusing


def summary_command(
    directory: Directory,
    safety: Annotated[
        bool,
        typer.Option(
            ..., "--safety", help="add how far each material is from its yield stress, and where"
        ),
    ] = False,
    as_json: AsJson = False,
) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    with refusing(ValueError):
        if as_json:
            output.print_json(_values(directory, safety))
            return
        text = summary(directory)
        if safety:
            from vkctl.stress.safety import safety_lines

            text = "\n".join((text, *safety_lines(directory)))
    output.console().print(text, markup=False, soft_wrap=True)


def _values(directory: Path, safety: bool) -> dict[str, Any]:
    values = summary_values(directory)
    if safety:
        from vkctl.stress.safety import safety_values

        values["safety"] = safety_values(directory)
    return values
