"""Putting what units bring back in place: results, marks and the log of the whole run."""

from __future__ import annotations

import os
from collections.abc import Iterable
from contextlib import ExitStack
from pathlib import Path
from types import TracebackType
from typing import IO

from vkctl.directory import formats
from vkctl.directory.formats import LOG_FILE

from . import copies


class Log:
    """The log of a run that goes on in several places: a load case's lines come when it is solved.

    It is written as a run writes its own, in place, for those that read it as it grows.
    """

    def __init__(self, directory: Path) -> None:
        self._stack = ExitStack()
        stream: IO[bytes] = open(directory / LOG_FILE, "wb", buffering=0)
        self._stream = self._stack.enter_context(stream)
        self._headed = False

    def __enter__(self) -> Log:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._stack.close()

    def head(self, lines: Iterable[str]) -> None:
        """What stands above the load cases, taken from the first unit that has it."""
        if not self._headed:
            self._headed = True
            self.add(lines)

    def add(self, lines: Iterable[str]) -> None:
        text = "".join(line + "\n" for line in lines)
        self._stream.write(text.encode("latin-1", "replace"))

    def end(self, seconds: float) -> None:
        """The lines at the end of a run that has done all it was to do."""
        minutes, rest = divmod(seconds, 60)
        hours, minutes = divmod(int(minutes), 60)
        clock = f"{hours:02d}:{minutes:02d}:{int(rest * 1000) / 1000:06.3f}"
        self.add([f"Info<Msg:Total time: {clock} >", "Info<Msg:Tool.vk_rund.End >"])

    def error(self, text: str) -> None:
        self.add([f"Error<Msg:{text}>"])


def move_results(folder: Path, directory: Path, load_cases: Iterable[int]) -> None:
    """Results from a folder on the same disk, where the solver has brought them to the disk."""
    for number in load_cases:
        for name in copies.results_of(folder, number):
            os.replace(folder / name, directory / name)
    formats.sync_folder(directory)


def write_results(contents: dict[str, bytes], directory: Path) -> None:
    """Results that came by the network."""
    for name, content in contents.items():
        formats.write_parts(directory / name, [content])


def mark_done(directory: Path, load_cases: Iterable[int]) -> None:
    """The mark comes when all of a load case is in place. The caller holds the lock."""
    words, values = formats.read_loadcase_flags(directory)
    for number in load_cases:
        words[number - 1] |= formats.LOADCASE_DONE
    formats.write_loadcase_flags(directory, words, values)
