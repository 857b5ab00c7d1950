"""Loads of a case file for what a deck's forces, pressures, weights and temperatures say."""

from __future__ import annotations

from dataclasses import replace
from typing import Any

import numpy as np

from .case_tables import CaseTables, by_axes, frames, leave, node_set, whole_set
from .history import Entry, groups
from .toml_text import table

_MOST_GROUPS = 20  # of nodes with the same values that are written as sets


def force_tables(case: CaseTables, entry: Entry) -> list[str]:
    whole = entry
    for turned, part in list(by_axes(case, entry)):
        if turned is None:
            continue
        at_nodes = frames(case, part, turned)
        if at_nodes is None:
            leave(case, entry, "its *TRANSFORM has no axes there")
            return []
        values = whole.values.copy()
        place = np.isin(whole.labels, part.labels)
        values[place] = np.einsum("kij,ki->kj", at_nodes, part.values)
        whole = replace(whole, values=values)
    return _valued(case, whole, "force", {"spread": "each"})


def _valued(case: CaseTables, entry: Entry, kind: str, more: dict[str, Any]) -> list[str]:
    """Loads of nodes: by sets where few values occur, node by node otherwise."""
    every = replace(entry, touched=np.ones_like(entry.touched))
    found = [(p, v) for p, v, _ in groups(every) if kind == "temperature" or np.any(v)]
    if len(found) > _MOST_GROUPS:
        labels = np.concatenate([p for p, _ in found])
        values = np.concatenate([np.tile(v, (len(p), 1)) for p, v in found])
        order = np.argsort(labels)
        keys = {
            "type": kind,
            "labels": [int(n) for n in labels[order]],
            "values": (values if kind == "force" else values[:, 0])[order].tolist(),
            "reference": more.get("reference"),
        }
        name = case.name(entry.name)
        case.loads.append(table(["loads", name], keys))
        return [name]
    names = []
    for labels, value in found:
        whole = len(labels) == len(entry.labels) and whole_set(entry)
        keys = {
            "type": kind,
            "set": whole or node_set(case, entry.name, labels),
            "value": value.tolist() if kind == "force" else float(value[0]),
            **more,
        }
        name = case.name(entry.name)
        case.loads.append(table(["loads", name], keys))
        names.append(name)
    return names


def pressure_tables(case: CaseTables, entry: Entry) -> list[str]:
    value = float(entry.values.max() if entry.values.max() else entry.values.min())
    if not value:
        return []
    faces = entry.title
    if entry.less:
        faces = case.name(f"{entry.name}-faces")
        less = {"from": entry.title, "minus": list(dict.fromkeys(entry.less))}
        case.sets.append(table(["face_sets", faces], less))
    name = case.name(entry.name)
    keys = {"type": "pressure", "set": faces, "value": value}
    case.loads.append(table(["loads", name], keys))
    return [name]


def gravity_tables(case: CaseTables, entry: Entry, direction: tuple[float, ...]) -> list[str]:
    size = float(entry.values[0, 0])
    if not size:
        return []
    where: str | None = whole_set(entry)
    if len(entry.labels) == len(case.targets.elements):
        where = None
    elif not where:
        where = case.name(f"{entry.name}-elements")
        case.sets.append(table(["element_sets", where], {"labels": [int(n) for n in entry.labels]}))
    name = case.name(entry.name)
    keys = {"type": "gravity", "set": where, "value": [size * d for d in direction]}
    case.loads.append(table(["loads", name], keys))
    return [name]


def temperature_tables(case: CaseTables, entry: Entry) -> list[str]:
    """Temperatures over those at the start, as one reference where all nodes share it."""
    used = case.targets.used
    start = np.zeros(len(used))
    for first in case.story.initial:
        start[np.searchsorted(used, first.labels)] = first.values[:, 0]
    values = entry.values[:, 0]
    if len(start) and np.all(start == start[0]):
        if np.all(values == start[0]):
            return []
        return _valued(case, entry, "temperature", {"reference": float(start[0]) or None})
    over = values - start[np.searchsorted(used, entry.labels)]
    if not np.any(over):
        return []
    return _valued(case, replace(entry, values=over[:, None]), "temperature", {})
