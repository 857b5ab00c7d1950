"""The command `vkctl import`."""

from __future__ import annotations

import signal
from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.words import counted, printable
from vkctl.terminal import output
from vkctl.terminal.reading import (
    NoLimits,
    TerminatedError,
    TrustScripts,
    ending_when_asked,
    reading_shown,
)
from vkctl.terminal.refusal import refuse, refusing


def import_command(
    deck: Annotated[Path, typer.Argument(..., help="deck of Abaqus or CalculiX (.inp)")],
    cases: Annotated[Path, typer.Argument(..., help="case file to write (.toml)")],
    split: Annotated[
        bool, typer.Option(..., "--split", help="have all cells split into 4-node tetrahedra")
    ] = False,
    trust_scripts: TrustScripts = False,
    no_limits: NoLimits = False,
) -> None:
    """Write a case file with the materials, supports, loads and steps of a deck."""
    from vkctl.prepare.deck import DeckError, import_deck
    from vkctl.prepare.part import PartError

    try:
        with refusing(DeckError, PartError), ending_when_asked():
            with reading_shown(trust_scripts, no_limits) as reading:
                made = import_deck(deck, cases, reading, split)
    except MemoryError:
        raise refuse("Memory ran out: nothing is written.") from None
    except KeyboardInterrupt:
        raise refuse("Interrupted: nothing is written.", 128 + signal.SIGINT) from None
    except TerminatedError:
        raise refuse("Terminated: nothing is written.", 128 + signal.SIGTERM) from None
    counts = ", ".join(counted(count, kind) for kind, count in made.counts.items())
    lines = [f"{counts} of {deck} in {cases}"]
    lines += made.untaken
    if made.outputs:
        lines.append(
            f"results are the solver's own, whatever the deck asks: {', '.join(made.outputs)}"
        )
    lines += [f"note: {note}" for note in made.notes]
    output.tell(*map(printable, lines))
