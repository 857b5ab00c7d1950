"""What nodes and elements were called before they were numbered. The solver has no use for it."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike

from . import file_names
from .streams import FormatError, Reader, int32_bytes, write_parts


@dataclass(frozen=True)
class Labels:
    """`vkctl.labels`: the label of each node and of each element, in the order of their numbers."""

    nodes: Array = field(default_factory=lambda: np.empty(0, np.int64))  # (n,)
    elements: Array = field(default_factory=lambda: np.empty(0, np.int64))  # (m,)


def read_labels(directory: PathLike) -> Labels | None:
    """`vkctl.labels`; None where it isn't there, as in directories that others prepared."""
    try:
        reader = Reader(Path(directory, file_names.LABELS))
    except FileNotFoundError:
        return None
    with reader as r:
        nodes = r.array("<i8", r.int32("NumNodes"), "node labels")
        return Labels(nodes, r.array("<i8", r.int32("NumElements"), "element labels"))


def known_labels(directory: PathLike, nodes: int) -> Labels:
    """What messages may tell; empty without labels, readable, of a mesh with so many nodes."""
    try:
        labels = read_labels(directory)
    except (OSError, FormatError):
        labels = None
    return labels if labels is not None and len(labels.nodes) == nodes else Labels()


def write_labels(directory: PathLike, labels: Labels | None) -> None:
    """`vkctl.labels`; None removes it, so that no other model's stays behind."""
    path = Path(directory, file_names.LABELS)
    if labels is None:
        path.unlink(missing_ok=True)
        return
    parts: list[bytes | Array] = []
    for values in (labels.nodes, labels.elements):
        parts += [int32_bytes(len(values)), np.asarray(values, "<i8")]
    write_parts(path, parts)
