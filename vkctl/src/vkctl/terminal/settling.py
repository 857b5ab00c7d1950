"""What `vkctl run --settle` shows: a line for each load case of a round, and how it ended."""

from __future__ import annotations

import math
from collections.abc import Sequence

from vkctl.basics.words import counted
from vkctl.directory.case_names import name_of, read_case_names, titled
from vkctl.running.changes import Change
from vkctl.running.settle import RoundShown, Settled, Standing


def round_lines(shown: RoundShown, names: Sequence[str]) -> list[str]:
    """What a round changed, a line for each load case that took part."""
    return [
        f"round {shown.number}, {titled(standing.load_case, names)}: {_change_words(standing)}"
        for standing in shown.standings
    ]


def _change_words(standing: Standing) -> str:
    change = standing.changes[-1]
    if math.isinf(change.displacements) and math.isinf(change.energy):
        return "nothing to compare with yet"
    words = [f"displacements {_part(change.displacements)}"]
    if any(0 < entry.state < math.inf for entry in standing.changes):
        words.append(f"state {_part(change.state)} ({counted(change.elements, 'element')})")
    words.append(f"energy {_part(change.energy)}")
    text = "changes of " + ", ".join(words)
    return text if standing.ratio is None else f"{text}; {_share(standing.ratio)} of those before"


def _part(value: float) -> str:
    return "unknown" if math.isinf(value) else f"{value:.2g}"


def _share(ratio: float) -> str:
    return f"{ratio:.3f}" if ratio >= 0.01 else f"{ratio:.1g}"


def settled_lines(settled: Settled) -> list[str]:
    """How each load case stands at the end."""
    names = read_case_names(settled.directory)
    return [_standing_line(standing, names) for standing in settled.standings]


def _standing_line(standing: Standing, names: Sequence[str]) -> str:
    head = _head(standing.load_case, names)
    count = counted(len(standing.changes), "round")
    if standing.verdict == "settled":
        return f"{head} has settled after {count}: {_last(standing)}."
    if standing.verdict == "collapsed":
        elements = counted(standing.spent, "element")
        return (
            f"{head} can't carry its loads: after {count} {elements} of a yielding "
            "material have no stiffness left but the thousandth that the solver keeps. "
            "Displacements tell nothing."
        )
    if standing.verdict == "poor":
        return (
            f"{head} doesn't settle: its solution is too poor to leave a start vector, and another "
            "round would begin where this one did. `--mode direct` is stronger if memory allows."
        )
    if standing.verdict == "stalled":
        return f"{head} doesn't settle: after {count} {_still(standing)}. {_why(standing)}"
    if not standing.changes:
        return f"{head} hasn't been repeated yet. Start it again to go on."
    last = _part(standing.changes[-1].largest)
    return f"{head} hasn't settled after {count}: the last changed {last}. Start it again to go on."


def _head(number: int, names: Sequence[str]) -> str:
    name = name_of(number, names)
    return f"Load case {number} ({name})" if name else f"Load case {number}"


def _last(standing: Standing) -> str:
    change = standing.changes[-1].largest
    text = f"the last changed {change:.2g}"
    return f"{text}, and about {standing.left:.2g} is left" if standing.left > change else text


def _still(standing: Standing) -> str:
    text = f"the changes don't shrink any more, the last are {_part(standing.changes[-1].largest)}"
    return text if standing.ratio is None else f"{text}, {standing.ratio:.3f} of those before"


def _why(standing: Standing) -> str:
    if standing.changes[-1].elements:
        return (
            "The element state goes to and fro: elements that take compression only may take turns "
            "for ever."
        )
    return "`--mode direct` or better supports may help: see `vkctl check`."


def settled_as_dict(settled: Settled) -> dict[str, object]:
    """The end of the rounds for programs; unknown changes are infinite."""
    names = read_case_names(settled.directory)
    return {
        "settled": settled.ok,
        "tolerance": settled.tolerance,
        "rounds": settled.rounds,
        "load_cases": [
            {
                "load_case": standing.load_case,
                "name": name_of(standing.load_case, names),
                "verdict": standing.verdict,
                "left": standing.left,
                "changes": [_change_dict(change) for change in standing.changes],
            }
            for standing in settled.standings
        ],
    }


def _change_dict(change: Change) -> dict[str, float | int]:
    return {
        "displacements": change.displacements,
        "state": change.state,
        "energy": change.energy,
        "elements": change.elements,
    }
