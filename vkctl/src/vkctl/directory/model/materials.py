"""Materials in memory and their records."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

from vkctl.basics.types import Array

from .. import formats

_NO_TRIPLE = (0.0, 0.0, 0.0)


@dataclass
class Material:
    """One material. The classmethods set the flags of its kind; other fields keep defaults.

    `limit_stress` scales the response criteria. Safety is measured against `yield_stress`, of any
    isotropic kind; by it and `hardening_ratio` (slope above yield relative to the elastic slope)
    yielding materials soften. The triples are those of
    orthotropic materials: moduli E1, E2, E3, Poisson ratios Nu12, Nu13, Nu23, shear moduli G12,
    G13, G23, expansion coefficients in x, y, z. `initial_strain` is isotropic for every kind.
    """

    name: str = ""
    flags: int = 0
    e: float = 0.0
    nu: float = 0.0
    ref_value: float = 0.0
    yield_stress: float = 0.0
    hardening_ratio: float = 0.001
    expansion: float = 0.0
    initial_strain: float = 0.0
    limit_stress: float = 1.0
    moduli: tuple[float, float, float] = _NO_TRIPLE
    poisson: tuple[float, float, float] = _NO_TRIPLE
    shear: tuple[float, float, float] = _NO_TRIPLE
    expansions: tuple[float, float, float] = _NO_TRIPLE

    @classmethod
    def isotropic(
        cls,
        e: float,
        nu: float,
        *,
        name: str = "",
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Linear elastic material of Young's modulus `e` and Poisson's ratio `nu`."""
        return cls(
            name=name,
            flags=formats.MATERIAL_ISOTROPIC,
            e=e,
            nu=nu,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def yielding(
        cls,
        e: float,
        nu: float,
        yield_stress: float,
        *,
        name: str = "",
        hardening_ratio: float = 0.001,
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Isotropic material whose elements soften from run to run above `yield_stress`."""
        return cls(
            name=name,
            flags=formats.MATERIAL_YIELDING,
            e=e,
            nu=nu,
            yield_stress=yield_stress,
            hardening_ratio=hardening_ratio,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def compression_only(
        cls,
        e: float,
        nu: float,
        *,
        name: str = "",
        expansion: float = 0.0,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Isotropic material that carries compression only, such as a contact layer."""
        return cls(
            name=name,
            flags=formats.MATERIAL_COMPRESSION_ONLY,
            e=e,
            nu=nu,
            expansion=expansion,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @classmethod
    def orthotropic(
        cls,
        moduli: tuple[float, float, float],
        poisson: tuple[float, float, float],
        shear: tuple[float, float, float],
        *,
        name: str = "",
        expansions: tuple[float, float, float] = _NO_TRIPLE,
        initial_strain: float = 0.0,
        limit_stress: float = 1.0,
    ) -> Material:
        """Material whose principal axes are x, y, z."""
        return cls(
            name=name,
            flags=formats.MATERIAL_ORTHOTROPIC,
            moduli=moduli,
            poisson=poisson,
            shear=shear,
            expansions=expansions,
            initial_strain=initial_strain,
            limit_stress=limit_stress,
        )

    @property
    def has_state(self) -> bool:
        """Whether the element state of this material changes from run to run."""
        return bool(self.flags & formats.MATERIAL_WITH_STATE)


# Attribute of Material and field of the MATERIAL record.
_MATERIAL_FIELDS = (
    ("flags", "MaterialFlags"),
    ("e", "E"),
    ("nu", "Nu"),
    ("ref_value", "RefValue"),
    ("yield_stress", "YieldStress"),
    ("hardening_ratio", "HardeningRatio"),
    ("expansion", "Expansion"),
    ("initial_strain", "InitialStrain"),
    ("limit_stress", "LimitStress"),
    ("moduli", "Moduli"),
    ("poisson", "Poisson"),
    ("shear", "Shear"),
    ("expansions", "Expansions"),
)


def materials_to_records(materials: Sequence[Material]) -> Array:
    """MATERIAL records of `materials`; a name is cut to 32 bytes."""
    records = formats.default_materials(len(materials))
    for record, material in zip(records, materials, strict=True):
        record["Name"] = material.name.encode("latin-1", "replace")[:32].ljust(32)
        for attribute, name in _MATERIAL_FIELDS:
            record[name] = getattr(material, attribute)
    return records


def materials_from_records(records: Array) -> list[Material]:
    """Materials of MATERIAL records."""
    materials = []
    for record in records:
        plain: dict[str, Any] = {}
        for attribute, field_name in _MATERIAL_FIELDS:
            value = record[field_name]
            plain[attribute] = tuple(value.tolist()) if value.ndim else value.item()
        name = bytes(record["Name"]).decode("latin-1").rstrip(" \0")
        materials.append(Material(name=name, **plain))
    return materials
