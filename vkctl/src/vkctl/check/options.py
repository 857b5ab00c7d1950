"""The options file: what the solver would refuse, clamp, pass over or read otherwise."""

from __future__ import annotations

import os
from collections.abc import Iterator

from vkctl.basics.words import closest
from vkctl.directory import formats
from vkctl.directory.formats import OPTIONS, OPTIONS_FILE, OptionLine

from .findings import Finding, error, note, warning
from .inputs import Inputs

_SHOWN = 60  # characters of a line


def check_options(inputs: Inputs) -> Iterator[Finding]:
    """Findings on `vk_rund_cmd.txt`, line by line, then on the values together."""
    seen: set[str] = set()
    for number, line in enumerate(inputs.options or [], 1):
        where = f"{OPTIONS_FILE}, line {number}"
        text = line.read
        if not text.strip("\t") or text.startswith("*"):
            continue
        if line.is_long:
            yield warning(
                "option-long-line", f"The line is cut at {formats.LONGEST_LINE} characters.", where
            )
        if line.key is None:
            yield _unknown(text, where)
            continue
        yield from _known(line, text, where)
        if line.key in seen:
            yield warning("option-twice", f"{line.key} is given again; this value holds.", where)
        seen.add(line.key)
    yield from _threads(inputs.option_values)


def _unknown(text: str, where: str) -> Finding:
    name = text.split("=")[0].strip()
    meant = closest(name, OPTIONS)
    hint = f"Did you mean {meant}?" if meant else "Known are: " + ", ".join(OPTIONS)
    return warning(
        "option-unknown", f"{_shown(text)} has no known key and is ignored.", where, hint
    )


def _shown(text: str) -> str:
    """The beginning of a line between quotes, without what would work on a terminal."""
    return '"' + "".join(c if c.isprintable() else "?" for c in text[:_SHOWN]) + '"'


def _known(line: OptionLine, text: str, where: str) -> Iterator[Finding]:
    key = line.key or ""
    option = OPTIONS[key]
    if not line.readable:
        kind = "a whole number" if option.type is int else "a number"
        problem = f"{_shown(text)} gives no value for {key}: the run would stop."
        hint = f"Write {key}= and {kind} that fits into 32 bits."
        yield error("option-unreadable", problem, where, hint)
        return
    written = text.split("=")[0].strip()
    if written != key:
        problem = f"{_shown(written)} begins with {key} and is taken for it."
        yield warning("option-prefix", problem, where)
    if line.value is None:
        yield note("option-empty", f"{key} is followed by a separator and keeps its value.", where)
        return
    taken = option.taken(line.value)
    if taken != option.rounded(line.value):
        problem = f"{key}={line.value:g} is outside its limits and becomes {taken:g}."
        yield warning("option-clamped", problem, where)


def _threads(values: dict[str, float]) -> Iterator[Finding]:
    wanted, there = int(values["Sys.MaxNumCompThreads"]), os.cpu_count() or 1
    most = min(formats.MOST_THREADS, there)
    if wanted > most:
        why = (
            f"never more than {most}"
            if most == formats.MOST_THREADS
            else "the processors of this machine"
        )
        text = f"Sys.MaxNumCompThreads={wanted} gives {most} threads ({why})."
        yield note("option-threads", text, formats.OPTIONS_FILE)
