"""The keywords of an input deck with their data lines, included files in their places."""

from __future__ import annotations

import os
import re
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from vkctl.basics.failures import reason

from ..part import DeckSection, PartError

_KEYWORD = re.compile(r"^[ \t]*\*[^\n]*", re.MULTILINE)
_DEEPEST_INCLUDE = 10
_MOST_INCLUDES = 1000


@dataclass
class Sources:
    """The files of a deck: where they may lie, and how many there have been."""

    deck: Path
    title: str  # what the deck is called in messages
    anywhere: bool
    files: int = 0

    @property
    def folder(self) -> Path:
        return self.deck.parent.resolve()

    def title_of(self, path: Path) -> str:
        if path == self.deck:
            return self.title
        return str(Path(self.title).parent / os.path.relpath(path, self.deck.parent))


def sections(path: Path, sources: Sources, depth: int = 0) -> Iterator[DeckSection]:
    sources.files += 1
    if depth > _DEEPEST_INCLUDE:
        raise PartError(f"{path}: *INCLUDE lines go round in a circle")
    if sources.files > _MOST_INCLUDES:
        raise PartError(f"{path}: more than {_MOST_INCLUDES} *INCLUDE lines")
    try:
        if not path.is_file() and path.exists():
            raise PartError(f"{path}: is no file that can be included")
        text = path.read_text("latin-1").replace("\r\n", "\n")
    except (OSError, ValueError) as error:
        why = reason(error) if isinstance(error, OSError) else str(error)
        raise PartError(f"{path}: can't be read: {why}") from None
    title = sources.title_of(path)
    section: DeckSection | None = None
    last, line = 0, 1  # what is taken so far, and the number of the line there
    for match in _KEYWORD.finditer(text):
        if section:
            section.pieces.append((line, text[last : match.start()]))
        line += text.count("\n", last, match.end())
        last = match.end()
        head = match[0].strip()
        if head.startswith("**"):
            continue
        yield from _finished(section, path, sources, depth)
        first = line
        while head.endswith(",") and last < len(text):  # the parameters go on in the next line
            stop = text.find("\n", last + 1)
            stop = len(text) if stop < 0 else stop
            if (more := text[last:stop].strip()).startswith("*"):
                break
            head, last, line = head + more, stop, line + 1
        section = _section(head, title, first)
    if section:
        section.pieces.append((line, text[last:]))
    yield from _finished(section, path, sources, depth)


def _section(head: str, file: str, line: int) -> DeckSection:
    keyword, *rest = head.lstrip("*").split(",")
    pairs = [r.partition("=") for r in rest]
    parameters = {k.strip().upper().replace(" ", ""): v.strip() for k, _, v in pairs}
    return DeckSection(keyword.upper().replace(" ", ""), parameters, [], head, file, line)


def _finished(
    section: DeckSection | None, path: Path, sources: Sources, depth: int
) -> Iterator[DeckSection]:
    if section is None:
        return
    if section.keyword == "INCLUDE":
        name = section.get("INPUT").strip('"')
        yield from sections(_included(path, name, sources), sources, depth + 1)
    else:
        yield section


def _included(path: Path, name: str, sources: Sources) -> Path:
    """The file of an *INCLUDE line; links count as what they point to."""
    place = path.parent / name
    try:
        inside = place.resolve().is_relative_to(sources.folder)
    except (OSError, ValueError, RuntimeError):  # circles of links, zero bytes
        inside = False
    if not inside and not sources.anywhere:
        raise PartError(
            f"{path}: *INCLUDE of {name!r}, which doesn't lie below the deck's folder; "
            "--trust-scripts reads it all the same"
        )
    return place
