"""Materials of a case file."""

from __future__ import annotations

import numpy as np

from vkctl.directory.model import Material

from .entries import MATERIAL_KINDS, Cases, MaterialEntry
from .toml_table import Table


def read_material(name: str, table: Table) -> MaterialEntry:
    kind = table.choice("kind", MATERIAL_KINDS, "isotropic")
    if len(name.encode("latin-1", "replace")) > 32:
        table.report.add(table.path, f"material name {name!r} is longer than 32 characters")
    material = _orthotropic(table) if kind == "orthotropic" else _isotropic(kind, table)
    material.name = name
    material.initial_strain = table.number("initial_strain", 0.0)
    material.limit_stress = table.number("limit_stress", 1.0, above=0)
    entry = MaterialEntry(
        material,
        table.path,
        table.names("elements"),
        table.number("density", None, least=0),
    )
    table.done()
    return entry


def _isotropic(kind: str, table: Table) -> Material:
    e = table.number("E", above=0)
    nu = table.number("nu", above=-1, below=0.5)
    expansion = table.number("expansion", 0.0)
    if kind == "yielding":
        strength = table.number("yield_stress", above=0)
        ratio = table.number("hardening_ratio", 0.001, least=0, most=1)
        return Material.yielding(e, nu, strength, hardening_ratio=ratio, expansion=expansion)
    make = Material.compression_only if kind == "compression_only" else Material.isotropic
    material = make(e, nu, expansion=expansion)
    if table.has("yield_stress"):
        # Nothing softens by it: what safety is measured against.
        material.yield_stress = table.number("yield_stress", above=0)
    return material


def _orthotropic(table: Table) -> Material:
    moduli = table.vector("E")
    poisson = table.vector("nu")
    shear = table.vector("G")
    for key, values in (("E", moduli), ("G", shear)):
        if table.has(key) and min(values) <= 0 and not table.report.problems:
            table.problem(key, "must be three numbers above 0: in x, y, z or xy, xz, yz")
    if not table.report.problems and min(moduli) > 0:
        compliance = np.diag(1.0 / np.array(moduli))
        for (i, j), nu in zip(((0, 1), (0, 2), (1, 2)), poisson, strict=True):
            compliance[i, j] = compliance[j, i] = -nu / moduli[i]
        if np.linalg.eigvalsh(compliance)[0] <= 0:
            table.problem(
                "nu",
                "gives a material of negative stiffness",
                "the ratios are nu12, nu13, nu23 with nu12/E1 = nu21/E2",
            )
    return Material.orthotropic(
        moduli, poisson, shear, expansions=table.vector("expansion", (0.0, 0.0, 0.0))
    )


def check_materials(cases: Cases, top: Table) -> None:
    if not cases.materials and not top.has("materials"):
        top.report.add((), "no materials", "add a table [materials.NAME] with E and nu")
    rest = [name for name, entry in cases.materials.items() if not entry.elements]
    for name in rest[1:]:
        top.report.add(
            cases.materials[name].where,
            f"[materials.{name}] and [materials.{rest[0]}] both have no 'elements'",
            "only one material can take all elements that are left",
        )
