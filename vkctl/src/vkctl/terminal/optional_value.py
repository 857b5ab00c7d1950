"""A switch that may be followed by a number, which no parser of ours offers by itself."""

from __future__ import annotations

from typing import Any

from typer.core import TyperCommand

SWITCH, NUMBER = "--settle", "--settle-to"


class SettleCommand(TyperCommand):
    """A command whose `--settle` may bring its tolerance along."""

    def parse_args(self, ctx: Any, args: list[str]) -> list[str]:
        rest: list[str] = super().parse_args(ctx, split(args))
        return rest


def split(words: list[str]) -> list[str]:
    """`--settle 1e-5` and `--settle=1e-5` as the switch and an option of its own."""
    found: list[str] = []
    for word in words:
        if word.startswith(SWITCH + "="):
            found += [SWITCH, NUMBER, word.removeprefix(SWITCH + "=")]
        elif found and found[-1] == SWITCH and _is_number(word):
            found += [NUMBER, word]
        else:
            found.append(word)
    return found


def _is_number(word: str) -> bool:
    try:
        float(word)
    except ValueError:
        return False
    return True
