"""Supports of a case file for what a deck's *BOUNDARY says."""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from vkctl.basics.types import Array

from .axes import along
from .case_tables import CaseTables, by_axes, frames, leave, node_set, whole_set
from .history import Entry, groups
from .story import Turned
from .toml_text import table

_MOST_ASKEW = 500  # supports off the axes, each of which is a table
# A support off the axes gives way like a layer of the material of this share of the diagonal.
_LAYER = 1e-5


def support_tables(case: CaseTables, entry: Entry) -> list[str]:
    names = []
    for turned, part in by_axes(case, entry):
        if turned is None:
            names += _straight_supports(case, part)
        else:
            names += _turned_supports(case, part, turned)
    return names


def _straight_supports(case: CaseTables, entry: Entry) -> list[str]:
    names = []
    for labels, values, touched in groups(entry):
        whole = len(labels) == len(entry.labels) and whole_set(entry)
        letters = "".join(letter for letter, held in zip("xyz", touched, strict=True) if held)
        name = case.name(entry.name)
        moved = bool(np.any(values))
        keys = {
            "type": "prescribed" if moved else None,
            "set": whole or node_set(case, entry.name, labels),
            "directions": None if letters == "xyz" else letters,
            "value": values.tolist() if moved else None,
        }
        case.supports.append(table(["supports", name], keys))
        names.append(name)
    return names


def _turned_supports(case: CaseTables, entry: Entry, turned: Turned) -> list[str]:
    """Exact where all directions are held or the axes are x, y, z; else springs along the axes."""
    at_nodes = frames(case, entry, turned)
    if at_nodes is None:
        leave(case, entry, "its *TRANSFORM has no axes there")
        return []
    values, touched = np.zeros_like(entry.values), np.zeros_like(entry.touched)
    askew: dict[bytes, list[int]] = {}
    for k, frame in enumerate(at_nodes):
        order = along(frame)
        if entry.touched[k].all():
            values[k], touched[k] = frame.T @ entry.values[k], True
        elif order is not None:
            values[k] = frame.T @ entry.values[k]
            touched[k, list(order[0])] = entry.touched[k]
        else:
            rows = np.round(np.concatenate((frame.ravel(), entry.values[k])), 12)
            askew.setdefault(rows.tobytes() + entry.touched[k].tobytes(), []).append(k)
    straight = touched.any(axis=1)
    names = []
    if straight.any():
        exact = replace(
            entry,
            title=entry.title if straight.all() else "",
            labels=entry.labels[straight],
            values=values[straight],
            touched=touched[straight],
        )
        names += _straight_supports(case, exact)
    if len(askew) > _MOST_ASKEW:
        text = f"supports along {len(askew)} directions off x, y, z aren't taken"
        leave(case, entry, f"{text}; type = 'frictionless' of the case file may serve")
        return names
    for held in askew.values():
        names.append(_askew_support(case, entry, at_nodes[held[0]], held))
    return names


def _askew_support(case: CaseTables, entry: Entry, frame: Array, rows: list[int]) -> str:
    name = case.name(entry.name)
    stiffness = _stiff(case)
    text = f"held along axes off x, y, z by springs of stiffness {stiffness:.3g}, not exactly"
    leave(case, entry, text)
    letters = "".join(x for x, held in zip("xyz", entry.touched[rows[0]], strict=True) if held)
    offset = entry.values[rows[0]]
    keys = {
        "type": "elastic",
        "set": node_set(case, entry.name, entry.labels[rows]),
        "directions": letters,
        "axes": frame.tolist(),
        "stiffness": stiffness,
        "offset": offset.tolist() if np.any(offset) else None,
    }
    case.supports.append(table(["supports", name], keys))
    return name


def _stiff(case: CaseTables) -> float:
    """Stiffness at a node of a thin layer of the stiffest material, by the mean mesh size."""
    places = case.targets.places(case.targets.used)
    box = np.ptp(places, axis=0)
    diagonal = float(np.linalg.norm(box))
    area = float((np.prod(box) / len(places)) ** (2 / 3))
    moduli = [max(a.material.moduli, default=1.0) for a in case.story.materials]
    return float(f"{max(moduli, default=1.0) * area / (_LAYER * diagonal):.3g}")
