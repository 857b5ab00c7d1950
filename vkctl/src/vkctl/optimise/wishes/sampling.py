"""Values of a field of design points anywhere in the mesh."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
import scipy

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.functions import shape_values
from vkctl.shapes.places import elements_at_points
from vkctl.shapes.topology import CORNERS_PER_TYPE, HEX8, TET4, TYPES

_SAME = 1e-2  # of an edge: closer to a design point, its value is taken
_NEAR = 0.5  # of an edge: further outside of the mesh there is no value


@dataclass(frozen=True)
class Field:
    """Where a field of design points has its values."""

    model: Model
    points: Array  # (p, 3) of the design points
    edge: float  # mean length


def sampling(field: Field, places: Array, nearby: bool = True) -> Any:
    """Sparse (k, p): weights of the design points at places, which add up to 1.

    A place on a design point has its value, one in an element is interpolated between the corners,
    one just outside has the nearest point's, if `nearby`; rows of others are empty, and so are
    those in elements without design points.
    """
    distance, nearest = scipy.spatial.cKDTree(field.points).query(places)
    row, column, weight = _interpolated(field, places, distance > _SAME * field.edge)
    inside = np.zeros(len(places), np.bool_)
    inside[row] = True
    reach = _NEAR if nearby else _SAME
    near = np.flatnonzero(~inside & (distance <= reach * field.edge))
    rows = np.concatenate((row, near))
    columns = np.concatenate((column, nearest[near]))
    weights = np.concatenate((weight, np.ones(len(near))))
    made = scipy.sparse.csr_matrix(
        (weights, (rows, columns)), shape=(len(places), len(field.points))
    )
    total = np.asarray(made.sum(axis=1)).ravel()
    return scipy.sparse.diags(1.0 / np.where(total > 0, total, 1.0)) @ made


def _interpolated(field: Field, places: Array, chosen: Array) -> tuple[Array, Array, Array]:
    """Places, design points and weights of the places inside of elements with design points."""
    model, some = field.model, np.flatnonzero(chosen)
    assert model.node_tp_index is not None and model.element_flags is not None
    designed = model.element_flags & np.int16(EXCLUDED | formats.ELEMENT_NO_LEVEL) == 0
    hits = elements_at_points(model.nodes, model.elements, designed, places[some])
    first = np.unique(hits.points, return_index=True)[1]
    at, numbers, parameters = hits.points[first], hits.elements[first], hits.parameters[first]
    point_of = model.node_tp_index.astype(np.int64) - 1
    found = [np.empty((3, 0))]
    for code in TYPES:
        own = model.elements.type_codes[numbers - 1] == code
        corners = CORNERS_PER_TYPE[code]
        table = model.elements.table(code)[model.elements.conn_index[numbers[own] - 1] - 1]
        columns = point_of[table[:, :corners] - 1]
        weights = shape_values(HEX8 if code == HEX8 else TET4, parameters[own])
        rows = np.broadcast_to(some[at[own]][:, None], columns.shape)
        used = (columns >= 0) & (weights > 0)
        found.append(np.array((rows[used], columns[used], weights[used])))
    row, column, weight = np.concatenate(found, axis=1)
    return row.astype(np.int64), column.astype(np.int64), weight


def mean_edge(model: Model) -> float:
    """Mean length of the first edge of each element."""
    lengths = []
    for code in TYPES:
        first, second = model.elements.of_type(code)[1][:, :2].T - 1
        lengths.append(np.linalg.norm(model.nodes[first] - model.nodes[second], axis=1))
    return float(np.concatenate(lengths).mean())
