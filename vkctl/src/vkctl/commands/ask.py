"""The command `vkctl ask`."""

from __future__ import annotations

from enum import StrEnum
from typing import Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.refusal import refuse, refusing


class _Question(StrEnum):
    overview = "overview"
    reactions = "reactions"
    extremes = "extremes"
    envelope = "envelope"
    cut = "cut"
    point = "point"
    line = "line"
    mass = "mass"


def ask_command(
    directory: Directory,
    question: Annotated[
        _Question, typer.Argument(..., metavar="question", help="what is asked")
    ] = _Question.overview,
    case: Annotated[
        list[str] | None,
        typer.Option(..., help="load case, number or name; all solved ones if not given"),
    ] = None,
    of_set: Annotated[
        list[str] | None, typer.Option(..., "--set", help="only this set, which may be repeated")
    ] = None,
    field: Annotated[
        list[str] | None,
        typer.Option(..., help="of extremes and envelope, such as von_mises; may be repeated"),
    ] = None,
    about: Annotated[
        str | None,
        typer.Option(..., help="X,Y,Z for moments; else the origin, or a section's centre"),
    ] = None,
    at: Annotated[
        list[str] | None, typer.Option(..., help="X,Y,Z of a point, or of a cut's plane")
    ] = None,
    normal: Annotated[str | None, typer.Option(..., help="X,Y,Z across a cut's plane")] = None,
    start: Annotated[str | None, typer.Option(..., "--from", help="X,Y,Z a line begins at")] = None,
    end: Annotated[str | None, typer.Option(..., "--to", help="X,Y,Z a line ends at")] = None,
    points: Annotated[int | None, typer.Option(..., help="of a line; 11 if not given")] = None,
    every_node: Annotated[
        bool, typer.Option(..., "--nodes", help="the envelope at every node")
    ] = False,
    as_json: AsJson = False,
    as_csv: Annotated[bool, typer.Option(..., "--csv", help="print the answer as CSV")] = False,
) -> None:
    """Answer questions about solved load cases with numbers.

    \b
    overview     reactions and extremes
    reactions    at each support, with the balance against the loads
    extremes     largest and smallest values by set, with node and place
    envelope     extremes over load cases
    cut          section forces of a plane
    point, line  values inside the part
    mass         volume, mass, centre, inertia
    """
    if as_json and as_csv:
        raise refuse("--json and --csv print the same answer: give one of them")
    with refusing(ValueError):
        from vkctl.ask.answers import Wanted, answer
        from vkctl.ask.study import place_of
        from vkctl.ask.tables import as_csv as csv_of
        from vkctl.ask.tables import as_lines

        def place(text: str | None) -> tuple[float, float, float] | None:
            return None if text is None else place_of(text)

        wanted = Wanted(
            cases=tuple(case or ()),
            sets=tuple(of_set or ()),
            fields=tuple(field or ()),
            about=place(about),
            every_node=every_node,
            at=tuple(place_of(text) for text in at or ()),
            normal=place(normal),
            start=place(start),
            end=place(end),
            points=points,
        )
        found = answer(directory, question, wanted)
    if as_json:
        output.print_json(found.values)
        return
    if as_csv:
        if len(found.tables) != 1:
            raise refuse("--csv prints one table: ask one question, about one field")
        typer.echo(csv_of(found.tables[0]), nl=False)
        return
    for table in found.tables:
        output.tell(*as_lines(table), *([""] if table is not found.tables[-1] else []))
    output.tell(*found.remarks)
