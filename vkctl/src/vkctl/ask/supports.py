"""Which support holds which component: by the case file's names, or by what touches what."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.shapes.elements import Elements
from vkctl.shapes.groups import groups_of_links
from vkctl.shapes.topology import NODES_PER_TYPE

from .study import AskError, active_nodes, find_set, set_nodes

_SLIDING = ("symmetry", "frictionless")
_MOST_RUNS = 64


@dataclass(frozen=True)
class Holder:
    """A support, or the part of one that belongs to one of its sets."""

    name: str
    kind: str  # of the case file, or "fixed", "prescribed", "elastic"
    set: str  # empty where the support has one set or none
    rows: Array  # positions of its records among the load case's constraints


def holders(model: Model, number: int) -> list[Holder]:
    """The supports of a load case, each record in one of them.

    By the case file's names where the directory remembers them and its records are still those;
    else the records are put together by their kind and by whether their nodes share elements.
    """
    return _named(model, number) or _grouped(model, number)


def _named(model: Model, number: int) -> list[Holder] | None:
    notes = model.notes
    if notes is None or number > len(notes.load_cases):
        return None
    names = [n for n in notes.load_cases[number - 1].supports if n in notes.supports]
    try:
        members = [_members(model, notes.supports[name].sets) for name in names]
    except AskError:
        return None
    records = model.load_cases[number - 1].constraints
    numbers = records["Node"].astype(np.int64)
    kinds = [notes.supports[name].kind for name in names]
    masks = [np.asarray(of_sets.any(axis=0)) for of_sets in members]
    ends = _ends(records, list(zip(kinds, masks, strict=True)))
    if ends is None:
        return None
    found, start = [], 0
    for name, of_sets, end in zip(names, members, ends, strict=True):
        condition = notes.supports[name]
        rows = np.arange(start, end)
        start = end
        if len(condition.sets) < 2:
            found.append(Holder(name, condition.kind, "", rows))
            continue
        first = np.argmax(of_sets[:, numbers[rows] - 1], axis=0)
        for place, title in enumerate(condition.sets):
            found.append(Holder(name, condition.kind, title, rows[first == place]))
    return found


def _ends(records: Array, supports: list[tuple[str, Array]], start: int = 0) -> list[int] | None:
    """Where the records of each support end, which is (kind, mask of its nodes).

    They stand support by support. Most have one record a node, nodes ascending; those that let
    faces slide have runs of them, by plane and direction, each node in one or more. None where the
    records aren't those of the supports.
    """
    if not supports:
        return [] if start == len(records) else None
    (kind, mask), following = supports[0], supports[1:]
    numbers = records["Node"].astype(np.int64)
    held = np.flatnonzero(mask) + 1
    if kind not in _SLIDING:
        end = start + len(held)
        rest = _ends(records, following, end) if np.array_equal(numbers[start:end], held) else None
        return None if rest is None else [end, *rest]
    others = np.flatnonzero(~mask[numbers[start:] - 1])
    stop = start + int(others[0]) if len(others) else len(numbers)
    seen, places = np.unique(numbers[start:stop], return_index=True)
    if len(seen) < len(held):
        return None
    covered = start + int(places.max(initial=-1)) + 1
    for end in [covered, *(e for e in _run_ends(records, start, stop) if e > covered)]:
        if (rest := _ends(records, following, end)) is not None:
            return [end, *rest]
    return None


def _run_ends(records: Array, start: int, stop: int) -> list[int]:
    """Where runs of ascending nodes end whose records are alike, none but the first few."""
    some = records[start:stop]
    same = np.diff(some["Node"].astype(np.int64)) > 0
    for name in ("Kind", "DofMask"):
        same &= some[name][1:] == some[name][:-1]
    ends = start + np.append(np.flatnonzero(~same) + 1, len(some))
    few: list[int] = ends[:_MOST_RUNS].tolist()
    return few


def _members(model: Model, names: tuple[str, ...]) -> Array:
    """Which nodes belong to each of the sets, bool (sets, n)."""
    member = np.zeros((max(len(names), 1), len(model.nodes)), np.bool_)
    if not names:
        member[0] = active_nodes(model)
    for place, name in enumerate(names):
        if name == "all":
            member[place] = active_nodes(model)
        else:
            member[place, set_nodes(model, find_set(model, name)) - 1] = True
    return member


def _grouped(model: Model, number: int) -> list[Holder]:
    records = model.load_cases[number - 1].constraints
    springs = records["Kind"] & formats.CONSTRAINT_PENALTY != 0
    acting = records["DofMask"][:, None] >> np.arange(3) & 1 == 1
    moved = (acting & (records["Value"] != 0)).any(axis=1) & ~springs
    found = []
    for kind, mask in (
        ("fixed", ~springs & ~moved),
        ("prescribed", moved),
        ("elastic", springs),
    ):
        rows = np.flatnonzero(mask)
        if not len(rows):
            continue
        chosen = np.zeros(len(model.nodes), np.bool_)
        chosen[records["Node"][rows] - 1] = True
        groups = touching_groups(model.elements, chosen)[records["Node"][rows] - 1]
        count = int(groups.max()) + 1
        for group in range(count):
            name = f"{kind} {group + 1}" if count > 1 else kind
            found.append(Holder(name, kind, "", rows[groups == group]))
    return found


def touching_groups(elements: Elements, chosen: Array) -> Array:
    """Groups (n,) of the chosen nodes (bool (n,)), from 0 by their lowest node; others have -1.

    Two nodes are in one group if they share an element, or each with a third.
    """
    local = np.cumsum(chosen) - 1
    count = int(chosen.sum())
    pairs = [np.empty((2, 0), np.int64)]
    for code, width in NODES_PER_TYPE.items():
        rows = elements.of_type(code)[1] - 1
        inside = chosen[rows]
        rows, inside = rows[inside.sum(axis=1) > 1], inside[inside.sum(axis=1) > 1]
        first = rows[np.arange(len(rows)), inside.argmax(axis=1)]
        for column in range(width):
            mask = inside[:, column]
            pairs.append(np.array((local[first[mask]], local[rows[mask, column]])))
    a, b = np.concatenate(pairs, axis=1)
    groups = np.full(len(chosen), -1)
    groups[chosen] = groups_of_links(count, a, b)
    return groups
