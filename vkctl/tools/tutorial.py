"""What docs/tutorial.md has its reader type, so that a script and a test can do the same."""

from __future__ import annotations

import re
import shutil
from pathlib import Path

_BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.DOTALL | re.MULTILINE)
CASE_FILE = "bracket.toml"
PRINTED = "printed.toml"  # the same with another table [optimise], the page's second block
PART = "bracket.step"


def blocks(page: Path, language: str) -> list[str]:
    """Contents of the fenced blocks of a language."""
    return [text for kind, text in _BLOCK.findall(page.read_text()) if kind == language]


def commands(page: Path) -> list[str]:
    """Command lines of the page, in their order."""
    return [line for text in blocks(page, "sh") for line in text.splitlines() if line]


def set_up(page: Path, examples: Path, directory: Path) -> Path:
    """A folder with the page's part and case file, as its reader has it; the case file's path."""
    directory.mkdir(parents=True)
    shutil.copy(examples / PART, directory)
    cases = directory / CASE_FILE
    first, second = blocks(page, "toml")
    cases.write_text(first)
    head = first.partition("[optimise]")[0].replace("order = 1", "order = 2")
    (directory / PRINTED).write_text(head + second)
    return cases
