"""From a mesh and a case file to the model of a working directory."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.directory import formats, model
from vkctl.directory.formats import Array, PathLike
from vkctl.directory.model import LoadCase, Model

from . import loads
from .case_file.cases import CaseEntry, Cases, Load, Support, read_cases
from .case_file.expression import ExpressionError
from .case_file.schema import CaseFileError, Field, did_you_mean
from .mesh import Mesh, Part, PartError, counted, distinct, make_mesh
from .readers.gmsh import MeshOptions, mesh_geometry, read_msh
from .readers.inp import read_inp
from .readers.vtu import read_vtu
from .sets import Faces, Sets

_READERS: dict[str, Callable[[PathLike], Part]] = {
    ".msh": read_msh,
    ".inp": read_inp,
    ".vtu": read_vtu,
}
_GEOMETRY = (".step", ".stp", ".geo")
_NAME_BYTES = 64  # of a load case's name in its reserved bytes
_STALE = ("ws.*.[0-9][0-9][0-9][0-9]", "mxs.lcmap.[0-9][0-9][0-9][0-9]")


@dataclass
class Prepared:
    """A model made from a part and a case file, and what there is to tell about it."""

    model: Model
    mesh: Mesh
    sets: Sets
    case_names: list[str]  # of the load cases, in the order of their numbers
    resultants: Array  # float64 (cases, 6): sum of the nodal forces and of their moments about 0
    notes: list[str] = field(default_factory=list)
    directory: Path | None = None  # where it was written


def new(part: PathLike | None, cases: PathLike, directory: PathLike) -> Prepared:
    """Write the working directory of a part under the loads of a case file.

    `part` is a Gmsh mesh (.msh), geometry that Gmsh meshes (.step, .stp, .geo), an Abaqus or
    CalculiX deck (.inp) or a VTK grid (.vtu); None takes the file that the case file names,
    relative to it. Result, state and load-case files of an earlier model in the directory are
    removed. Raises CaseFileError for mistakes in the case file, sets that don't exist or are
    empty included, and PartError for a part that can't be used.
    """
    prepared = build(part, cases)
    _remove_stale(Path(directory), prepared.notes)
    model.write(prepared.model, directory)
    prepared.directory = Path(directory)
    return prepared


def build(part: PathLike | None, cases: PathLike) -> Prepared:
    """The model of `new`, not written."""
    known = read_cases(cases)
    if part is None:
        if not known.part:
            known.report.add((), "names no part", "add part = 'FILE' or name the part's file")
            known.report.finish()
        part = known.path.parent / known.part
    mesh = make_mesh(read_part(part, known.mesh), scale=known.scale, reorder=known.reorder)
    return build_model(mesh, known)


def read_part(path: PathLike, options: MeshOptions | None = None) -> Part:
    """Part of a file, told apart by its ending; `options` are for geometry. Raises PartError."""
    place = Path(path)
    ending = place.suffix.lower()
    if ending not in _READERS and ending not in _GEOMETRY:
        known = ", ".join((*_READERS, *_GEOMETRY))
        raise PartError(f"{path}: unknown kind of part {ending!r}; known are {known}")
    if not place.is_file():
        raise PartError(f"{path}: no such file")
    if ending in _GEOMETRY:
        return mesh_geometry(path, options or MeshOptions())
    return _READERS[ending](path)


def _remove_stale(directory: Path, notes: list[str]) -> None:
    stale = [path for pattern in _STALE for path in directory.glob(pattern)]
    for path in stale:
        path.unlink()
    if results := sum(path.name.startswith("ws.") for path in stale):
        notes.append(f"removed {counted(results, 'result file')} of an earlier model")


def build_model(mesh: Mesh, cases: Cases) -> Prepared:
    """Model of a mesh and a case file; CaseFileError tells all mistakes at once."""
    sets = Sets(mesh, cases)
    whole = Model(mesh.nodes, mesh.elements, [e.material for e in cases.materials.values()])
    _apply_model_table(whole, cases, sets)
    _assign_materials(whole, cases, sets)
    _set_level(whole, cases, sets)
    supports = {name: _support(cases, sets, s) for name, s in cases.supports.items()}
    builder = _Loads(cases, sets, whole)
    applied = {name: builder.make(load) for name, load in cases.loads.items()}
    for name, definition in cases.sets:  # those that nothing used, so that mistakes show
        {"node": sets.nodes, "element": sets.elements, "face": sets.faces}[definition.kind](
            name, definition.where
        )
    cases.report.finish()
    whole.load_cases = [_load_case(e, supports, applied, cases) for e in cases.load_cases]
    assign_patterns(whole.load_cases)
    order = cases.run_order or _grouped([case.pattern for case in whole.load_cases])
    whole.run_order = np.array(order, np.int32)
    whole.options = dict(cases.options)
    resultants = np.array([_resultant(case, mesh.nodes) for case in whole.load_cases])
    notes = list(mesh.notes) + _warnings(whole, cases)
    return Prepared(whole, mesh, sets, [e.name for e in cases.load_cases], resultants, notes)


def _apply_model_table(whole: Model, cases: Cases, sets: Sets) -> None:
    assert whole.element_flags is not None and whole.node_flags is not None
    for name in cases.ignore_level:
        numbers = sets.elements(name, ("model", "ignore_level"))
        whole.element_flags[numbers - 1] |= formats.ELEMENT_NO_LEVEL
    sets.exclude(cases.exclude, ("model", "exclude"))
    whole.element_flags[~sets.active] |= formats.ELEMENT_EXCLUDED
    if not np.any(sets.active):
        cases.report.add(("model", "exclude"), "exclude in [model] leaves no element")
        cases.report.finish()
    for name in cases.marked_nodes:
        numbers = sets.nodes(name, ("model", "marked_nodes"))
        whole.node_flags[numbers - 1] |= formats.NODE_NO_LOADS


def _assign_materials(whole: Model, cases: Cases, sets: Sets) -> None:
    """Give every element its material; left-out elements need none and keep the first."""
    owner = np.zeros(len(whole.elements), np.int64)
    titles = list(cases.materials)
    for number, entry in enumerate(cases.materials.values(), 1):
        at = (*entry.where, "elements")
        for name in entry.elements:
            chosen = sets.elements(name, at) - 1
            others = distinct(owner[chosen])
            if taken := [titles[o - 1] for o in others if o not in (0, number)]:
                cases.report.add(at, f"elements of {name!r} have the material {taken[0]!r} already")
            owner[chosen] = number
    rest = [n for n, entry in enumerate(cases.materials.values(), 1) if not entry.elements]
    without = (owner == 0) & sets.active
    if rest:
        owner[owner == 0] = rest[0]
    elif np.any(without):
        first = int(np.flatnonzero(without)[0]) + 1
        left = counted(int(np.count_nonzero(without)), "element")
        text = f"{left} without a material, the first {first}"
        cases.report.add(("materials",), text, "leave out 'elements' in one material")
    whole.elements.materials = np.maximum(owner, 1).astype(np.int16)


def _guarded(cases: Cases, where: tuple[str | int, ...], value: Field, points: Array) -> Array:
    """Values of a number or formula; zeros where the formula has no finite value."""
    try:
        return loads.evaluate(value, points)
    except ExpressionError as error:
        cases.report.add(where, str(error))
        return np.zeros(len(points))


def _node_array(cases: Cases, sets: Sets, where: tuple[str | int, ...], name: str) -> Array:
    data = sets.mesh.node_data
    if name not in data:
        hint = did_you_mean(name, data) if data else "the part holds no node data"
        cases.report.add((*where, "array"), f"no node data {name!r} in the part", hint)
        return np.zeros(len(sets.mesh.nodes))
    return data[name]


def _united(sets: Sets, names: tuple[str, ...], where: tuple[str | int, ...]) -> Array:
    found = [sets.nodes(name, (*where, "set")) for name in names or ("all",)]
    return distinct(np.concatenate(found)).astype(np.int64)


def _set_level(whole: Model, cases: Cases, sets: Sets) -> None:
    level = cases.level
    if level is None:
        return
    nodes = _united(sets, level.sets, level.where)
    if level.array:
        values = _node_array(cases, sets, level.where, level.array)[nodes - 1]
    else:
        points = sets.mesh.nodes[nodes - 1]
        values = _guarded(cases, (*level.where, "value"), level.value or 0.0, points)
    whole.set_level(values, nodes)


# --- supports --------------------------------------------------------------------------------


def _support(cases: Cases, sets: Sets, support: Support) -> Array:
    """CONSTRAINT records of a support."""
    nodes = _united(sets, support.sets, support.where)
    points = sets.mesh.nodes[nodes - 1]
    key = "offset" if support.kind == "elastic" else "value"
    at = (*support.where, key)
    values = np.column_stack(
        [_guarded(cases, (*at, k), v, points) for k, v in enumerate(support.values)]
    )
    if support.kind != "elastic":
        return model.prescribed(nodes, support.directions, values)
    axes = np.array(support.axes, np.float64)
    lengths = np.linalg.norm(axes, axis=1)
    axes = axes / np.where(lengths > 0, lengths, 1.0)[:, None]
    factors = np.sqrt(_relative_stiffness(cases, sets, support, nodes))
    scaled = factors[:, :, None] * axes
    return model.elastic(nodes, scaled, factors * values, support.directions)


def _relative_stiffness(cases: Cases, sets: Sets, support: Support, nodes: Array) -> Array:
    """Stiffness of each node along each axis over that of the option, (nodes, 3).

    The squared length of an axis multiplies the option's stiffness.
    """
    unit = cases.options.get("Sta.SupportStiffness", 1.0)
    if unit <= 0:
        text = "an elastic support has no effect while Sta.SupportStiffness is 0"
        cases.report.add(support.where, text, "set the option to 1 and give a 'stiffness'")
        return np.ones((len(nodes), 3))
    if support.stiffness is None:
        return np.ones((len(nodes), 3))
    amount = np.ones(len(nodes))
    if support.per == "area" or (support.per == "total" and _has_faces(sets, support.sets)):
        faces = _faces(cases, sets, support.sets, support.where)
        numbers, areas = loads.lumped_areas(sets.mesh.nodes, faces.tables)
        amount = np.zeros(len(nodes))
        known = np.isin(numbers, nodes)
        amount[np.searchsorted(nodes, numbers[known])] = areas[known]
    if support.per == "total" and len(nodes):
        amount = amount / amount.sum()
    relative: Array = amount[:, None] * np.array(support.stiffness) / unit
    return relative


def _has_faces(sets: Sets, names: tuple[str, ...]) -> bool:
    own, nodes = sets.names("face"), sets.names("node")
    return all(name in own and name not in nodes for name in names)


def _faces(cases: Cases, sets: Sets, names: tuple[str, ...], where: tuple[str | int, ...]) -> Faces:
    found = [sets.faces(name, (*where, "set")) for name in names]
    return Faces([t for f in found for t in f.tables], sum(f.interior for f in found))


# --- loads -----------------------------------------------------------------------------------


@dataclass
class _Applied:
    """Nodal forces or temperatures of one load at the factor 1."""

    nodes: Array
    values: Array  # (k, 3) forces or (k,) temperatures
    kind: str


class _Loads:
    """Makes the loads of a case file; mistakes go to its report."""

    def __init__(self, cases: Cases, sets: Sets, whole: Model) -> None:
        self.cases = cases
        self.sets = sets
        self.whole = whole
        self.nodes = sets.mesh.nodes

    def make(self, load: Load) -> _Applied:
        before = len(self.cases.report.problems)
        make = {
            "force": self._force,
            "traction": self._on_faces,
            "pressure": self._on_faces,
            "gravity": self._gravity,
            "temperature": self._temperature,
        }[load.kind]
        numbers, values = make(load)
        missing = len(self.cases.report.problems) > before
        if not missing and load.kind != "temperature" and not np.any(values):
            self.cases.report.add(load.where, f"the {load.kind} is zero everywhere")
        return _Applied(numbers, values, load.kind)

    def _nothing(self) -> tuple[Array, Array]:
        return np.empty(0, np.int64), np.empty((0, 3))

    def _force(self, load: Load) -> tuple[Array, Array]:
        vector = np.array(load.values, np.float64)
        spread = load.spread or ("area" if _has_faces(self.sets, load.sets) else "equal")
        if spread == "area":
            faces = _faces(self.cases, self.sets, load.sets, load.where)
            if not len(faces):
                return self._nothing()
            return loads.spread_force(self.nodes, faces.tables, vector)
        numbers = _united(self.sets, load.sets, load.where)
        if not len(numbers):
            return self._nothing()
        share = vector / (len(numbers) if spread == "equal" else 1)
        return numbers, np.tile(share, (len(numbers), 1))

    def _on_faces(self, load: Load) -> tuple[Array, Array]:
        faces = _faces(self.cases, self.sets, load.sets, load.where)
        if load.kind == "pressure" and faces.interior:
            self.cases.report.add(
                (*load.where, "set"),
                f"{counted(faces.interior, 'face')} of the pressure have solids on both sides",
                "use a traction, or leave the elements on one side out",
            )
        if not len(faces):
            return self._nothing()
        try:
            return loads.traction_forces(self.nodes, faces.tables, load.values)
        except ExpressionError as error:
            self.cases.report.add((*load.where, "value"), str(error))
            return self._nothing()

    def _gravity(self, load: Load) -> tuple[Array, Array]:
        entries = list(self.cases.materials.values())
        per_material = np.array([0.0] + [e.density or 0.0 for e in entries])
        materials = self.whole.elements.materials
        chosen = self.sets.active.copy()
        if load.sets:
            names = [self.sets.elements(n, (*load.where, "set")) for n in load.sets]
            chosen[:] = False
            chosen[np.concatenate(names) - 1] = True
        for number in distinct(materials[chosen]):
            entry = entries[number - 1]
            if entry.density is None:
                text = f"[materials.{entry.material.name}] has no 'density', which gravity needs"
                self.cases.report.add(entry.where, text)
        densities = np.where(chosen, per_material[materials], 0.0)
        masses = loads.nodal_masses(self.nodes, self.whole.elements, densities)
        numbers = np.flatnonzero(masses) + 1
        return numbers, masses[numbers - 1, None] * np.array(load.values, np.float64)

    def _temperature(self, load: Load) -> tuple[Array, Array]:
        numbers = _united(self.sets, load.sets, load.where)
        if load.array:
            values = _node_array(self.cases, self.sets, load.where, load.array)[numbers - 1]
        else:
            at = (*load.where, "value")
            values = _guarded(self.cases, at, load.values[0], self.nodes[numbers - 1])
        return numbers, values - load.reference


# --- load cases ------------------------------------------------------------------------------


def _load_case(
    entry: CaseEntry, supports: dict[str, Array], applied: dict[str, _Applied], cases: Cases
) -> LoadCase:
    """Records of a load case: surface and point loads in section 2, body forces in section 3."""
    flags = formats.LOADCASE_REQUESTED if entry.requested else 0
    flags |= formats.LOADCASE_EXCLUDED if entry.excluded else 0
    name = entry.name.encode("utf-8")[:_NAME_BYTES]
    case = LoadCase(flags=flags, reserved=name)
    rows = [supports[name] for name in entry.supports]
    case.constraints = np.concatenate([*rows, np.empty(0, formats.CONSTRAINT)])
    temperatures: dict[int, tuple[Array, Array]] = {}
    for place, (title, factor) in enumerate(entry.loads.items()):
        load = applied[title]
        if load.kind == "temperature":
            temperatures[place] = load.nodes, factor * load.values
        elif len(load.nodes):
            case.load(load.nodes, factor * load.values, 3 if load.kind == "gravity" else 2)
    if temperatures:
        case.scalars = _merged(list(temperatures.values()))
    return case


def _merged(pieces: list[tuple[Array, Array]]) -> Array:
    """SCALAR records, of each node the value that comes last."""
    numbers = np.concatenate([n for n, _ in pieces])[::-1]
    values = np.concatenate([v for _, v in pieces])[::-1]
    unique, last = np.unique(numbers, return_index=True)
    return model.scalars(unique, values[last])


def assign_patterns(cases: list[LoadCase]) -> None:
    """Give load cases with the same supports the same pattern number, from 1 on.

    Within a pattern the solver keeps numbering, matrix and factor, and refers to prescribed
    values by the row of their record. So the records must agree row by row in everything but the
    values, whose zeros must stand at the same places; those of elastic supports may differ.
    """
    seen: dict[bytes, int] = {}
    for case in cases:
        rows = np.array(case.constraints, formats.CONSTRAINT)
        penalty = (rows["Kind"] & formats.CONSTRAINT_PENALTY) != 0
        moved = (rows["Value"] != 0) & ~penalty[:, None]
        axes = np.where(penalty[:, None, None], rows["Axis"], 0.0)
        words = [rows["Kind"], rows["DofMask"], rows["Node"], moved, axes]
        key = b"|".join(np.ascontiguousarray(w).tobytes() for w in words)
        case.pattern = seen.setdefault(key, len(seen) + 1)


def _grouped(patterns: list[int]) -> list[int]:
    """Load-case numbers ordered so that each pattern is set up once."""
    return [int(i) + 1 for i in np.argsort(patterns, kind="stable")]


def _resultant(case: LoadCase, nodes: Array) -> Array:
    total = np.zeros(6)
    for section in (case.forces2, case.forces3):
        force = section["Force"].astype(np.float64)
        total[:3] += force.sum(axis=0)
        total[3:] += np.cross(nodes[section["Node"] - 1], force).sum(axis=0)
    return total


def _warnings(whole: Model, cases: Cases) -> list[str]:
    """What is no mistake but may surprise."""
    notes = []
    assert whole.node_flags is not None
    marked = (whole.node_flags & formats.NODE_NO_LOADS) != 0
    for entry, case in zip(cases.load_cases, whole.load_cases, strict=True):
        loaded = np.concatenate((case.forces2["Node"], case.forces3["Node"]))
        if skipped := int(np.count_nonzero(marked[loaded - 1])):
            notes.append(
                f"load case {entry.name!r}: the solver skips forces on "
                f"{counted(skipped, 'marked node')}"
            )
        if not len(case.constraints):
            notes.append(f"load case {entry.name!r} has no supports")
    if len(whole.tp) and not np.any(whole.tp):
        notes.append("the level field is zero everywhere")
    return notes


__all__ = [
    "CaseFileError",
    "PartError",
    "Prepared",
    "assign_patterns",
    "build",
    "build_model",
    "new",
    "read_part",
]
