"""Parts read through Gmsh: its own meshes, and geometry that it meshes.

For the reading process alone: `apart` has looked at the file's head, or at all of a script.
"""

from __future__ import annotations

from collections import defaultdict
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import ModuleType
from typing import Any

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.shapes.cells import HEX20, HEX27, PYRAMID5, PYRAMID13, WEDGE6, WEDGE15
from vkctl.shapes.topology import HEX8, TET4, TET10

from ..part import MeshOptions, Part, PartError
from .element_count import expected, fitting_size, measured
from .mixed_orders import refuse_orders_mixed

Tell = Callable[[str, dict[str, Any]], None]  # what is told, and what there is to say

# Gmsh element types (its reference manual, "Node ordering"): the solver's type and the place of
# each of the solver's nodes. Gmsh has the mid-edge nodes of 3-4 and 2-4 the other way round.
_SOLIDS = {
    4: (TET4, [0, 1, 2, 3]),
    5: (HEX8, [0, 1, 2, 3, 4, 5, 6, 7]),
    11: (TET10, [0, 1, 2, 3, 4, 5, 6, 7, 9, 8]),
}

_SURFACES = {2: 3, 3: 4, 9: 6}  # type and number of nodes, which are in the solver's order
# Taken where they are to be split, which looks at corners alone.
_CELLS = {
    6: (WEDGE6, list(range(6))),
    7: (PYRAMID5, list(range(5))),
    12: (HEX27, list(range(27))),
    17: (HEX20, list(range(20))),
    18: (WEDGE15, list(range(15))),
    19: (PYRAMID13, list(range(13))),
}
_CELL_SURFACES = {10: 9, 16: 8}
_DIMENSION_NAMES = ("point", "curve", "surface", "volume")
_MOST_THREADS = 64
_COUNTED = 1e12  # a count above it is written with an exponent


@contextmanager
def session(threads: int = 1) -> Iterator[ModuleType]:
    """Gmsh with nothing of the user's configuration."""
    try:
        gmsh = need("gmsh")
    except OSError as error:
        raise PartError(
            f"Gmsh can't be loaded: {error}; it needs the system's OpenGL and X libraries "
            "(libglu1-mesa, libxrender1, libxcursor1, libxft2, libxinerama1)"
        ) from None
    gmsh.initialize(readConfigFiles=False, interruptible=False)
    gmsh.option.setNumber("General.Terminal", 1)
    gmsh.option.setNumber("General.NumThreads", min(threads, _MOST_THREADS))
    gmsh.model.add("vkctl")
    gmsh.logger.start()
    yield gmsh


def failure(gmsh: ModuleType, title: str, error: Exception) -> PartError:
    said = [line for line in gmsh.logger.get() if line.startswith("Error")]
    words = said[-1].partition(":")[2].strip() if said else str(error).strip()
    return PartError(f"{title}: Gmsh can't read or mesh it: {words or 'no reason given'}")


def read_msh(path: PathLike, title: str, cells: bool = False) -> Part:
    """Part of a Gmsh mesh file of any version that Gmsh reads.

    `cells` takes wedges, pyramids and hexahedra of 20 and 27 nodes too.
    """
    with session() as gmsh:
        try:
            gmsh.merge(str(path))
        except Exception as error:
            raise failure(gmsh, title, error) from None
        part = collect(gmsh, cells)
        refuse_orders_mixed(gmsh, title)
        part.node_data = _views(gmsh, part.labels)
        return part


def mesh_geometry(
    path: PathLike, title: str, options: MeshOptions, *, most_bytes: int, tell: Tell
) -> Part:
    """Part meshed from a STEP file or a Gmsh script (.geo).

    Touching solids of a STEP file are glued: their common faces share nodes. How many elements
    there will be is told, and refused where they need more than `most_bytes`, unless that is 0.
    """
    with session(options.threads) as gmsh:
        try:
            _load_geometry(gmsh, path, title)
            meshed = not len(gmsh.model.mesh.getElements(3)[0])  # a script may bring its mesh
            if meshed:
                _mesh(gmsh, title, options, most_bytes, tell)
        except PartError:
            raise
        except Exception as error:
            raise failure(gmsh, title, error) from None
        part = collect(gmsh, options.split)
        part.meshed = meshed
        return part


def _load_geometry(gmsh: ModuleType, path: PathLike, title: str) -> None:
    if str(path).lower().endswith(".geo"):
        gmsh.merge(str(path))
    else:
        found = gmsh.model.occ.importShapes(str(path), format="step")
        solids = [s for s in found if s[0] == 3]
        if len(solids) > 1:
            gmsh.model.occ.fragment(solids[:1], solids[1:])
        gmsh.model.occ.synchronize()
    if not gmsh.model.getEntities(3):
        raise PartError(f"{title} holds no solid")


def _mesh(gmsh: ModuleType, title: str, options: MeshOptions, most_bytes: int, tell: Tell) -> None:
    low, high = np.reshape(gmsh.model.getBoundingBox(-1, -1), (2, 3))
    size = options.size or float(np.linalg.norm(high - low)) / 20
    _announce(gmsh, title, size, options, most_bytes, tell)
    numbers = {
        "Mesh.MeshSizeMax": size,
        "Mesh.MeshSizeMin": options.smallest_size or 0.0,
        "Mesh.MeshSizeFromCurvature": options.per_circle,
        "Mesh.ElementOrder": options.order,
        "Mesh.SecondOrderLinear": not options.curved,
        # Pulls curved elements straight where following the geometry would fold them.
        "Mesh.HighOrderOptimize": 1 if options.order == 2 and options.curved else 0,
    }
    for name, value in numbers.items():
        gmsh.option.setNumber(name, value)
    gmsh.model.mesh.generate(3)


def _announce(
    gmsh: ModuleType, title: str, size: float, options: MeshOptions, most_bytes: int, tell: Tell
) -> None:
    """Tell how many elements there will be; PartError where the memory isn't there for them."""
    extents = measured(gmsh)
    count = expected(extents, size, options)
    text = (
        f"about {rounded(count.elements)} elements of size {size:.3g} at most expected, "
        f"{memory_words(count.bytes)} of memory"
    )
    if not most_bytes or count.bytes <= most_bytes:
        tell("estimate", {"elements": count.elements, "text": text})
        return
    fits = fitting_size(extents, size, options, most_bytes)
    way = (
        f"size = {fits:g} in [mesh] would fit"
        if fits is not None
        else "no size would fit: lower per_circle in [mesh], or the sizes that the script gives"
    )
    raise PartError(
        f"{title}: {text}, but {memory_words(most_bytes)} are there for them; {way}, "
        "and --no-limits meshes it all the same"
    )


def rounded(count: float) -> str:
    """Two digits, since it is a guess."""
    return f"{float(f'{count:.2g}'):,.0f}" if count < _COUNTED else f"{count:.1e}"


def memory_words(size: float) -> str:
    return f"{size / 2**30:.2g} GB" if size < 1e4 * 2**30 else f"{size / 2**30:.1e} GB"


def collect(gmsh: ModuleType, cells: bool) -> Part:
    labels, points, _ = gmsh.model.mesh.getNodes(returnParametricCoord=False)
    part = Part(np.asarray(labels, np.int64), np.reshape(points, (-1, 3)), [])
    names = _set_names(gmsh)
    pieces: dict[str, list[Array]] = defaultdict(list)
    surfaces: dict[str, list[Array]] = defaultdict(list)
    taken = _taken(cells)
    for entity in gmsh.model.getEntities():
        groups = gmsh.model.mesh.getElements(*entity)
        for kind, tags, rows in zip(*groups, strict=True):
            _collect_block(
                gmsh, part, taken, names[entity], entity, kind, tags, rows, pieces, surfaces
            )
    for name, found in pieces.items():
        target = part.element_sets if name.startswith("3 ") else part.node_sets
        target[name[2:]] = distinct(np.concatenate(found))
    part.surfaces = dict(surfaces)
    return part


_Taken = tuple[dict[int, tuple[int, list[int]]], dict[int, int]]  # solids and surface elements


def _taken(cells: bool) -> _Taken:
    if cells:
        return {**_SOLIDS, **_CELLS}, {**_SURFACES, **_CELL_SURFACES}
    return _SOLIDS, _SURFACES


def _collect_block(
    gmsh: ModuleType,
    part: Part,
    taken: _Taken,
    names: list[str],
    entity: tuple[int, int],
    kind: int,
    tags: Array,
    flat: Array,
    pieces: dict[str, list[Array]],
    surfaces: dict[str, list[Array]],
) -> None:
    """File the elements of one type of one entity under the names of their sets."""
    dimension = entity[0]
    solids, flat_types = taken
    rows = np.asarray(flat, np.int64).reshape(len(tags), -1)
    if dimension == 3 and kind in solids:
        code, places = solids[kind]
        part.solids.append((code, np.asarray(tags, np.int64), rows[:, places]))
        for name in names:
            pieces[f"3 {name}"].append(np.asarray(tags, np.int64))
    elif dimension == 2 and kind in flat_types:
        for name in names:
            surfaces[name].append(rows)
    elif dimension < 2:
        for name in names:
            pieces[f"{dimension} {name}"].append(distinct(rows))
    elif dimension == 3 or any(not n.startswith("surface:") for n in names):
        title = gmsh.model.mesh.getElementProperties(kind)[0]
        part.unsupported[title] = part.unsupported.get(title, 0) + len(tags)


def _set_names(gmsh: ModuleType) -> dict[tuple[int, int], list[str]]:
    """Names of each entity: those of its physical groups, its own, and kind:tag."""
    names: dict[tuple[int, int], list[str]] = {}
    for dimension, tag in gmsh.model.getEntities():
        found = [f"{_DIMENSION_NAMES[dimension]}:{tag}"]
        for group in gmsh.model.getPhysicalGroupsForEntity(dimension, tag):
            title = gmsh.model.getPhysicalName(dimension, group)
            found.append(title or f"{_DIMENSION_NAMES[dimension]}-group:{group}")
        if title := gmsh.model.getEntityName(dimension, tag).split("/")[-1]:
            found.append(title)
        names[dimension, tag] = list(dict.fromkeys(found))
    return names


def _views(gmsh: ModuleType, labels: Array) -> dict[str, Array]:
    """Scalar node data stored in the mesh file, by the name of the view; 0 where it has none."""
    found = {}
    order = np.argsort(labels)
    for tag in gmsh.view.getTags():
        index = gmsh.view.getIndex(tag)
        kind, nodes, values, _, width = gmsh.view.getHomogeneousModelData(tag, 0)
        if kind == "NodeData" and width == 1:
            data = np.zeros(len(labels))
            place = order[np.searchsorted(labels, np.asarray(nodes, np.int64), sorter=order)]
            data[place] = values
            found[gmsh.option.getString(f"View[{index}].Name")] = data
    for tag in gmsh.view.getTags():
        gmsh.view.remove(tag)
    return found
