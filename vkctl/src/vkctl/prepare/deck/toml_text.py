"""Writing TOML: tables with keys, numbers as short as they can be told exactly."""

from __future__ import annotations

import json
import re
from collections.abc import Sequence
from typing import Any

import numpy as np

_BARE = re.compile(r"[A-Za-z0-9_-]+\Z")
_WIDTH = 100


def header(*parts: str) -> str:
    return ".".join(part if _BARE.match(part) else _text(part) for part in parts)


def table(parts: Sequence[str], keys: dict[str, Any], list_of: bool = False) -> str:
    """A table's lines; keys without a value are left out."""
    ends = ("[[", "]]") if list_of else ("[", "]")
    lines = [f"{ends[0]}{header(*parts)}{ends[1]}"] if parts else []
    lines += [f"{header(key)} = {_value(v)}" for key, v in keys.items() if v is not None]
    return "\n".join(lines) + "\n"


def _text(text: str) -> str:
    return json.dumps(text, ensure_ascii=False).replace("\x7f", "\\u007f")


def _value(value: Any) -> str:
    if isinstance(value, str):
        return _text(value)
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int | np.integer):
        return str(int(value))
    if isinstance(value, float | np.floating):
        return repr(float(value) + 0.0)  # no negative zero
    items = [_value(v) for v in value]
    line = f"[{', '.join(items)}]"
    return line if len(line) <= _WIDTH else _folded(items)


def _folded(items: list[str]) -> str:
    """A long list over several lines."""
    lines, line = ["["], "   "
    for item in items:
        if len(line) + len(item) + 2 > _WIDTH and line.strip():
            lines.append(line)
            line = "   "
        line += f" {item},"
    return "\n".join([*lines, line, "]"])
