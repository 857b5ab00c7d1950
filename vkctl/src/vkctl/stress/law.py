"""The material law of an element: stiffness constants, free strains, compliance."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Material

# Shear of compression-only materials relative to what their modulus would give.
_SHEAR_REDUCTION = float(np.float32(0.001))
_SINGLE = np.float32


@dataclass(frozen=True)
class Laws:
    """Constants of each material, float64, a row a material.

    Normal stresses are `normal` times the normal strains, shear stresses `shear` times the
    engineering shears, in the order xx, yy, zz, xy, yz, xz; all before an element's factor.
    """

    normal: Array  # (k, 3, 3)
    shear: Array  # (k, 3)
    expansion: Array  # (k, 3)
    initial: Array  # (k,), the same in x, y and z


def laws_of(materials: list[Material]) -> Laws:
    """Laws with the constants that the solver derives, in single precision as it does."""
    count = len(materials)
    found = Laws(
        np.zeros((count, 3, 3)), np.zeros((count, 3)), np.zeros((count, 3)), np.zeros(count)
    )
    for k, material in enumerate(materials):
        if not material.flags & (_ISOTROPIC | formats.MATERIAL_ORTHOTROPIC):
            continue  # of no known kind: it has no stiffness
        constants = _orthotropic if _is_orthotropic(material) else _isotropic
        with np.errstate(all="ignore"):  # what can't be divided has no finite stress
            found.normal[k], found.shear[k] = constants(material)
        found.expansion[k] = (
            material.expansions if _is_orthotropic(material) else (material.expansion,) * 3
        )
        found.initial[k] = material.initial_strain
    return found


_ISOTROPIC = formats.MATERIAL_ISOTROPIC | formats.MATERIAL_WITH_STATE


def _is_orthotropic(material: Material) -> bool:
    return bool(material.flags & formats.MATERIAL_ORTHOTROPIC)


def _isotropic(material: Material) -> tuple[Array, Array]:
    e, nu, one = _SINGLE(material.e), _SINGLE(material.nu), _SINGLE(1)
    c11 = e * (one - nu) / ((one - 2 * nu) * (one + nu))
    c12 = nu * c11 / (one - nu)
    shear = float(e / (2 * (one + nu)))
    if material.flags & formats.MATERIAL_COMPRESSION_ONLY:
        shear *= _SHEAR_REDUCTION
    normal = np.full((3, 3), float(c12))
    np.fill_diagonal(normal, float(c11))
    return normal, np.full(3, shear)


def _orthotropic(material: Material) -> tuple[Array, Array]:
    e1, e2, e3 = np.array(material.moduli, _SINGLE)
    nu12, nu13, nu23 = np.array(material.poisson, _SINGLE)
    g12, g13, g23 = material.shear
    nu21, nu32, nu31 = e2 * nu12 / e1, e3 * nu23 / e2, e3 * nu13 / e1
    d = _SINGLE(1) - nu12 * nu21 - nu23 * nu32 - nu13 * nu31 - 2 * nu21 * nu32 * nu13
    c12 = (nu21 + nu23 * nu31) * e1 / d
    c13 = (nu31 + nu21 * nu32) * e1 / d
    c23 = (nu32 + nu12 * nu31) * e2 / d
    c11, c22 = (1 - nu23 * nu32) * e1 / d, (1 - nu13 * nu31) * e2 / d
    c33 = (1 - nu12 * nu21) * e3 / d
    normal = np.array(((c11, c12, c13), (c12, c22, c23), (c13, c23, c33)), np.float64)
    return normal, np.array((g12, g23, g13), np.float64)


def element_factors(
    materials: list[Material], numbers: Array, states: Array | None, yield_factor: float
) -> Array:
    """Factor on the constants of each element, float64 (m,), from its material and state.

    `numbers` are the elements' materials. Without states every factor is 1.
    """
    factors = np.ones(len(numbers))
    if states is None:
        return factors
    scaled = np.array([_follows_state(m, yield_factor) for m in materials], np.bool_)
    chosen = scaled[numbers - 1]
    factors[chosen] = states[chosen]
    return factors


def _follows_state(material: Material, yield_factor: float) -> bool:
    if _is_orthotropic(material):
        return False
    if material.flags & formats.MATERIAL_COMPRESSION_ONLY:
        return True
    return bool(material.flags & formats.MATERIAL_YIELDING) and yield_factor > 0


def stresses(laws: Laws, materials: Array, factors: Array, strains: Array) -> Array:
    """Stresses (m, p, 6) of the mechanical strains (m, p, 6) of elements."""
    place = materials - 1
    found = np.empty_like(strains)
    with np.errstate(all="ignore"):  # constants may be infinite
        found[..., :3] = strains[..., :3] @ (laws.normal[place] * factors[:, None, None])
        found[..., 3:] = strains[..., 3:] * (laws.shear[place] * factors[:, None])[:, None]
    return found


def energy_densities(laws: Laws, material: int, stress: Array, factors: Array) -> Array:
    """Half of stress times strain (k,) of a material's stresses (k, 6); NaN without an inverse."""
    with np.errstate(all="ignore"):
        try:
            compliance = np.linalg.inv(laws.normal[material - 1])
        except np.linalg.LinAlgError:
            compliance = np.full((3, 3), np.nan)
        normal = np.einsum("ki,ij,kj->k", stress[:, :3], compliance, stress[:, :3])
        shear = (stress[:, 3:] ** 2 / laws.shear[material - 1]).sum(axis=1)
        density: Array = 0.5 * (normal + shear) / factors
    return density
