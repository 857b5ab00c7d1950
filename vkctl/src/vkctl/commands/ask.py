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


def ask_command(
    directory: Directory,
    question: Annotated[_Question, typer.Argument(..., help="what is asked")] = _Question.overview,
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
        str, typer.Option(..., help="point that moments are about, as X,Y,Z")
    ] = "0,0,0",
    every_node: Annotated[
        bool, typer.Option(..., "--nodes", help="the envelope at every node")
    ] = False,
    as_json: AsJson = False,
    as_csv: Annotated[bool, typer.Option(..., "--csv", help="print the answer as CSV")] = False,
) -> None:
    """Answer questions about solved load cases with numbers.

    reactions: at each support, with the balance against the loads. extremes: by set, with node and
    place. envelope: extremes over load cases. overview: the first two, for the whole part.
    """
    with refusing(ValueError):
        from vkctl.ask.answers import Wanted, answer
        from vkctl.ask.study import place_of
        from vkctl.ask.tables import as_csv as csv_of
        from vkctl.ask.tables import as_lines

        wanted = Wanted(
            tuple(case or ()), tuple(of_set or ()), tuple(field or ()), place_of(about), every_node
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
    console = output.console()
    for table in found.tables:
        for line in [*as_lines(table), *([""] if table is not found.tables[-1] else [])]:
            console.print(line, markup=False, soft_wrap=True)
    for sentence in found.remarks:
        console.print(sentence, markup=False, soft_wrap=True)
