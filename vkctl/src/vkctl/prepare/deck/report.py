"""What was wrong in a deck, and what of it isn't taken, told by file and line."""

from __future__ import annotations

import re
from dataclasses import dataclass, field

from vkctl.basics.words import printable

from ..part import DeckSection

_MOST = 100  # mistakes that are told
_LONGEST = 80  # characters of a line that are shown


class DeckError(Exception):
    """Lines of a deck that can't be understood, one `FILE:LINE: TEXT` a line."""


@dataclass
class Report:
    mistakes: list[str] = field(default_factory=list)
    untaken: dict[str, None] = field(default_factory=dict)
    outputs: dict[str, None] = field(default_factory=dict)  # keywords that ask for output

    def mistake(self, section: DeckSection, line: int, text: str) -> None:
        self.mistakes.append(printable(f"{section.file}:{line}: {text}"))

    def unread(self, section: DeckSection, line: int, text: str, wanted: str) -> None:
        """A mistake of one line's form."""
        shown = text if len(text) <= _LONGEST else f"{text[:_LONGEST]}..."
        self.mistake(section, line, f"{shown!r} below *{section.keyword} isn't {wanted}")

    def leave(self, section: DeckSection, text: str, line: int | None = None) -> None:
        """Something of the deck that the case file won't hold."""
        place = section.line if line is None else line
        self.untaken[printable(f"{section.file}:{place}: {text}")] = None

    def finish(self) -> None:
        if self.mistakes:
            more = len(self.mistakes) - _MOST
            tail = [f"and {more} more"] if more > 0 else []
            raise DeckError("\n".join(self.mistakes[:_MOST] + tail))


def words_of(text: str) -> list[str]:
    """Words of a data line; commas at its end don't count."""
    return [word.strip() for word in text.rstrip(", \t").split(",")]


_NUMBER = re.compile(r"[+-]?(\d+\.?\d*|\.\d+)([eEdD][+-]?\d+)?")


def as_number(word: str) -> float | None:
    """A finite number as decks write it, None for anything else."""
    if len(word) > _LONGEST or not _NUMBER.fullmatch(word):
        return None
    value = float(word.upper().replace("D", "E"))
    return value if abs(value) < 3.4e38 else None


def numbers_of(words: list[str]) -> list[float] | None:
    """Numbers of words, blank ones as 0; None where one is none."""
    found = [as_number(word) if word else 0.0 for word in words]
    return None if None in found else found  # type: ignore[return-value]


def data_numbers(report: Report, section: DeckSection) -> list[float] | None:
    """All numbers of a section's data, whatever lines they stand in; None after a mistake."""
    found: list[float] = []
    for line, text in section.lines():
        numbers = numbers_of(words_of(text))
        if numbers is None:
            report.unread(section, line, text, "numbers")
            return None
        found += numbers
    return found
