"""The command `vkctl diff`."""

from __future__ import annotations

from dataclasses import asdict
from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.words import counted
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson
from vkctl.terminal.refusal import refusing


def _tolerances(texts: list[str], default: float, option: str) -> dict[str, float]:
    """From "1e-4" for all quantities and "stress=1e-2" for one, later ones winning."""
    from vkctl.directory.compare import QUANTITIES

    values = dict.fromkeys(QUANTITIES, default)
    for text in texts:
        name, _, number = text.rpartition("=")
        if name and name not in values:
            known = ", ".join(QUANTITIES)
            raise typer.BadParameter(
                f"unknown quantity {name!r}, known are {known}", param_hint=option
            )
        try:
            values.update(dict.fromkeys([name] if name else QUANTITIES, float(number)))
        except ValueError:
            raise typer.BadParameter(f"{number!r} is no number", param_hint=option) from None
    return values


def diff_command(
    first: Annotated[Path, typer.Argument(..., help="working directory")],
    second: Annotated[Path, typer.Argument(..., help="working directory to compare it with")],
    rtol: Annotated[
        list[str] | None,
        typer.Option(..., help="relative to the largest magnitude: NUMBER, or QUANTITY=NUMBER"),
    ] = None,
    atol: Annotated[list[str] | None, typer.Option(..., help="absolute, in the same forms")] = None,
    signs: Annotated[
        bool, typer.Option(..., "--signs", help="compare stresses with signs")
    ] = False,
    as_json: AsJson = False,
) -> None:
    """Compare the results of two directories.

    Exit status: 0 equal within the tolerances, 1 different, 2 can't be compared.
    """
    from vkctl.directory.compare import ATOL, RTOL, CannotCompareError, diff

    relative = _tolerances(rtol or [], RTOL, "--rtol")
    absolute = _tolerances(atol or [], ATOL, "--atol")
    with refusing(CannotCompareError):
        comparison = diff(first, second, rtol=relative, atol=absolute, signs=signs)
    if as_json:
        output.print_json({"equal": comparison.equal, **asdict(comparison)})
    lines = [*comparison.one_sided, *map(str, comparison.differences)]
    if comparison.equal:
        cases = counted(len(comparison.load_cases), "load case")
        lines.append(f"Equal within the tolerances: {cases}.")
    output.tell(*lines, silent=as_json)
    raise typer.Exit(comparison.status)
