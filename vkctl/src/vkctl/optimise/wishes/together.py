"""Which wishes can't be together."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array
from vkctl.prepare.case_file.entries import Vector
from vkctl.prepare.case_file.toml_table import Table

from .entries import Wishes
from .images import images

_PARALLEL = 1e-3  # of cosines: directions that count as one, or as across each other


def refuse_together(table: Table, wishes: Wishes) -> None:
    """Note in the table's report what excludes each other."""
    try:
        isometries = images(wishes.symmetry, wishes.cyclic)
    except ValueError as error:
        where = table.where("symmetry" if wishes.symmetry else "cyclic")
        hint = "angles between planes, and to the axis, must divide a full turn"
        table.report.add(where, f"symmetry and cyclic don't go together: {error}", hint)
        return
    pattern = "symmetry or cyclic that turn its direction"
    if wishes.extruded is not None and not _keeps(isometries, _both_ways(wishes.extruded)):
        hint = "take a direction along or across each plane, and along the axis"
        _refuse(table, "extruded", pattern, hint)
    if wishes.draw is not None:
        directions = np.array(wishes.draw.directions)
        if wishes.draw.parting is not None:
            directions = _both_ways(wishes.draw.directions[0])
        whole = _keeps(isometries, directions)
        if not whole or not _keeps_parting(isometries, wishes):
            hint = "the pattern's images of the directions, and of the parting, must be among them"
            _refuse(table, "draw", pattern, hint)
        _refuse_slanted(table, "draw", directions, wishes.extruded)
        if wishes.void and len(wishes.draw.directions) > 1:
            hint = "give one direction, or one with a parting"
            _refuse(table, "draw", "void where it has several directions", hint)
    if wishes.overhang is not None:
        up = np.array([wishes.overhang.direction])
        if not _keeps(isometries, up):
            hint = "take planes and an axis along the direction of the build"
            _refuse(table, "overhang", pattern, hint)
        _refuse_slanted(table, "overhang", up, wishes.extruded)
        if wishes.draw is not None:
            hint = "a shape is either drawn or printed"
            _refuse(table, "overhang", "draw", hint)
    if wishes.sizes is not None:
        for key in ("draw", "overhang", "extruded"):
            if key in table.data:
                hint = "such shapes have members of any size; take a larger radius instead"
                _refuse(table, "sizes", key, hint)


def _refuse(table: Table, key: str, other: str, hint: str) -> None:
    table.report.add(table.where(key), f"{key} doesn't go together with {other}", hint)


def _both_ways(direction: Vector) -> Array:
    return np.array((direction, -np.array(direction)))


def _keeps(isometries: Array, directions: Array) -> bool:
    """Whether every image of the directions (d, 3) is one of them."""
    units = directions / np.linalg.norm(directions, axis=1, keepdims=True)
    turned = np.einsum("nij,dj->ndi", isometries[:, :3, :3], units)
    return bool(((turned @ units.T).max(axis=2) > 1.0 - _PARALLEL).all())


def _keeps_parting(isometries: Array, wishes: Wishes) -> bool:
    assert wishes.draw is not None
    if wishes.draw.parting is None:
        return True
    point, normal = np.array(wishes.draw.parting), np.array(wishes.draw.directions[0])
    moved = isometries[:, :3, :3] @ point + isometries[:, :3, 3] - point
    size = max(1.0, float(np.abs(point).max())) * float(np.linalg.norm(normal))
    return bool((np.abs(moved @ normal) <= _PARALLEL * size).all())


def _refuse_slanted(table: Table, key: str, directions: Array, extruded: Vector | None) -> None:
    if extruded is None:
        return
    units = directions / np.linalg.norm(directions, axis=1, keepdims=True)
    cosines = np.abs(units @ np.array(extruded)) / np.linalg.norm(extruded)
    if ((cosines > _PARALLEL) & (cosines < 1.0 - _PARALLEL)).any():
        hint = "take directions along or across it"
        _refuse(table, key, "extruded at a slant", hint)
