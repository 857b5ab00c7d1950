"""The report in a few lines: what somebody looks for first."""

from __future__ import annotations

from collections.abc import Sequence

from vkctl.ask.told import field_unit
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import counted, place_words
from vkctl.check import Report
from vkctl.directory.model import Model
from vkctl.view.fields import TITLES

from .facts import CaseFacts
from .markup import paragraph, section, text, told

Line = tuple[str, str, str]  # what, its value, where


def shortly(
    model: Model, cases: Sequence[CaseFacts], units: UnitSystem | None, found: Report
) -> str:
    """The section with the largest stress, the least safety and what needs a look."""
    lines = [_solved(model, cases), *_largest(cases, units), *_safety(cases), *_balance(cases)]
    warned = [
        paragraph(words, "error" if found.of("error") else "warning")
        for words in _warnings(found, cases)
    ]
    return section("short", "In short", _lines(lines), *warned)


def _lines(lines: Sequence[Line]) -> str:
    rows = "".join(
        f"<div><dt>{text(what)}</dt><dd><strong>{text(value)}</strong> {text(where)}</dd></div>"
        for what, value, where in lines
    )
    return f'<dl class="short">{rows}</dl>'


def _solved(model: Model, cases: Sequence[CaseFacts]) -> Line:
    of = counted(len(model.load_cases), "load case")
    poor = sum(bool(case.poor) for case in cases)
    return "shown", f"{len(cases)} of {of}", f"{poor} of them solved poorly" if poor else ""


def _largest(cases: Sequence[CaseFacts], units: UnitSystem | None) -> list[Line]:
    """The largest von Mises stress and displacement of all load cases."""
    lines = []
    for field in ("von_mises", "magnitude"):
        ends = [(one, case.title) for case in cases if (one := case.extreme(field))]
        if ends:
            end, title = max(ends, key=lambda entry: entry[0].value)
            value = f"{told(end.value)} {field_unit(units, field)}".strip()
            lines.append(
                (f"largest {TITLES[field]}", value, f"at {place_words(end.place)}, {title}")
            )
    return lines


def _safety(cases: Sequence[CaseFacts]) -> list[Line]:
    every = [(least, case.title) for case in cases for least in case.safety]
    if not every:
        return []
    least, title = min(every, key=lambda entry: entry[0].factor)
    where = f"{least.name or f'material {least.material}'} at {place_words(least.place)}, {title}"
    return [("least safety factor", told(least.factor), where)]


def _balance(cases: Sequence[CaseFacts]) -> list[Line]:
    """How much of all forces the reactions leave over where they leave most."""
    found = [case.reactions for case in cases if case.reactions is not None]
    if not found:
        return []
    worst = max(found, key=lambda one: max(one.relative_force, one.relative_moment))
    forces, moments = (f"{share:.1g}" for share in (worst.relative_force, worst.relative_moment))
    return [
        (
            "reactions balance loads",
            f"but for {forces} of the forces",
            f"and {moments} of the moments",
        )
    ]


def _warnings(found: Report, cases: Sequence[CaseFacts]) -> list[str]:
    counts = [
        counted(len(found.of(severity)), severity)
        for severity in ("error", "warning")
        if found.of(severity)
    ]
    yielding = any(least.factor < 1 for case in cases for least in case.safety)
    words = [f"Checks found {' and '.join(counts)}, told below."] if counts else []
    if yielding:
        words.append("The part yields: a safety factor is below 1.")
    return words
