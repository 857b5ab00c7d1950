"""What a report says of the model: mesh, quality of its elements, materials, supports, loads."""

from __future__ import annotations

from vkctl.ask.tables import Cell
from vkctl.ask.told import unit_of
from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import called, counted
from vkctl.directory import formats
from vkctl.directory.levels import level_field
from vkctl.directory.model import Material, Model
from vkctl.directory.numbering import EXCLUDED
from vkctl.shapes.topology import HEX8, TET4, TET10
from vkctl.view.quality import element_quality

from .charts import histogram
from .markup import paragraph, section, table
from .units import in_unit

TYPE_NAMES = {
    TET4: "4-node tetrahedra",
    TET10: "10-node tetrahedra",
    HEX8: "8-node hexahedra",
}
_BINS = 20


def about_model(model: Model, units: UnitSystem | None) -> str:
    """The section on the mesh."""
    length = unit_of(units, "length")
    return section("model", "Model", _mesh_table(model, length), _qualities(model))


def _active(model: Model) -> Array:
    assert model.element_flags is not None
    mask: Array = model.element_flags & EXCLUDED == 0
    return mask


def _mesh_table(model: Model, length: str) -> str:
    active = _active(model)
    rows: list[tuple[str, Cell]] = [("nodes", len(model.nodes))]
    for code, name in TYPE_NAMES.items():
        if count := int((model.elements.type_codes == code).sum()):
            rows.append((name, count))
    if not active.all():
        rows.append(("of them left out", int((~active).sum())))
    low, high = model.nodes.min(axis=0), model.nodes.max(axis=0)
    unit = f" {length}" if length else ""
    for axis, start, end in zip("xyz", low.tolist(), high.tolist(), strict=True):
        rows.append((f"extent in {axis}", f"{start:.6g} to {end:.6g}{unit}"))
    if len(model.tp):
        empty = float((level_field(model) < 0).mean())
        rows.append(("design points", len(model.tp)))
        rows.append(("nodes beyond level zero, where there is no material", f"{100 * empty:.1f} %"))
    rows.append(("load cases", len(model.load_cases)))
    return table("Mesh", ("", "count or size"), rows)


def _qualities(model: Model) -> str:
    """A histogram and the poorest value of each type of element."""
    labels = {} if model.labels is None else {"labels": model.labels.elements}
    pieces = []
    every, active = element_quality(model), _active(model)
    for code, name in TYPE_NAMES.items():
        numbers, _ = model.elements.of_type(code)
        numbers = numbers[active[numbers - 1]]
        if not len(numbers):
            continue
        quality = every[numbers - 1]
        worst = int(quality.argmin())
        pieces.append(histogram(quality, 0.0, 1.0, _BINS, f"Quality of {name}", "quality"))
        element = called(int(numbers[worst]), **labels)
        words = (
            f"{counted(len(quality), 'element')}: mean {quality.mean():.3f}, least "
            f"{quality[worst]:.3g} at element {element}; 1 is regular, 0 flat. "
        )
        pieces.append(paragraph(words + _MEASURES[code == HEX8]))
    return "\n".join(pieces)


_MEASURES = {
    True: "The measure of hexahedra is the scaled Jacobian at their corners.",
    False: "The measure of tetrahedra is the mean ratio.",
}


def about_materials(model: Model, units: UnitSystem | None) -> str:
    """The table of materials."""
    stress, density = in_unit(units, "stress"), in_unit(units, "density")
    densities = model.notes.densities if model.notes else ()
    heads = ["", "name", "kind", f"E{stress}", "ν", f"yield stress{stress}"]
    heads += ["expansion", f"density{density}"]
    rows = []
    for number, material in enumerate(model.materials, 1):
        known = densities[number - 1] if number <= len(densities) else None
        rows.append((number, material.name, *_properties(material), known))
    return section("materials", "Materials", table("Materials", heads, rows))


def _properties(material: Material) -> tuple[Cell, ...]:
    strength = material.yield_stress or None
    if material.flags & formats.MATERIAL_ORTHOTROPIC:
        moduli = ", ".join(f"{value:.4g}" for value in material.moduli)
        poisson = ", ".join(f"{value:.4g}" for value in material.poisson)
        expansions = ", ".join(f"{value:.4g}" for value in material.expansions)
        return "orthotropic", moduli, poisson, strength, expansions
    kind = "isotropic"
    if material.flags & formats.MATERIAL_COMPRESSION_ONLY:
        kind = "bears compression only"
    elif material.flags & formats.MATERIAL_YIELDING:
        kind = "yields"
    return kind, material.e, material.nu, strength, material.expansion
