"""Where commands print: nothing of it with `--quiet`, but what went wrong is always told."""

from __future__ import annotations

import json
import math
import os
from typing import TYPE_CHECKING, Any

import typer

if TYPE_CHECKING:
    from rich.console import Console

_is_quiet = False


def be_quiet(wanted: bool) -> None:
    """Whether commands print no more than refusals and what was asked for as JSON."""
    global _is_quiet
    _is_quiet = wanted


def tell(*lines: str, silent: bool = False) -> None:
    """Print the lines as they are; `silent` where something else is printed instead."""
    if not (_is_quiet or silent):
        for line in lines:
            typer.echo(line)


def styled(text: str, **style: Any) -> str:
    """The text in colours for `tell`, which leaves them out where no terminal shows them."""
    plain = os.environ.get("NO_COLOR") or os.environ.get("TERM") == "dumb"
    return text if plain else typer.style(text, **style)


def console(stderr: bool = False, silent: bool = False) -> Console:
    """Where a command prints tables and colours, or what is drawn anew; `silent` as for `tell`."""
    from rich.console import Console  # takes longer to load than some commands take

    return Console(highlight=False, stderr=stderr, quiet=_is_quiet or silent)


def print_json(values: dict[str, Any]) -> None:
    """The values as JSON, null for numbers that JSON doesn't have."""
    typer.echo(json.dumps(_told(values), indent=2, allow_nan=False))


def _told(value: Any) -> Any:
    if isinstance(value, dict):
        return {key: _told(entry) for key, entry in value.items()}
    if isinstance(value, list | tuple):
        return [_told(entry) for entry in value]
    return None if isinstance(value, float) and not math.isfinite(value) else value
