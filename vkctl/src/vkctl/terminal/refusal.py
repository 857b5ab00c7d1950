"""How a command refuses: a sentence on standard error and an exit status."""

from __future__ import annotations

import typer
from rich.console import Console

REFUSED = 2  # exit status of a command that can't do what it was asked


def refuse(reason: object, status: int = REFUSED) -> typer.Exit:
    """Tell the reason on standard error; the caller raises what comes back."""
    Console(stderr=True, highlight=False).print(str(reason), markup=False, soft_wrap=True)
    return typer.Exit(status)
