"""How the commands that read parts trust them, and show that the reading goes on."""

from __future__ import annotations

import signal
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from types import FrameType
from typing import TYPE_CHECKING, Annotated

import typer

from vkctl.basics.words import printable

from . import output

if TYPE_CHECKING:
    from vkctl.prepare.part import Reading, Told

TrustScripts = Annotated[
    bool,
    typer.Option(
        ...,
        "--trust-scripts",
        help="run the part's scripts whatever they do, and include files from anywhere",
    ),
]
NoLimits = Annotated[
    bool, typer.Option(..., "--no-limits", help="read and mesh the part whatever it takes")
]


class TerminatedError(Exception):
    """The process was asked to end."""


@contextmanager
def reading_shown(trust_scripts: bool, no_limits: bool) -> Iterator[Reading]:
    """What a command hands on to the readers; a line on the terminal shows how they get on."""
    from vkctl.prepare.part import Reading

    console = output.console(stderr=True)

    def keep(told: Told) -> None:
        if told.lasting:
            console.print(printable(told.text), markup=False, soft_wrap=True)

    if not console.is_terminal:
        yield Reading(trust_scripts, not no_limits, keep)
        return
    from rich.text import Text

    with console.status("reading the part") as status:

        def show(told: Told) -> None:
            keep(told)
            if not told.lasting:
                status.update(Text(printable(told.text)))

        yield Reading(trust_scripts, not no_limits, show)


@contextmanager
def ending_when_asked() -> Iterator[None]:
    """TerminatedError in the block at SIGTERM, so that it tidies up as after an interrupt."""

    def end(number: int, frame: FrameType | None) -> None:
        raise TerminatedError

    if threading.current_thread() is not threading.main_thread():
        yield
        return
    before = signal.signal(signal.SIGTERM, end)
    try:
        yield
    finally:
        signal.signal(signal.SIGTERM, before)
