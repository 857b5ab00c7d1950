"""The tables of a case file as they come together, and parts of entries that they stand for."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, field, replace

import numpy as np

from vkctl.basics.types import Array

from .history import Entry
from .report import Report
from .story import Story, Turned
from .targets import Targets
from .toml_text import table


@dataclass
class CaseTables:
    """The tables of a case file, by the entries that they stand for."""

    story: Story
    targets: Targets
    report: Report
    sets: list[str] = field(default_factory=list)
    supports: list[str] = field(default_factory=list)
    loads: list[str] = field(default_factory=list)
    done: dict[str, list[tuple[Entry, list[str]]]] = field(default_factory=dict)
    names: set[str] = field(default_factory=set)

    def name(self, wanted: str) -> str:
        """A name that nothing has yet, in the part nor here."""
        part, title, count = self.targets.part, wanted, 1
        taken = (self.names, part.node_sets, part.element_sets, part.surfaces)
        while any(title in names for names in taken):
            count += 1
            title = f"{wanted}-{count}"
        self.names.add(title)
        return title


def leave(case: CaseTables, entry: Entry, text: str) -> None:
    case.report.untaken[f"{entry.place}: {text}"] = None


def node_set(case: CaseTables, wanted: str, labels: Iterable[int]) -> str:
    name = case.name(f"{wanted}-nodes")
    case.sets.append(table(["node_sets", name], {"labels": [int(n) for n in labels]}))
    return name


def whole_set(entry: Entry) -> str:
    """The set that an entry has all members of, "" for none."""
    return "" if entry.less else entry.title


def by_axes(case: CaseTables, entry: Entry) -> Iterable[tuple[Turned | None, Entry]]:
    """Parts of an entry in x, y, z and in the axes of each *TRANSFORM; of several the last."""
    owner = np.full(len(entry.labels), -1)
    for k, turned in enumerate(case.story.turned):
        owner[np.isin(entry.labels, turned.labels)] = k
    for k in np.unique(owner):
        mine = owner == k
        title = entry.title if mine.all() else ""
        part = replace(
            entry,
            title=title,
            labels=entry.labels[mine],
            values=entry.values[mine],
            touched=entry.touched[mine],
        )
        yield (None if k < 0 else case.story.turned[k]), part


def frames(case: CaseTables, entry: Entry, turned: Turned) -> Array | None:
    """Axes (k, 3, 3) at each node; None, and told, where they aren't defined."""
    if not turned.axes.round:
        frame = turned.axes.at(np.zeros(3))
        return None if frame is None else np.tile(frame, (len(entry.labels), 1, 1))
    frames = [turned.axes.at(place) for place in case.targets.places(entry.labels)]
    return None if any(f is None for f in frames) else np.array(frames)
