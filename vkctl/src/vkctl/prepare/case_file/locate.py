"""Lines of the keys of a TOML text.

`tomllib` tells values but not where they stand. The scanner here walks over a text that
`tomllib` has accepted, so it needs no error handling, and notes the line of every key, table
header and array entry.
"""

from __future__ import annotations

import re

Path = tuple[str | int, ...]

_BARE = re.compile(r"[A-Za-z0-9_-]+")
_SCALAR = re.compile(r"[^,\]\}\s#]+(?: [0-9][^,\]\}\s#]*)?")  # a date may be followed by a time
_BLANK = re.compile(r"(?:[ \t\r\n]|#[^\n]*)*")
_STRINGS = (
    re.compile(r'"""(?:[^\\]|\\.)*?"""(?:"{0,2}(?!"))', re.DOTALL),
    re.compile(r"'''.*?'''(?:'{0,2}(?!'))", re.DOTALL),
    re.compile(r'"(?:[^"\\]|\\.)*"'),
    re.compile(r"'[^']*'"),
)


class _Scanner:
    def __init__(self, text: str) -> None:
        self.text = text
        self.at = 0
        self.line = 1
        self.lines: dict[Path, int] = {}
        self.array_lengths: dict[Path, int] = {}  # of arrays of tables

    def advance(self, end: int) -> str:
        passed = self.text[self.at : end]
        self.line += passed.count("\n")
        self.at = end
        return passed

    def skip(self) -> None:
        match = _BLANK.match(self.text, self.at)
        assert match is not None
        self.advance(match.end())

    def peek(self, width: int = 1) -> str:
        return self.text[self.at : self.at + width]

    def string(self) -> str:
        """Pass over a quoted string; its content without escapes resolved."""
        for pattern in _STRINGS:
            if match := pattern.match(self.text, self.at):
                whole = self.advance(match.end())
                return whole[1:-1]
        raise ValueError(f"line {self.line}: no string")

    def key(self) -> Path:
        """Dotted key, ending in front of "=" or "]"."""
        parts: list[str] = []
        while True:
            self.skip()
            if self.peek() in "\"'":
                parts.append(self.string())
            else:
                match = _BARE.match(self.text, self.at)
                if match is None:
                    raise ValueError(f"line {self.line}: no key")
                parts.append(self.advance(match.end()))
            self.skip()
            if self.peek() != ".":
                return tuple(parts)
            self.advance(self.at + 1)

    def note(self, base: Path, key: Path, line: int) -> Path:
        for length in range(1, len(key) + 1):
            self.lines.setdefault(base + key[:length], line)
        return base + key

    def pair(self, base: Path) -> None:
        line = self.line
        path = self.note(base, self.key(), line)
        self.advance(self.at + 1)
        self.value(path)

    def value(self, path: Path) -> None:
        self.skip()
        first = self.peek()
        if first in "\"'":
            self.string()
        elif first == "[":
            self.array(path)
        elif first == "{":
            self.inline_table(path)
        else:
            match = _SCALAR.match(self.text, self.at)
            if match is None:
                raise ValueError(f"line {self.line}: no value")
            self.advance(match.end())

    def array(self, path: Path) -> None:
        self.advance(self.at + 1)
        index = 0
        while True:
            self.skip()
            if self.peek() == "]":
                self.advance(self.at + 1)
                return
            self.lines[(*path, index)] = self.line
            self.value((*path, index))
            index += 1
            self.skip()
            if self.peek() == ",":
                self.advance(self.at + 1)

    def inline_table(self, path: Path) -> None:
        self.advance(self.at + 1)
        while True:
            self.skip()
            if self.peek() == "}":
                self.advance(self.at + 1)
                return
            self.pair(path)
            self.skip()
            if self.peek() == ",":
                self.advance(self.at + 1)

    def header(self) -> Path:
        """Table header; the path of the keys below it."""
        many = self.peek(2) == "[["
        line = self.line
        self.advance(self.at + 1 + many)
        key = self.key()
        self.advance(self.at + 1 + many)
        path: Path = ()
        for position, name in enumerate(key):
            path = (*path, name)
            self.lines.setdefault(path, line)
            last = position == len(key) - 1
            if last and many:
                self.array_lengths[path] = self.array_lengths.get(path, 0) + 1
            if path in self.array_lengths:
                path = (*path, self.array_lengths[path] - 1)
                self.lines.setdefault(path, line)
        return path


def locate(text: str) -> dict[Path, int]:
    """Line, from 1, of each key path; entries of arrays have their index (from 0) in the path.

    `text` must be valid TOML.
    """
    scanner = _Scanner(text)
    base: Path = ()
    while True:
        scanner.skip()
        if scanner.at >= len(text):
            return scanner.lines
        if scanner.peek() == "[":
            base = scanner.header()
        else:
            scanner.pair(base)
