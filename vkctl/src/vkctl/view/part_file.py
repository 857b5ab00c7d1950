"""The part as a closed surface in a file of its own, .stl or .3mf, as cut out or made smooth."""

from __future__ import annotations

import zipfile
from dataclasses import dataclass
from io import BytesIO
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import counted
from vkctl.directory import formats
from vkctl.directory.case_names import read_units
from vkctl.directory.model import Model, read
from vkctl.shapes import shells
from vkctl.shapes.cutting import Surface
from vkctl.shapes.smoothing import smoothed

from .part_body import cut_part, mesh_body

PART_SUFFIXES = (".stl", ".3mf")
_FACET = np.dtype([("normal", "<f4", 3), ("corners", "<f4", (3, 3)), ("attribute", "<u2")])
_UNITS_3MF = {"mm": "millimeter", "m": "meter", "µm": "micron", "in": "inch", "ft": "foot"}


@dataclass(frozen=True)
class PartSurface:
    """A closed surface, and how it came from what was cut out of the mesh."""

    triangles: Array  # (f, 3), seen from outside counter-clockwise
    points: Array
    bodies: int
    volume: float
    volume_cut_out: float  # before smoothing
    poorest: float  # quality of the triangles, 1 is equilateral,
    poorest_cut_out: float
    furthest: float  # that a point has moved
    overlapping: int = 0  # triangles that smoothing made turn over or cut through others


def part_of(directory: PathLike, smooth: bool = False, keep: Array | None = None) -> PartSurface:
    """The part of a directory; `keep` are numbers of nodes that smoothing leaves where they are.

    ValueError if it is empty or its surface isn't closed.
    """
    model = read(directory)
    part = cut_part(mesh_body(model), model)
    if gaps := shells.open_edges(part.triangles):
        raise ValueError(
            f"the surface has {gaps} edges without two neighbours: does the mesh have cracks, or "
            "hexahedra beside tetrahedra?"
        )
    points, overlapping = part.points, 0
    if smooth:
        points, overlapping = smoothed(part, _fixed(model, part, keep))
    return PartSurface(
        part.triangles,
        points,
        shells.bodies(points, part.triangles),
        shells.enclosed(points, part.triangles),
        shells.enclosed(part.points, part.triangles),
        float(shells.qualities(points, part.triangles).min()),
        float(shells.qualities(part.points, part.triangles).min()),
        float(np.linalg.norm(points - part.points, axis=1).max()),
        overlapping,
    )


def _fixed(model: Model, part: Surface, keep: Array | None) -> Array:
    """Points of the surface that are nodes to keep, or nodes that aren't designed."""
    assert model.node_tp_index is not None
    nodes = np.zeros(len(model.nodes), np.bool_)
    if len(model.tp):
        nodes[model.node_tp_index == 0] = True
    if keep is not None:
        nodes[np.asarray(keep, np.int64) - 1] = True
    places = {tuple(place) for place in model.nodes[nodes].tolist()}
    uncut = part.levels > 0
    fixed = np.zeros(len(part.points), np.bool_)
    fixed[uncut] = [tuple(place) in places for place in part.points[uncut].tolist()]
    return fixed


def told(part: PartSurface) -> list[str]:
    """What there is to say of a part that was written."""
    what = "one closed body" if part.bodies == 1 else f"closed, but {part.bodies} bodies apart"
    lines = [f"{what}: {counted(len(part.triangles), 'triangle')}, volume {part.volume:.6g}"]
    if part.furthest > 0:
        change = 100 * (part.volume / part.volume_cut_out - 1)
        lines.append(
            f"smooth: volume changed by {change:.2g} %, points moved {part.furthest:.3g} at most, "
            f"poorest triangle {part.poorest:.2g} (before {part.poorest_cut_out:.2g}, best 1)"
        )
    if part.overlapping:
        lines.append(
            f"{counted(part.overlapping, 'triangle')} turned over or cut through others: export "
            "the part without smoothing where it has to be meshed"
        )
    return lines


def write_part(part: PartSurface, target: PathLike, directory: PathLike) -> None:
    """Write a surface as binary .stl or as .3mf; ValueError for another suffix."""
    suffix = Path(target).suffix
    if suffix == ".stl":
        _write_stl(part, target)
    elif suffix == ".3mf":
        units = read_units(directory)
        _write_3mf(part, target, _UNITS_3MF.get(units.length if units else "mm", "millimeter"))
    else:
        raise ValueError(f"{target}: the suffix must be one of {', '.join(PART_SUFFIXES)}")


def _write_stl(part: PartSurface, target: PathLike) -> None:
    facets = np.zeros(len(part.triangles), _FACET)
    across = shells.areas(part.points, part.triangles)
    lengths = np.linalg.norm(across, axis=1, keepdims=True)
    facets["normal"] = across / np.maximum(lengths, np.finfo(float).tiny)
    facets["corners"] = part.points[part.triangles]
    formats.write_parts(target, [b"".ljust(80), np.uint32(len(facets)).tobytes(), facets])


# The package of the 3MF Core Specification: what its files are, where the model is, the model.
_TYPES_3MF = """<?xml version="1.0" encoding="UTF-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
<Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>
<Default Extension="model" ContentType="application/vnd.ms-package.3dmanufacturing-3dmodel+xml"/>
</Types>"""
_RELATIONS_3MF = """<?xml version="1.0" encoding="UTF-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
<Relationship Target="/3D/3dmodel.model" Id="part"
 Type="http://schemas.microsoft.com/3dmanufacturing/2013/01/3dmodel"/>
</Relationships>"""
_MODEL_3MF = """<?xml version="1.0" encoding="UTF-8"?>
<model unit="{unit}" xml:lang="en"
 xmlns="http://schemas.microsoft.com/3dmanufacturing/core/2015/02">
<resources><object id="1" type="model"><mesh>
<vertices>
{vertices}
</vertices>
<triangles>
{triangles}
</triangles>
</mesh></object></resources>
<build><item objectid="1"/></build>
</model>"""


def _write_3mf(part: PartSurface, target: PathLike, unit: str) -> None:
    vertices = (f'<vertex x="{x:.9g}" y="{y:.9g}" z="{z:.9g}"/>' for x, y, z in part.points)
    triangles = (f'<triangle v1="{a}" v2="{b}" v3="{c}"/>' for a, b, c in part.triangles)
    model = _MODEL_3MF.format(
        unit=unit, vertices="\n".join(vertices), triangles="\n".join(triangles)
    )
    packed = BytesIO()
    with zipfile.ZipFile(packed, "w", zipfile.ZIP_DEFLATED) as package:
        for name, text in (
            ("[Content_Types].xml", _TYPES_3MF),
            ("_rels/.rels", _RELATIONS_3MF),
            ("3D/3dmodel.model", model),
        ):
            package.writestr(zipfile.ZipInfo(name), text, zipfile.ZIP_DEFLATED)
    formats.write_parts(target, [packed.getvalue()])
