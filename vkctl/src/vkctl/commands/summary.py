"""The command `vkctl summary`."""

from __future__ import annotations

import math
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.refusal import refuse, refusing

if TYPE_CHECKING:
    from vkctl.stress.safety import Within


def summary_command(
    directory: Directory,
    safety: Annotated[
        bool,
        typer.Option(
            ..., "--safety", help="add how far each material is from its yield stress, and where"
        ),
    ] = False,
    limit: Annotated[
        list[str] | None,
        typer.Option(
            ..., help="with --safety: MATERIAL=STRESS instead of its yield stress, STRESS for all"
        ),
    ] = None,
    sets: Annotated[
        list[str] | None,
        typer.Option(..., "--set", help="with --safety: tell it of this set, instead of the part"),
    ] = None,
    as_json: AsJson = False,
) -> None:
    """Tell in a few lines what the log and the results of a directory say."""
    from vkctl.directory.summary import summary, summary_values

    if (limit or sets) and not safety:
        raise refuse("--limit and --set belong to --safety.")
    limits = _limits(limit or [])
    with refusing(ValueError):
        if as_json:
            values = summary_values(directory)
            if safety:
                from vkctl.stress.safety import safety_values

                values["safety"] = safety_values(directory, limits, _within(directory, sets))
            output.print_json(values)
            return
        text = summary(directory)
        if safety:
            from vkctl.stress.safety import safety_lines

            text = "\n".join((text, *safety_lines(directory, limits, _within(directory, sets))))
    output.tell(text)


def _limits(texts: list[str]) -> dict[str, float]:
    """By the name of the material, "" for all."""
    found = {}
    for text in texts:
        name, _, number = text.rpartition("=")
        try:
            found[name] = float(number)
        except ValueError:
            found[name] = math.nan
        if not 0 < found[name] < math.inf:
            raise refuse(f"--limit: {number!r} is no positive stress")
    return found


def _within(directory: Path, names: list[str] | None) -> list[Within]:
    """The sets of these names."""
    if not names:
        return []
    from vkctl.ask.study import regions
    from vkctl.directory.model import read
    from vkctl.stress.safety import Within

    found = regions(read(directory), names)
    return [Within(one.name, one.nodes, one.materials) for one in found]
