"""Which sets of a case file the body of a part needs, and which can't be found on it."""

from __future__ import annotations

from vkctl.prepare.case_file.entries import Cases


def leave_needed(cases: Cases, also: set[str]) -> None:
    """Take out what neither load cases nor `also` name: there may be no material any more."""
    supports = {name for case in cases.load_cases for name in case.supports}
    loads = {name for case in cases.load_cases for name in case.loads}
    cases.supports = {name: one for name, one in cases.supports.items() if name in supports}
    cases.loads = {name: one for name, one in cases.loads.items() if name in loads}
    used = [
        *(one.sets for one in cases.supports.values()),
        *(one.sets for one in cases.loads.values()),
        *(one.elements for one in cases.materials.values()),
        cases.marked_nodes,
    ]
    wanted = {name.lower() for names in (*used, also) for name in names}
    while more := _sources(cases, wanted) - wanted:
        wanted |= more
    cases.sets = [(name, one) for name, one in cases.sets if name.lower() in wanted]


def _sources(cases: Cases, wanted: set[str]) -> set[str]:
    """What the wanted sets are made of."""
    made = [one for name, one in cases.sets if name.lower() in wanted]
    return {name.lower() for one in made for name in (*(one.sources or ()), *one.minus)}


def labelled_entries(cases: Cases) -> list[str]:
    """What is given by labels of the part's file, for messages."""
    sets = [f"set {name!r}" for name, one in cases.sets if one.labels is not None]
    return sets + [f"load {name!r}" for name, one in cases.loads.items() if one.labels]
