"""How a command refuses: a sentence on standard error and an exit status."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import typer

from vkctl.basics.extras import MissingPartError
from vkctl.basics.failures import sentence
from vkctl.basics.words import printable

REFUSED = 2  # exit status of a command that can't do what it was asked


def refuse(reason: object, status: int = REFUSED) -> typer.Exit:
    """Tell the reason on standard error; the caller raises what comes back."""
    text = sentence(reason) if isinstance(reason, OSError) else str(reason)
    for line in text.split("\n"):
        typer.echo(printable(line), err=True)
    return typer.Exit(status)


@contextmanager
def refusing(*kinds: type[Exception]) -> Iterator[None]:
    """Refuse where one of these errors comes out of the block, as of files and missing parts."""
    from vkctl.directory.formats import FormatError

    known: tuple[type[Exception], ...] = (MissingPartError, OSError, FormatError, *kinds)
    try:
        yield
    except known as error:
        raise refuse(error) from None
