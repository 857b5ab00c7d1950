"""What a support or load acts on, and the values it has there."""

from __future__ import annotations

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import did_you_mean

from .case_file import locate
from .case_file.entries import Cases, Load, Names
from .case_file.expression import Expression, ExpressionError
from .case_file.toml_table import Field
from .face_sets import Faces
from .part import labelled
from .sets import UNUSED, Sets, numbers_of


def guarded(cases: Cases, where: locate.Path, value: Field, points: Array) -> Array:
    """Values of a number or formula; zeros where the formula has no finite value."""
    try:
        return evaluate(value, points)
    except ExpressionError as error:
        cases.report.add(where, str(error))
        return np.zeros(len(points))


def node_array(cases: Cases, sets: Sets, where: locate.Path, name: str) -> Array:
    data = sets.mesh.node_data
    if name not in data:
        hint = did_you_mean(name, data) if data else "the part holds no node data"
        cases.report.add((*where, "array"), f"no node data {name!r} in the part", hint)
        return np.zeros(len(sets.mesh.nodes))
    return data[name]


def united(sets: Sets, names: Names, where: locate.Path) -> Array:
    found = [sets.nodes(name, (*where, "set")) for name in names or ("all",)]
    return distinct(np.concatenate(found)).astype(np.int64)


def labelled_nodes(cases: Cases, sets: Sets, load: Load) -> Array:
    """Numbers of the nodes that a load names by label; empty where a mistake was told."""
    numbers = numbers_of(sets.mesh.node_labels, load.labels)
    missing = [n for n, k in zip(load.labels, numbers, strict=True) if not k]
    if missing:
        text = f"no nodes of the part have the labels {labelled(missing)}"
        cases.report.add((*load.where, "labels"), text, UNUSED)
        return np.empty(0, np.int64)
    return numbers


def has_faces(sets: Sets, names: Names) -> bool:
    own, nodes = sets.names("face"), sets.names("node")
    return all(name in own and name not in nodes for name in names)


def faces_of(cases: Cases, sets: Sets, names: Names, where: locate.Path) -> Faces:
    found = [sets.faces(name, (*where, "set")) for name in names]
    return Faces([t for f in found for t in f.tables], sum(f.interior for f in found))


def evaluate(value: Field, points: Array) -> Array:
    """Values (k,) of a number or formula at points (k, 3)."""
    if isinstance(value, Expression):
        return value(points)
    return np.full(len(points), float(value))
