"""Records of the files, the bits of their flags, and their names."""

from __future__ import annotations

from typing import Any

import numpy as np

from vkctl.basics.types import Array

# MaterialFlags.
MATERIAL_ISOTROPIC = 1 << 8
MATERIAL_YIELDING = 1 << 9
MATERIAL_COMPRESSION_ONLY = 1 << 10
MATERIAL_ORTHOTROPIC = 1 << 11

# Of either kind the element states change from run to run.
MATERIAL_WITH_STATE = MATERIAL_YIELDING | MATERIAL_COMPRESSION_ONLY

# NodeFlags: nodal loads skipped, diagonal entries perturbed.
NODE_NO_LOADS = 1 << 11

# ElementFlags: the level field is ignored; the element is left out (two bits, same effect).
ELEMENT_NO_LEVEL = 1 << 1
ELEMENT_EXCLUDED = 1 << 2
ELEMENT_EXCLUDED_ALSO = 1 << 8

# LoadCaseFlags.
LOADCASE_REQUESTED = 1 << 0
LOADCASE_DONE = 1 << 1
LOADCASE_EXCLUDED = 1 << 2
LOADCASE_STATIC = 1  # the one LoadCaseRecord Kind that runs
LOADCASE_FORMAT = 128  # format number of mxs.lcdata
CONSTRAINT_PENALTY = 1 << 0  # NodalConstraintRecord Kind: elastic support


def _record(size: int, *fields: tuple[str, Any, int]) -> np.dtype[Any]:
    """Dtype of `size` bytes from (name, format, offset) triples."""
    return np.dtype(
        {
            "names": [f[0] for f in fields],
            "formats": [f[1] for f in fields],
            "offsets": [f[2] for f in fields],
            "itemsize": size,
        }
    )


MATERIAL = _record(
    192,
    ("Name", "S32", 0),
    ("MaterialFlags", "<u4", 32),
    ("E", "<f4", 36),
    ("Nu", "<f4", 40),
    ("RefValue", "<f4", 44),
    ("YieldStress", "<f4", 48),
    ("HardeningRatio", "<f4", 52),
    ("Expansion", "<f4", 56),
    ("InitialStrain", "<f4", 60),
    ("LimitStress", "<f4", 64),
    ("Reserved1", "V4", 68),
    ("Moduli", ("<f4", 3), 72),  # E1, E2, E3
    ("Poisson", ("<f4", 3), 84),  # Nu12, Nu13, Nu23
    ("Shear", ("<f4", 3), 96),  # G12, G13, G23
    ("Expansions", ("<f4", 3), 108),
    ("Reserved2", "V24", 120),
    ("Reserved3", ("<f4", (3, 4)), 144),
)

NODE = np.dtype([("X", "<f4"), ("Y", "<f4"), ("Z", "<f4")])
ELEMENT = np.dtype([("MaterialIndex", "<i2"), ("TypeCode", "<i2"), ("ConnIndex", "<i4")])

LOADCASE = _record(
    1040,
    ("Kind", "<i4", 0),
    ("PatternIndex", "<i4", 4),
    ("RunOrder", "<i4", 8),
    ("Reserved", "V1028", 12),
)

CONSTRAINT = np.dtype(
    [
        ("Kind", "<i2"),
        ("DofMask", "<u2"),
        ("Node", "<i4"),
        ("Value", "<f4", (3,)),
        ("Axis", "<f4", (3, 3)),  # row k: direction vector of direction k, penalty rows only
    ]
)

FORCE = np.dtype([("Node", "<i4"), ("Force", "<f4", (3,))])
SCALAR = np.dtype([("Node", "<i4"), ("Value", "<f4")])

TOTALS = np.dtype(
    [
        ("LoadCase", "<i4"),
        ("Kind", "<i4"),
        ("ARQua", "<f4"),
        ("SEner", "<f4"),
        ("MatVolume", "<f4"),
        ("BStress", "<f4"),
        ("MaxDis", "<f4"),
        ("R", "<f4", (3,)),
    ]
)


def default_materials(count: int) -> Array:
    """`count` MATERIAL records holding the defaults of the layout."""
    records = np.zeros(count, MATERIAL)
    records["Name"] = b" " * 32
    records["HardeningRatio"] = 0.001
    records["LimitStress"] = 1.0
    records["Reserved3"][:, :, 3] = 1.0
    return records
