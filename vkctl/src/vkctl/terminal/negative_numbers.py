"""A command whose words may be negative numbers, which a parser would take for options."""

from __future__ import annotations

import re
from typing import Any

from typer.core import TyperCommand

_NEGATIVE = re.compile(r"-\.?\d")


class NumbersCommand(TyperCommand):
    """Takes "-1,2,3" for what it is."""

    def parse_args(self, ctx: Any, args: list[str]) -> list[str]:
        # With a blank before it no word looks like an option, and numbers are read past blanks.
        words = [" " + word if _NEGATIVE.match(word) else word for word in args]
        rest: list[str] = super().parse_args(ctx, words)
        return rest
