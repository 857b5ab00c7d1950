"""Sums of a load case's forces as people are told them: nothing where its forces cancel each other.

Programs are told them as they are: what is noise beside the rest is for them to say.
"""

from __future__ import annotations

from typing import Protocol

import numpy as np

from vkctl.basics.types import Array

_NOISE = 1e-6  # of the forces' sizes: what rounding to single precision leaves of a sum


class _Forces(Protocol):
    @property
    def forces2(self) -> Array: ...
    @property
    def forces3(self) -> Array: ...


def size_of_forces(case: _Forces) -> float:
    """The sum of the nodal forces' sizes, which the sum of the forces is to be compared with."""
    forces = np.concatenate((case.forces2["Force"], case.forces3["Force"])).astype(np.float64)
    return float(np.linalg.norm(forces, axis=1).sum())


def without_noise(sums: Array, sizes: Array | float) -> Array:
    """Zero for sums that are nothing beside the sizes of what was added up."""
    return np.where(np.abs(sums) < _NOISE * np.asarray(sizes), 0.0, sums)
