"""Materials: those that give no stiffness, an impossible one, or behave otherwise than written."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import some
from vkctl.directory import formats
from vkctl.directory.formats import file_names

from .findings import Finding, error, note, warning
from .inputs import Inputs

_WHERE = file_names.MATERIALS
_ISOTROPIC = (
    formats.MATERIAL_ISOTROPIC | formats.MATERIAL_YIELDING | formats.MATERIAL_COMPRESSION_ONLY
)
_NEARLY_INCOMPRESSIBLE = 0.49
_SMALLEST_MODULUS, _LARGEST_MODULUS = 1e-30, 1e30  # stiffness is computed in single precision
_LARGE_CONTRAST = 1e6  # of moduli, beyond which solutions lose their accuracy


def check_materials(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the materials that active elements have."""
    if inputs.materials is None or inputs.tables is None or inputs.mesh is None:
        return
    valid = inputs.mesh.valid
    used = distinct(inputs.tables.records["MaterialIndex"][: len(valid)][valid]).tolist()
    for number in used:
        yield from _one(number, inputs.materials[number - 1])
    moduli = [stiffest_modulus(inputs.materials[number - 1]) for number in used]
    known = [modulus for modulus in moduli if _is_modulus(modulus)]
    if known and max(known) > _LARGE_CONTRAST * min(known):
        text = f"Moduli go from {min(known):g} to {max(known):g}."
        hint = "Solutions converge badly with such a contrast. Are all in the same unit?"
        yield warning("material-contrast", text, _WHERE, hint)
    unused = sorted(set(range(1, len(inputs.materials) + 1)) - set(used))
    if unused:
        yield note("material-unused", f"No element has material {some(unused)}.", _WHERE)
    with_state = [
        n for n in used if inputs.materials[n - 1]["MaterialFlags"] & formats.MATERIAL_WITH_STATE
    ]
    if with_state:
        text = f"Material {some(with_state)} changes the state of its elements from run to run."
        hint = (
            "One run gives the first step only: clear the done bits and run again until it settles."
        )
        yield note("material-state", text, _WHERE, hint)


def _one(number: int, record: np.void) -> Iterator[Finding]:
    name = bytes(record["Name"]).decode("latin-1").rstrip(" \0")
    called = f'Material {number} ("{name}")' if name else f"Material {number}"
    where = f"{_WHERE}, material {number}"
    flags = int(record["MaterialFlags"])
    if flags & formats.MATERIAL_ORTHOTROPIC:
        if flags & _ISOTROPIC:
            text = f"{called} is marked orthotropic and isotropic: the orthotropic values hold."
            yield note("material-two-kinds", text, where)
        yield from _orthotropic(called, record, where)
    elif flags & _ISOTROPIC:
        yield from _isotropic(called, record, where)
    else:
        text = f"{called} has no kind and gives no stiffness."
        yield error("material-kind", text, where, "Set one of the bits 8 to 11 of its flags.")
    if flags & formats.MATERIAL_YIELDING:
        yield from _yielding(called, record, where)
    if undefined := _undefined(record, flags):
        text = f"{called} has no finite value of {', '.join(undefined)}."
        yield error("material-not-finite", text, where)
    if not record["LimitStress"] > 0:
        text = (
            f"{called} has the limit stress {record['LimitStress']:g}: the criteria divide by it."
        )
        yield warning("material-limit", text, where, "It is 1 where nothing else is meant.")


def _undefined(record: np.void, flags: int) -> list[str]:
    """Fields besides the elastic constants that are used and are no numbers."""
    fields = ["RefValue", "InitialStrain", "LimitStress"]
    fields.append("Expansions" if flags & formats.MATERIAL_ORTHOTROPIC else "Expansion")
    if flags & formats.MATERIAL_YIELDING:
        fields += ["YieldStress", "HardeningRatio"]
    return [name for name in fields if not np.isfinite(record[name]).all()]


def stiffest_modulus(record: np.void) -> float:
    """The modulus, or the largest of an orthotropic material."""
    ortho = int(record["MaterialFlags"]) & formats.MATERIAL_ORTHOTROPIC
    return float(record["Moduli"].max() if ortho else record["E"])


def _is_modulus(value: float) -> bool:
    return _SMALLEST_MODULUS <= value <= _LARGEST_MODULUS


def _isotropic(called: str, record: np.void, where: str) -> Iterator[Finding]:
    e, nu = float(record["E"]), float(record["Nu"])
    if not _is_modulus(e):
        yield error("material-modulus", f"{called} has the modulus {e:g}: no stiffness.", where)
    if not -1 < nu < 0.5:
        text = f"{called} has Poisson's ratio {nu:g}, outside -1 to 0.5."
        yield error("material-poisson", text, where)
    elif nu > _NEARLY_INCOMPRESSIBLE:
        text = f"{called} has Poisson's ratio {nu:g}: nearly incompressible, elements will lock."
        yield warning(
            "material-incompressible", text, where, "0.49 is the most these elements bear."
        )


def _orthotropic(called: str, record: np.void, where: str) -> Iterator[Finding]:
    moduli, shear = record["Moduli"].astype(float), record["Shear"].astype(float)
    if not all(map(_is_modulus, moduli)):
        text = f"{called} has the moduli {_triple(moduli)}: all three must be positive."
        yield error("material-modulus", text, where)
    elif compliance_determinant(record) <= 0:
        text = f"{called} has Poisson ratios {_triple(record['Poisson'])} that no elastic body has."
        hint = "1 - Nu12 Nu21 - Nu23 Nu32 - Nu13 Nu31 - 2 Nu21 Nu32 Nu13 must be positive."
        yield error("material-poisson", text, where, hint)
    elif not _is_positive(record):
        text = (
            f"{called} has Poisson ratios {_triple(record['Poisson'])} that give negative energy."
        )
        yield error("material-poisson", text, where, "Nu12 squared must be below E1/E2, and so on.")
    if not all(map(_is_modulus, shear)):
        text = f"{called} has the shear moduli {_triple(shear)}: all three must be positive."
        yield error("material-shear", text, where)


def compliance_determinant(record: np.void) -> float:
    """D of an orthotropic material; the stiffness is divided by it."""
    (e1, e2, e3), (n12, n13, n23) = record["Moduli"].tolist(), record["Poisson"].tolist()
    n21, n31, n32 = e2 * n12 / e1, e3 * n13 / e1, e3 * n23 / e2
    return float(1 - n12 * n21 - n23 * n32 - n13 * n31 - 2 * n21 * n32 * n13)


def _is_positive(record: np.void) -> bool:
    """Whether the compliance of the normal strains is positive definite (Lempriere 1968)."""
    (e1, e2, e3), (n12, n13, n23) = record["Moduli"].tolist(), record["Poisson"].tolist()
    return bool(n12**2 < e1 / e2 and n13**2 < e1 / e3 and n23**2 < e2 / e3)


def _yielding(called: str, record: np.void, where: str) -> Iterator[Finding]:
    if not record["YieldStress"] > 0:
        text = (
            f"{called} yields, but its yield stress is {record['YieldStress']:g}: it stays elastic."
        )
        yield warning("material-yield", text, where)
    if not 0 <= record["HardeningRatio"] <= 1:
        text = f"{called} has the hardening ratio {record['HardeningRatio']:g}, outside 0 to 1."
        yield warning("material-hardening", text, where)


def _triple(values: Array) -> str:
    return ", ".join(f"{value:g}" for value in values)
