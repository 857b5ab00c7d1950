"""Magnitudes that don't fit each other: mixed units are the likeliest cause."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem
from vkctl.directory import formats
from vkctl.directory.formats import file_names

from .findings import Finding, error, warning
from .inputs import Inputs

# Stiff engineering solids, rubber to diamond: the same modulus in Pa and in MPa.
_PASCAL = (1e8, 2e12)
_MEGAPASCAL = (1e2, 2e6)
_SOFTEST, _STIFFEST = 1e3, 2e12  # Pa, gels to diamond
_LONG = 200.0  # an extent that is hardly in metres where the modulus is in Pa
_SHORT = 0.5  # an extent that is hardly in millimetres where the modulus is in MPa
_LARGE_STRAIN = 0.05  # mean strain beyond which a linear analysis says nothing
_LARGE_THERMAL_STRAIN = 0.1
_NO_STRAIN = 1e6  # beyond it a value is a mistake, and may overflow in single precision


def check_units(inputs: Inputs) -> Iterator[Finding]:
    """Moduli against the size of the model, loads and temperatures against the moduli."""
    mesh = inputs.mesh
    if mesh is None or inputs.materials is None or mesh.extent == 0:
        return
    stiffest = float(_moduli(inputs.materials).max(initial=0.0))
    if not (np.isfinite(stiffest) and stiffest > 0):
        return
    if inputs.units is None:
        yield from _modulus_and_size(stiffest, mesh.extent)
    else:
        yield from _modulus_and_units(stiffest, inputs.units)
    for number, sections in inputs.maps.items():
        where = f"load case {number}"
        forces = np.concatenate((sections.forces2["Force"], sections.forces3["Force"]))
        push = float(np.abs(np.nan_to_num(forces.astype(float))).sum(axis=0).max(initial=0.0))
        strain = push / (stiffest * mesh.extent**2)
        if strain > _NO_STRAIN:
            text = f"The forces give a mean strain of {strain:.2g} or more, beyond all measure."
            yield error("load-absurd", text, where, "A solution may fail or say nothing.")
        elif strain > _LARGE_STRAIN:
            text = (
                f"The forces give a mean strain of {strain:.2g} or more: too much for this modulus."
            )
            yield warning("units-load", text, where, "Are force, length and modulus in one system?")
        values = sections.constraints["Value"][sections.constraints["DofMask"] != 0]
        shift = float(np.abs(np.nan_to_num(values.astype(float))).max(initial=0.0))
        if shift > _NO_STRAIN * mesh.extent:
            text = f"A displacement of {shift:g} is prescribed, the model is {mesh.extent:g} long."
            yield error("load-absurd", text, where, "A solution may fail or say nothing.")
        elif shift > mesh.extent:
            text = f"A displacement of {shift:g} is prescribed, the model is {mesh.extent:g} long."
            yield warning("units-displacement", text, where, "Are both in one unit?")
        yield from _thermal(inputs.materials, sections.scalars, where)


def _moduli(materials: Array) -> Array:
    ortho = materials["MaterialFlags"] & formats.MATERIAL_ORTHOTROPIC != 0
    moduli: Array = np.where(ortho, materials["Moduli"].max(axis=1), materials["E"]).astype(float)
    return moduli


def _modulus_and_size(modulus: float, extent: float) -> Iterator[Finding]:
    where = f"{file_names.MATERIALS}, {file_names.NODES}"
    if _PASCAL[0] <= modulus <= _PASCAL[1] and extent > _LONG:
        text = f"A modulus of {modulus:g} looks like Pa, a size of {extent:g} like millimetres."
        yield warning("units-size", text, where, "With mm and N the modulus is in MPa.")
    elif _MEGAPASCAL[0] <= modulus <= _MEGAPASCAL[1] and extent < _SHORT:
        text = f"A modulus of {modulus:g} looks like MPa, a size of {extent:g} like metres."
        yield warning("units-size", text, where, "With m and N the modulus is in Pa.")


def _modulus_and_units(modulus: float, units: UnitSystem) -> Iterator[Finding]:
    pascals = modulus * units.pascals
    if not _SOFTEST <= pascals <= _STIFFEST:
        text = f"A modulus of {modulus:g} {units.stress} is that of no known solid."
        hint = f"The case file says units = {units.name!r}: is the modulus in {units.stress}?"
        yield warning("units-modulus", text, file_names.MATERIALS, hint)


def _thermal(materials: Array, scalars: Array, where: str) -> Iterator[Finding]:
    expansions = np.maximum(
        np.abs(materials["Expansion"]), np.abs(materials["Expansions"]).max(axis=1)
    )
    strain = float(expansions.max(initial=0.0)) * float(np.abs(scalars["Value"]).max(initial=0.0))
    if strain > _NO_STRAIN:
        text = f"Temperatures and expansion give a strain of {strain:.2g}, beyond all measure."
        yield error("load-absurd", text, where, "A solution may fail or say nothing.")
    elif strain > _LARGE_THERMAL_STRAIN:
        text = f"Temperatures and expansion give a strain of {strain:.2g}."
        yield warning("units-temperature", text, where, "Is the expansion per degree?")
