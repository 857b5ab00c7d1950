"""The command `vkctl verify-part`."""

from __future__ import annotations

from dataclasses import asdict
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from vkctl.basics.extras import need
from vkctl.basics.words import counted, printable
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.reading import NoLimits, reading_shown
from vkctl.terminal.refusal import refuse, refusing

if TYPE_CHECKING:
    from rich.table import Table

    from vkctl.optimise.body_compared import Verified

_BEYOND = 3  # exit status
_DEFAULT = 0.03  # tolerance


def verify_part_command(
    directory: Directory,
    cases: Annotated[
        Path | None,
        typer.Option(..., help="its case file; that of its optimisation if not given"),
    ] = None,
    size: Annotated[
        float | None, typer.Option(..., help="largest edge of elements inside of the body")
    ] = None,
    order: Annotated[int, typer.Option(..., help="1: 4-node tetrahedra, 2: 10-node")] = 2,
    tolerance: Annotated[
        float, typer.Option(..., help="part of the energy that may be more or less")
    ] = _DEFAULT,
    keep: Annotated[
        Path | None, typer.Option(..., help="folder, made if missing, for the body: its directory")
    ] = None,
    vk_rund: Annotated[Path | None, typer.Option(..., "--vk-rund", help="the solver")] = None,
    no_limits: NoLimits = False,
    as_json: AsJson = False,
) -> None:
    """Mesh the smooth part as a body, solve it, compare it with the optimised one.

    Exit status: 0 within the tolerance, 3 beyond it, 2 for mistakes and a surface that can't be
    meshed, that of vk_rund where it failed, 127 or 126 where it can't be found or executed.
    """
    from vkctl.optimise.as_body import BodyError, verify_part
    from vkctl.prepare.case_file.mistakes import CaseFileError
    from vkctl.prepare.part import PartError, Told
    from vkctl.running.run import NotFoundError

    console = output.console(silent=as_json)
    try:
        with refusing(CaseFileError, PartError, ValueError):
            need("gmsh")
            with reading_shown(False, no_limits) as reading:
                found = verify_part(
                    directory,
                    cases,
                    size=size,
                    order=order,
                    tolerance=tolerance,
                    keep=keep,
                    vk_rund=vk_rund,
                    reading=reading,
                    on_progress=lambda now: reading.tell(Told(f"solving the body: {now.stage}")),
                )
    except NotFoundError as error:
        raise refuse(error, error.status) from None
    except BodyError as error:
        status = 2 if error.run is None else error.run.status or 1
        raise refuse(error, status) from None
    if as_json:
        output.print_json(_values(found))
    else:
        console.print(_table(found))
        for line in _lines(found):
            console.print(line, markup=False, soft_wrap=True)
    raise typer.Exit(0 if found.within else _BEYOND)


def _values(found: Verified) -> dict[str, Any]:
    return {
        "within": found.within,
        **asdict(found),
        "directory": str(found.directory),
        "kept": None if found.kept is None else str(found.kept),
    }


def _table(found: Verified) -> Table:
    """A row each load case: part, body, and by how much the body is softer."""
    from rich.table import Table
    from rich.text import Text

    grid = Table(box=None, pad_edge=False)
    grid.add_column("load case")
    away = any(one.away is not None for one in found.cases)
    for heading in (
        *("of", "part", "body", "ratio"),
        *(("away",) if away else ()),
        *("max. displ.", "of the body"),  # which wrap
    ):
        grid.add_column(heading, justify="left" if heading == "of" else "right")
    for one in found.cases:
        values = [
            side.compliance if one.measure == "compliance" else side.strain_energy
            for side in (one.part, one.body)
        ]
        title = f"{one.number} {printable(one.name)}".strip()
        red = "red" if abs(one.judged - 1) > found.tolerance else ""
        others = []
        if away:
            others.append(Text("" if one.away is None else f"{one.away:.4f}", red))
        grid.add_row(
            Text(title),
            one.measure,
            *(f"{value:.6g}" for value in values),
            Text(f"{one.ratio:.4f}", red if one.away is None else ""),
            *others,
            f"{one.part.displacement:.6g}",
            f"{one.body.displacement:.6g}",
        )
    return grid


def _about_away(found: Verified) -> list[str]:
    """What `away` means, where there is any."""
    if all(one.away is None for one in found.cases):
        return []
    return [
        f"away: the strain energy further than {found.distance:.3g} from single nodes that "
        "something acts on, which is what counts; around them it grows with every finer mesh"
    ]


def _lines(found: Verified) -> list[str]:
    change = 100 * (found.body_volume / found.part_volume - 1)
    worst = max(found.cases, key=lambda one: abs(one.judged - 1))
    how = "within" if found.within else "beyond"
    lines = [
        f"volume: part {found.part_volume:.6g}, body {found.body_volume:.6g} ({change:+.2g} %); "
        f"body of {counted(found.elements, 'element')}",
        f"{how} the tolerance of {100 * found.tolerance:g} %: load case {worst.number} is "
        f"{abs(100 * (worst.judged - 1)):.3g} % {'softer' if worst.judged > 1 else 'stiffer'}",
        *_about_away(found),
        *(printable(one.told()) for one in found.limits),
        *map(printable, found.notes),
    ]
    if found.kept is not None:
        lines.append(f"the body is kept in {found.kept}: vkctl plot, ask and report take it")
    return lines
