"""The list of option lines that solver and companion must read alike."""

from __future__ import annotations

import re
from dataclasses import dataclass

import program_under_test

LIST = program_under_test.ROOT / "tests" / "data" / "option_lines.txt"
_ESCAPES = {"n": "\n", "r": "\r", "t": "\t", "\\": "\\"}
ENDS = ("", "\n", "\r\n")


@dataclass(frozen=True)
class OptionText:
    """A text of the options file and what becomes of it."""

    text: bytes
    key: str | None  # None where no key is seen
    outcome: str  # "ignored", "kept", "unreadable", or a number

    @property
    def readable(self) -> bool:
        return self.outcome != "unreadable"


def _unescaped(text: str) -> str:
    text = re.sub(r"\{(\d+)\*(.*?)\}", lambda m: int(m[1]) * m[2], text)
    return re.sub(
        r"\\(?:x([0-9a-f]{2})|(.))", lambda m: chr(int(m[1], 16)) if m[1] else _ESCAPES[m[2]], text
    )


def option_texts(ends: tuple[str, ...] = ENDS) -> list[OptionText]:
    """Every text of the list, those without an end of line with each of `ends`."""
    found = []
    for line in LIST.read_text(encoding="ascii").splitlines():
        if not line or line.startswith("#"):
            continue
        escaped, _, result = line.rpartition(" | ")
        key, _, outcome = result.rpartition(" ")
        text = _unescaped(escaped)
        whole = [text] if {"\n", "\r"} & set(text) else [text + end for end in ends]
        found += [OptionText(one.encode("latin-1"), key or None, outcome) for one in whole]
    return found
