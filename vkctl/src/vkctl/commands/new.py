"""The command `vkctl new`."""

from __future__ import annotations

import signal
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from vkctl.basics.words import counted, printable, short
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson
from vkctl.terminal.reading import (
    NoLimits,
    TerminatedError,
    TrustScripts,
    ending_when_asked,
    reading_shown,
)
from vkctl.terminal.refusal import refuse, refusing

if TYPE_CHECKING:
    from rich.console import Console
    from rich.table import Table

    from vkctl.basics.types import Array
    from vkctl.prepare.build import Prepared
    from vkctl.prepare.mesh import PartMesh


def new_command(
    part: Annotated[
        Path, typer.Argument(..., help="mesh (.msh, .inp, .vtu) or geometry (.step, .geo)")
    ],
    cases: Annotated[Path, typer.Argument(..., help="case file (.toml)")],
    directory: Annotated[
        Path | None, typer.Argument(..., help="working directory, made if missing")
    ] = None,
    list_sets: Annotated[
        bool, typer.Option(..., "--list-sets", help="show the sets and write nothing")
    ] = False,
    trust_scripts: TrustScripts = False,
    no_limits: NoLimits = False,
    as_json: AsJson = False,
) -> None:
    """Write the working directory of a part under the loads of a case file."""
    from vkctl.prepare.build import build, put
    from vkctl.prepare.case_file.mistakes import CaseFileError
    from vkctl.prepare.part import PartError

    console = output.console()
    if directory is None and not list_sets:
        raise typer.BadParameter("name the working directory, or give --list-sets")
    end = "nothing is written"
    try:
        with refusing(CaseFileError, PartError, OSError), ending_when_asked():
            with reading_shown(trust_scripts, no_limits) as reading:
                prepared = build(part, cases, reading)
            if not list_sets and directory is not None:
                end = f"{directory} isn't complete"
                put(prepared, directory)
    except MemoryError:
        raise refuse(f"Memory ran out: {end}. A coarser mesh needs less.") from None
    except KeyboardInterrupt:
        raise refuse(f"Interrupted: {end}.", 128 + signal.SIGINT) from None
    except TerminatedError:
        raise refuse(f"Terminated: {end}.", 128 + signal.SIGTERM) from None
    if as_json:
        output.print_json(sets_values(prepared) if list_sets else values(prepared))
        return
    if list_sets:
        console.print(sets_table(prepared))
    else:
        console.print(summary(prepared), markup=False, soft_wrap=True)
        show_cases(console, prepared)
    for note in prepared.notes:
        console.print(f"note: {printable(note)}", markup=False, soft_wrap=True)


def summary(prepared: Prepared) -> str:
    """One line on the size of a model and where it was written."""
    whole = prepared.model
    patterns = len({case.pattern for case in whole.load_cases})
    return (
        f"{counted(len(whole.nodes), 'node')}, {counted(len(whole.elements), 'element')}, "
        f"{counted(len(whole.tp), 'design point')}, {counted(len(whole.load_cases), 'load case')} "
        f"of {counted(patterns, 'pattern')} in {prepared.directory}"
    )


def values(prepared: Prepared) -> dict[str, Any]:
    """What was written, for programs: counts, and each load case with its force and moment."""
    whole = prepared.model
    return {
        "directory": str(prepared.directory),
        "nodes": len(whole.nodes),
        "elements": len(whole.elements),
        "design_points": len(whole.tp),
        "load_cases": [
            {
                "load_case": number,
                "name": name,
                "pattern": pattern,
                "force": sums[:3],
                "moment": sums[3:],
            }
            for number, name, pattern in _titles(prepared)
            for sums in [prepared.resultants[number - 1].tolist()]
        ],
        "notes": prepared.notes,
    }


def show_cases(console: Console, prepared: Prepared) -> None:
    """Load cases with the sums of their forces, to be compared with what was meant.

    Where a line would be too long for the terminal, names and patterns have lines of their own.
    """
    whole, short = cases_table(prepared, names=True), cases_table(prepared, names=False)
    if _width(console, whole) <= console.width:
        console.print(whole)
        return
    before = console.width
    console.width = max(before, _width(console, short))  # what is too long still is shown whole
    console.print(short, crop=False)
    console.width = before
    for number, name, pattern in _titles(prepared):
        line = f"{number} {printable(name)} (pattern {pattern})"
        console.print(line, markup=False, soft_wrap=True)


def _width(console: Console, table: Table) -> int:
    from rich.measure import Measurement

    return Measurement.get(console, console.options.update(max_width=10_000), table).maximum


def _titles(prepared: Prepared) -> list[tuple[int, str, int]]:
    pairs = zip(prepared.case_names, prepared.model.load_cases, strict=True)
    return [(number, name, case.pattern) for number, (name, case) in enumerate(pairs, 1)]


def cases_table(prepared: Prepared, names: bool) -> Table:
    """Sums of each load case's forces and moments, beside its name or just its number."""
    from rich import box
    from rich.table import Table
    from rich.text import Text

    table = Table(box=box.SIMPLE_HEAD, pad_edge=False)
    table.add_column("load case" if names else "", no_wrap=True)
    for title in (*(["pattern"] if names else []), "Fx", "Fy", "Fz", "Mx", "My", "Mz"):
        table.add_column(title, justify="right", no_wrap=True)
    for number, name, pattern in _titles(prepared):
        cells = [short(value) for value in cleaned_sums(prepared, number)]
        if names:
            table.add_row(Text(printable(f"{number} {name}")), str(pattern), *cells)
        else:
            table.add_row(str(number), *cells)
    return table


def cleaned_sums(prepared: Prepared, number: int) -> Array:
    """Force and moment of a load case without the noise of nodal forces that cancel each other."""
    import numpy as np

    from vkctl.directory.sums import size_of_forces, without_noise

    force = size_of_forces(prepared.model.load_cases[number - 1])
    arm = float(np.abs(prepared.model.nodes).max(initial=0.0))
    return without_noise(prepared.resultants[number - 1], np.repeat((force, force * arm), 3))


def sets_values(prepared: Prepared) -> dict[str, Any]:
    """Sets of a part and its case file with sizes and extents, but for single points and curves."""
    mesh: PartMesh = prepared.mesh
    told = []
    for kind in ("node", "element", "face"):
        for name in prepared.sets.names(kind):
            if name.startswith(("point:", "curve:")):
                continue
            found = prepared.sets.members(kind, name)
            points = mesh.nodes[prepared.sets.nodes_of(kind, name) - 1]
            low, high = (
                (points.min(axis=0).tolist(), points.max(axis=0).tolist())
                if len(points)
                else (None, None)
            )
            told.append({"name": name, "kind": kind, "size": len(found), "from": low, "to": high})
    return {"sets": told, "notes": prepared.notes}


def sets_table(prepared: Prepared) -> Table:
    """The same as a table."""
    from rich import box
    from rich.table import Table
    from rich.text import Text

    table = Table("set", "kind", "size", "from", "to", box=box.SIMPLE_HEAD, pad_edge=False)
    for one in sets_values(prepared)["sets"]:
        ends = [one[end] for end in ("from", "to") if one[end]]
        table.add_row(
            Text(printable(one["name"])),
            one["kind"],
            str(one["size"]),
            *(" ".join(f"{v:.5g}" for v in end) for end in ends),
        )
    return table
