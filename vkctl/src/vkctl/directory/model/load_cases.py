"""Load cases in memory, and the records of constraints, forces and temperatures."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .. import formats


def dof_mask(directions: str | int) -> int:
    """Bit mask of directions given as letters: "xz" is 5."""
    if isinstance(directions, int):
        return directions
    if set(directions) - set("xyz"):
        raise ValueError(f"directions are letters of 'xyz', not {directions!r}")
    return sum(1 << "xyz".index(letter) for letter in set(directions))


def _records(dtype: np.dtype, nodes: npt.ArrayLike) -> Array:
    numbers = np.atleast_1d(np.asarray(nodes, np.int32))
    records = np.zeros(len(numbers), dtype)
    records["Node"] = numbers
    return records


def prescribed(
    nodes: npt.ArrayLike, directions: str | int = "xyz", values: npt.ArrayLike = 0.0
) -> Array:
    """CONSTRAINT records that prescribe displacements: `values` broadcasts to (nodes, 3)."""
    records = _records(formats.CONSTRAINT, nodes)
    records["DofMask"] = dof_mask(directions)
    records["Value"] = np.broadcast_to(values, records["Value"].shape)
    records["Axis"] = np.eye(3)
    return records


def elastic(
    nodes: npt.ArrayLike,
    axes: npt.ArrayLike | None = None,
    offsets: npt.ArrayLike = 0.0,
    directions: str | int = "xyz",
) -> Array:
    """CONSTRAINT records of elastic supports with the stiffness "Sta.SupportStiffness".

    Row k of `axes`, (3, 3) or (nodes, 3, 3), is the direction vector of direction k (x, y, z if
    not given); its squared length multiplies the stiffness. `offsets`, broadcast to (nodes, 3),
    is where the spring along each axis is at rest. `directions` tells which axes act.
    """
    records = _records(formats.CONSTRAINT, nodes)
    records["Kind"] = formats.CONSTRAINT_PENALTY
    records["DofMask"] = dof_mask(directions)
    records["Value"] = np.broadcast_to(offsets, records["Value"].shape)
    records["Axis"] = np.eye(3) if axes is None else axes
    return records


def forces(nodes: npt.ArrayLike, vectors: npt.ArrayLike) -> Array:
    """FORCE records, a node named more than once merged into one record with the sum.

    `vectors` broadcasts to (nodes, 3). The solver pushes a force list in parallel without
    protection, so a list must not name a node twice.
    """
    given = np.atleast_1d(np.asarray(nodes, np.int64))
    values = np.broadcast_to(np.asarray(vectors, np.float64), (len(given), 3))
    numbers, place = np.unique(given, return_inverse=True)
    records = _records(formats.FORCE, numbers)
    for k in range(3):
        records["Force"][:, k] = np.bincount(place, values[:, k], len(numbers))
    return records


def scalars(nodes: npt.ArrayLike, values: npt.ArrayLike) -> Array:
    """SCALAR records: nodal temperatures, `values` broadcast to the nodes."""
    records = _records(formats.SCALAR, nodes)
    records["Value"] = values
    return records


def _empty(dtype: np.dtype) -> Array:
    return np.empty(0, dtype)


@dataclass
class LoadCase:
    """One static analysis. Its number is its place in the model's list, counted from 1.

    Load cases of one `pattern` share numbering, matrix and factor: they must have the same
    supports. Pattern numbers start at 1; a first load case of pattern 0 can't run. Where two
    prescribing records meet in one direction of a node the later one wins.
    """

    pattern: int = 1
    kind: int = formats.LOADCASE_STATIC
    flags: int = formats.LOADCASE_REQUESTED
    value: float = 0.0  # kept in mxs.lcflags, unused by the solver
    constraints: Array = field(default_factory=lambda: _empty(formats.CONSTRAINT))
    forces2: Array = field(default_factory=lambda: _empty(formats.FORCE))
    forces3: Array = field(default_factory=lambda: _empty(formats.FORCE))
    scalars: Array = field(default_factory=lambda: _empty(formats.SCALAR))
    reserved: bytes = b""  # other programs' part of the record, 1028 bytes at most

    @property
    def requested(self) -> bool:
        return bool(self.flags & formats.LOADCASE_REQUESTED)

    @property
    def done(self) -> bool:
        return bool(self.flags & formats.LOADCASE_DONE)

    @property
    def excluded(self) -> bool:
        return bool(self.flags & formats.LOADCASE_EXCLUDED)

    @property
    def will_run(self) -> bool:
        """Whether the next run of the solver works on this load case."""
        return formats.is_to_run(self.kind, self.flags)

    def prescribe(
        self, nodes: npt.ArrayLike, directions: str | int = "xyz", values: npt.ArrayLike = 0.0
    ) -> LoadCase:
        """Append `prescribed` records; returns the load case, so that calls can be chained."""
        self.constraints = np.concatenate((self.constraints, prescribed(nodes, directions, values)))
        return self

    def support(
        self,
        nodes: npt.ArrayLike,
        axes: npt.ArrayLike | None = None,
        offsets: npt.ArrayLike = 0.0,
        directions: str | int = "xyz",
    ) -> LoadCase:
        """Append `elastic` records."""
        self.constraints = np.concatenate(
            (self.constraints, elastic(nodes, axes, offsets, directions))
        )
        return self

    def load(self, nodes: npt.ArrayLike, vectors: npt.ArrayLike, section: int = 2) -> LoadCase:
        """Add nodal forces to the list of `section`, 2 or 3, keeping one record per node."""
        name = {2: "forces2", 3: "forces3"}[section]
        old = getattr(self, name)
        new = forces(nodes, vectors)
        both = forces(
            np.concatenate((old["Node"], new["Node"])),
            np.concatenate((old["Force"], new["Force"])),
        )
        setattr(self, name, both)
        return self

    def heat(self, nodes: npt.ArrayLike, values: npt.ArrayLike) -> LoadCase:
        """Append nodal temperatures; of a node named twice the later value counts."""
        self.scalars = np.concatenate((self.scalars, scalars(nodes, values)))
        return self
