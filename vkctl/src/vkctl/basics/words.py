"""Words of messages: counts, lists of numbers, suggestions."""

from __future__ import annotations

import difflib
from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    import numpy.typing as npt

    from .types import Array

    Labels = Array | Sequence[int]  # row i - 1 has the label of number i

_LONGEST_WORD = 100  # that a likeness is sought for: it takes the square of the length
_MOST_OPTIONS = 500


def counted(count: int, what: str) -> str:
    """Count and plural of a noun that takes an s: "1 node", "2 nodes"."""
    return f"{count} {what}" + ("" if count == 1 else "s")


def clock(seconds: float) -> str:
    """Hours, minutes and seconds, as short as they can be told."""
    if seconds < 60:
        return f"{seconds:.1f} s"
    minutes, rest = divmod(round(seconds), 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02d}:{rest:02d} h" if hours else f"{minutes}:{rest:02d} min"


def short(value: float) -> str:
    """A number in four digits, whole below a million: "0.1235", "12000", "1.235e+06"."""
    return f"{value:.0f}" if 1e4 <= abs(value) < 1e6 else f"{value:.4g}"


def closest(word: str, options: Iterable[str]) -> str | None:
    """The option that a misspelt word is likely to mean, if any."""
    if len(word) > _LONGEST_WORD:
        return None
    folded = {option.lower(): option for option in reversed(list(options)[:_MOST_OPTIONS])}
    close = difflib.get_close_matches(word.lower(), folded, 1, 0.6)
    return folded[close[0]] if close else None


def did_you_mean(word: str, options: Iterable[str]) -> str:
    """Suggestion for a misspelt word: the closest option, or all of them."""
    known = list(options)
    if meant := closest(word, known):
        return f"did you mean {meant!r}?"
    if not known:
        return ""
    shown = ", ".join(known[:12]) + (", ..." if len(known) > 12 else "")
    return f"known: {shown}"


def place_words(place: Iterable[float], digits: int = 6) -> str:
    """A point or vector such as "(1, 0, -2.5)"."""
    return "(" + ", ".join(f"{component:.{digits}g}" for component in place) + ")"


_SHOWN = 5  # numbers listed in a message
_UNLABELLED: tuple[int, ...] = ()


def called(number: int, labels: Labels = _UNLABELLED) -> str:
    """A number, and its label where that is another: "17 (412 in the mesh)".

    `labels` has that of number i in row i - 1; it is empty where nobody knows them.
    """
    label = _in_mesh([number], labels)
    return f"{number} ({label})" if label else str(number)


def some(numbers: Sequence[int] | npt.NDArray[Any], labels: Labels = _UNLABELLED) -> str:
    """The first few of a list of numbers: "3, 4, 9, 12, 15 and 40 more".

    With `labels` as of `called`: "3, 4, 9; 17, 412, 8 in the mesh".
    """
    shown = [int(number) for number in numbers[:_SHOWN]]
    text = ", ".join(map(str, shown))
    if len(numbers) > _SHOWN:
        text += f" and {len(numbers) - _SHOWN} more"
    label = _in_mesh(shown, labels)
    return f"{text}; {label}" if label else text


def listed(
    numbers: Sequence[int] | npt.NDArray[Any],
    noun: str,
    labels: Labels = _UNLABELLED,
) -> str:
    """Such as "1 element (7)" or "3 elements (7, 8, 9)", with labels as of `some`."""
    return f"{counted(len(numbers), noun)} ({some(numbers, labels)})"


def _in_mesh(numbers: list[int], labels: Labels) -> str:
    """Labels of numbers; empty where they tell nothing that the numbers don't."""
    if not all(1 <= number <= len(labels) for number in numbers):
        return ""
    found = [int(labels[number - 1]) for number in numbers]
    return "" if found == numbers else ", ".join(map(str, found)) + " in the mesh"


def printable(text: str) -> str:
    """The text with escapes for what a terminal might obey: controls, directions, half characters.

    What comes from files may hold anything.
    """
    if text.isprintable():
        return text
    return "".join(
        sign if sign.isprintable() else sign.encode("unicode_escape").decode() for sign in text
    )
