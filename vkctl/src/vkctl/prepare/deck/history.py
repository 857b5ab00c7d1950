"""What acts on nodes, faces or elements, and how one step takes it over from the one before."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass, replace

import numpy as np

from vkctl.basics.types import Array


@dataclass(frozen=True)
class Entry:
    """One line of a deck, or several that belong together.

    `labels` (k,) are what it acts on, each once: the members of the set `title`, where there is
    one. `values` (k, width) count where `touched` is set, and are 0 elsewhere.
    """

    title: str
    labels: Array
    values: Array
    touched: Array
    name: str  # in the case file
    step: int
    place: str  # file and line, for messages
    less: tuple[str, ...] = ()  # titles of what took members, or something of them, away

    def same(self, other: Entry) -> bool:
        return (
            self.title == other.title
            and self.less == other.less
            and np.array_equal(self.labels, other.labels)
            and np.array_equal(self.touched, other.touched)
            and np.array_equal(self.values, other.values)
        )


def constant(
    title: str,
    labels: Array,
    values: Iterable[float | None],
    name: str,
    step: int,
    place: str,
) -> Entry:
    """The same for all members; None where nothing is said."""
    given = list(values)
    row = np.array([0.0 if v is None else v for v in given])
    said = np.array([v is not None for v in given])
    count = len(labels)
    return Entry(
        title, labels, np.tile(row, (count, 1)), np.tile(said, (count, 1)), name, step, place
    )


def put(entries: list[Entry], new: Entry, adds: bool) -> list[Entry]:
    """Entries with a new one, which replaces what earlier ones say of the same.

    With `adds` those of the same step stay beside it, as loads do. One that says what an earlier
    one said keeps that one's name.
    """
    kept: list[Entry] = []
    again = False
    for old in entries:
        if adds and old.step == new.step:
            kept.append(old)
        elif not again and old.same(new):
            kept.append(replace(old, step=new.step))
            again = True
        elif (rest := _without(old, new)) is not None:
            kept.append(rest)
    return kept if again else [*kept, new]


def _without(old: Entry, new: Entry) -> Entry | None:
    """What is left of an entry beside a newer one; None for nothing."""
    _, here, there = np.intersect1d(old.labels, new.labels, assume_unique=True, return_indices=True)
    if not np.any(old.touched[here] & new.touched[there]):
        return old
    touched = old.touched.copy()
    touched[here] &= ~new.touched[there]
    left = touched.any(axis=1)
    if not left.any():
        return None
    whole = bool(left.all())
    same = whole and bool(np.all(touched == touched[0]))
    return replace(
        old,
        labels=old.labels[left],
        values=np.where(touched, old.values, 0.0)[left],
        touched=touched[left],
        less=old.less if same else (*old.less, new.title),
    )


def groups(entry: Entry) -> list[tuple[Array, Array, Array]]:
    """(labels, values (width,), touched (width,)) of members that say the same."""
    rows = np.column_stack((entry.values, entry.touched))
    unique, place = np.unique(rows, axis=0, return_inverse=True)
    width = entry.values.shape[1]
    place = place.ravel()
    order = np.argsort(place, kind="stable")
    pieces = np.split(entry.labels[order], np.cumsum(np.bincount(place))[:-1])
    return [(p, r[:width], r[width:] > 0) for p, r in zip(pieces, unique, strict=True)]
