"""From a mesh and a case file to the model of a working directory."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import counted
from vkctl.directory import formats, lock, model
from vkctl.directory.formats import file_names
from vkctl.directory.model import Model

from .case_file.entries import Cases
from .case_file.read import read_cases
from .case_records import assign_patterns, body_of, grouped, load_case, resultant
from .conditions import LoadMaker, support_records
from .mesh import PartMesh, make_mesh
from .part import Reading
from .readers.registry import read_part
from .remembered import case_notes, remembered_sets
from .sets import Sets
from .targets import guarded, node_array, united

_STALE = (
    f"{file_names.RESULT_PREFIX}*.{file_names.FOUR_DIGITS}",
    f"{file_names.LOAD_CASE_MAP_STEM}.{file_names.FOUR_DIGITS}",
)


@dataclass
class Prepared:
    """A model made from a part and a case file, and what there is to tell about it."""

    model: Model
    mesh: PartMesh
    sets: Sets
    case_names: list[str]  # of the load cases, in the order of their numbers
    resultants: Array  # float64 (cases, 6): sum of the nodal forces and of their moments about 0
    notes: list[str] = field(default_factory=list)
    directory: Path | None = None  # where it was written
    # By load-case number, forces (m, 3) per volume of what follows the level field, by element.
    bodies: dict[int, Array] = field(default_factory=dict)


def new(
    part: PathLike | None, cases: PathLike, directory: PathLike, reading: Reading | None = None
) -> Prepared:
    """Write the working directory of a part under the loads of a case file.

    `part` is a Gmsh mesh (.msh), geometry that Gmsh meshes (.step, .stp, .geo), an Abaqus or
    CalculiX deck (.inp) or a VTK grid (.vtu); None takes the file that the case file names,
    relative to it. Result, state and load-case files of an earlier model in the directory are
    removed. `reading` tells how far the part's sender is trusted. Raises CaseFileError for mistakes
    in the case file, sets that don't exist or are empty included, PartError for a part that can't
    be used, and BusyError where another process works on the directory.
    """
    prepared = build(part, cases, reading)
    put(prepared, directory)
    return prepared


def put(prepared: Prepared, directory: PathLike) -> None:
    """Write a model that was built, in place of what the directory holds of an earlier one.

    BusyError where another process works on the directory.
    """
    Path(directory).mkdir(parents=True, exist_ok=True)
    with lock.holding(directory):
        _remove_stale(Path(directory), prepared.notes)
        model.write(prepared.model, directory)
    prepared.directory = Path(directory)


def build(part: PathLike | None, cases: PathLike, reading: Reading | None = None) -> Prepared:
    """The model of `new`, not written."""
    known = read_cases(cases)
    if part is None:
        if not known.part:
            known.report.add((), "names no part", "add part = 'FILE' or name the part's file")
            known.report.finish()
        part = known.path.parent / known.part
    found = read_part(part, known.mesh, reading)
    mesh = make_mesh(found, scale=known.scale, reorder=known.reorder)
    return build_model(mesh, known)


def _remove_stale(directory: Path, notes: list[str]) -> None:
    stale = [path for pattern in _STALE for path in directory.glob(pattern)]
    for path in stale:
        path.unlink()
    if results := sum(path.name.startswith(file_names.RESULT_PREFIX) for path in stale):
        notes.append(f"removed {counted(results, 'result file')} of an earlier model")


def build_model(mesh: PartMesh, cases: Cases) -> Prepared:
    """Model of a mesh and a case file; CaseFileError tells all mistakes at once."""
    with np.errstate(all="ignore"):  # numbers beyond the solver's are looked for at the end
        prepared = _build(mesh, cases)
    _refuse_infinite(prepared.model, cases)
    return prepared


def _refuse_infinite(whole: Model, cases: Cases) -> None:
    """Mistakes where values, each finite, make others that 32-bit numbers can't hold."""
    if not np.isfinite(whole.tp).all():
        cases.report.add(("level",), "the level is too large for 32-bit numbers")
    for entry, case in zip(cases.load_cases, whole.load_cases, strict=True):
        for what, values in (
            ("supports", case.constraints["Value"]),
            ("supports", case.constraints["Axis"]),
            ("forces", case.forces2["Force"]),
            ("forces", case.forces3["Force"]),
            ("temperatures", case.scalars["Value"]),
        ):
            if not np.isfinite(values).all():
                text = f"the {what} of load case {entry.name!r} are too large for 32-bit numbers"
                cases.report.add(entry.where, text)
    cases.report.finish()


def _build(mesh: PartMesh, cases: Cases) -> Prepared:
    sets = Sets(mesh, cases)
    whole = Model(mesh.nodes, mesh.elements, [e.material for e in cases.materials.values()])
    whole.labels = formats.Labels(mesh.node_labels, mesh.element_labels)
    _apply_model_table(whole, cases, sets)
    _assign_materials(whole, cases, sets)
    _set_level(whole, cases, sets)
    whole.options = dict(cases.options)
    supports = {name: support_records(cases, sets, s) for name, s in cases.supports.items()}
    builder = LoadMaker(cases, sets, whole)
    applied = {name: builder.make(load) for name, load in cases.loads.items()}
    for name, definition in cases.sets:  # those that nothing used, so that mistakes show
        {"node": sets.nodes, "element": sets.elements, "face": sets.faces}[definition.kind](
            name, definition.where
        )
    cases.report.finish()
    whole.load_cases = [load_case(e, supports, applied, cases) for e in cases.load_cases]
    assign_patterns(whole.load_cases)
    order = cases.run_order or grouped([case.pattern for case in whole.load_cases])
    whole.run_order = np.array(order, np.int32)
    whole.sets, whole.notes = remembered_sets(sets), case_notes(cases)
    resultants = np.array([resultant(case, mesh.nodes) for case in whole.load_cases])
    notes = list(mesh.notes) + _warnings(whole, cases)
    bodies = {
        n: body
        for n, e in enumerate(cases.load_cases, 1)
        if (body := body_of(e, applied)) is not None
    }
    names = [e.name for e in cases.load_cases]
    return Prepared(whole, mesh, sets, names, resultants, notes, bodies=bodies)


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


def _set_level(whole: Model, cases: Cases, sets: Sets) -> None:
    level = cases.level
    if level is None:
        return
    nodes = united(sets, level.sets, level.where)
    if level.array:
        values = node_array(cases, sets, level.where, level.array)[nodes - 1]
    else:
        points = sets.mesh.nodes[nodes - 1]
        values = guarded(cases, (*level.where, "value"), level.value or 0.0, points)
    whole.set_level(values, nodes)


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
