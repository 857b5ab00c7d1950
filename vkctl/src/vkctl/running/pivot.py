"""From an equation number that vk_rund names to the node and direction it belongs to."""

from __future__ import annotations

import re
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import called
from vkctl.directory import formats
from vkctl.directory.log import RunLog
from vkctl.directory.numbering import active_nodes, prescribed_components

_PIVOT = re.compile(r"pivot of equation (\d{1,10})\b")


def explain_pivot(directory: PathLike, log: RunLog, printed: str) -> str:
    """A sentence on the node of a pivot that `printed` names; empty where it names none."""
    match = _PIVOT.search(printed)
    if match is None or not log.load_cases:
        return ""
    try:
        found = component_of_equation(directory, log.load_cases[-1].number, int(match[1]))
        nodes = formats.read_nodes(directory)
    except (OSError, ValueError, IndexError, formats.FormatError):
        return ""
    if found is None:
        return ""
    node, direction = found
    x, y, z = nodes[node - 1]
    name = called(node, formats.known_labels(directory, len(nodes)).nodes)
    return f"The trouble shows at node {name} in {direction}, at ({x:.6g}, {y:.6g}, {z:.6g})."


def component_of_equation(
    directory: PathLike, load_case: int, equation: int
) -> tuple[int, str] | None:
    """(node number, "x", "y" or "z") of an equation of a load case; None if it has no such."""
    free = free_components(directory, load_case)
    numbers = np.flatnonzero(free.ravel())
    if not 1 <= equation <= len(numbers):
        return None
    node, direction = divmod(int(numbers[equation - 1]), 3)
    return node + 1, "xyz"[direction]


def free_components(directory: PathLike, load_case: int) -> Array:
    """Components that have an equation in a numbering built from this case, bool (nodes, 3)."""
    tables = formats.read_elements(directory)
    flags = formats.read_element_flags(directory)
    count = len(formats.read_nodes(Path(directory)))
    free = np.repeat(active_nodes(tables, flags, count)[:, None], 3, axis=1)
    constraints = formats.read_loadcase_map(directory, load_case).constraints
    fixed = prescribed_components(constraints, count)
    return free & ~fixed
