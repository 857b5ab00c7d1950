"""Where commands print: nothing of it with `--quiet`, but what went wrong is always told."""

from __future__ import annotations

import json
import math
from typing import Any

import typer
from rich.console import Console

_is_quiet = False


def be_quiet(wanted: bool) -> None:
    """Whether commands print no more than refusals and what was asked for as JSON."""
    global _is_quiet
    _is_quiet = wanted


def console(stderr: bool = False, silent: bool = False) -> Console:
    """Where a command prints; `silent` where something else is printed instead."""
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
