"""The optimised part as a body of its own, solved beside the result that promised it.

The smooth surface of the part is meshed with tetrahedra, of 10 nodes unless 4 are asked for,
supports and loads of the case file are put on that mesh by their places, and its load cases solved.
What differs is what the level field's cut elements, and the design volume's own mesh, made of the
part.
"""

from __future__ import annotations

import tempfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import counted, place_words
from vkctl.directory import formats, model
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.formats import file_names
from vkctl.directory.model import Model
from vkctl.directory.results import Results, read_results
from vkctl.directory.sums import without_noise
from vkctl.prepare.build import Prepared, build_model, put
from vkctl.prepare.case_file.entries import Cases
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.mesh import make_mesh
from vkctl.prepare.part import MeshOptions, PartError, Reading
from vkctl.prepare.readers.registry import mesh_within
from vkctl.running.progress import Progress
from vkctl.running.run import RunResult, find_vk_rund, run
from vkctl.view.part_file import PartSurface, part_of, write_part

from . import history
from .begun import cases_digest
from .body_sets import labelled_entries, leave_needed
from .limits.aggregates import nodal_forces
from .limits.terms import is_linear

TOLERANCE = 0.03
SURFACE = "part.stl"  # beside the body's own files
_SAME_FORCES = 0.01  # of the largest sum; more is told

Measure = Literal["compliance", "strain energy"]


class BodyError(Exception):
    """The part can't be verified; `run` is the solver's run that failed, if that was the reason."""

    def __init__(self, text: str, run: RunResult | None = None) -> None:
        super().__init__(text)
        self.run = run


@dataclass(frozen=True)
class Solved:
    """What one load case did to the part or to the body."""

    compliance: float  # work of the nodal forces
    strain_energy: float
    displacement: float  # the largest
    forces: tuple[float, float, float]  # sum of the nodal ones


@dataclass(frozen=True)
class Compared:
    """A load case of the optimised part and of the body."""

    number: int
    name: str
    part: Solved
    body: Solved
    measure: Measure  # what is compared: strain energy where not forces alone act
    ratio: float  # of the body's to the part's


@dataclass(frozen=True)
class Verified:
    """Part and body, load case by load case."""

    directory: Path
    tolerance: float
    cases: list[Compared]
    part_volume: float  # as the solver counts it
    body_volume: float
    elements: int  # of the body
    notes: list[str] = field(default_factory=list)
    kept: Path | None = None  # the body's directory, where it was to be kept

    @property
    def within(self) -> bool:
        return all(abs(one.ratio - 1) <= self.tolerance for one in self.cases)


def verify_part(
    directory: PathLike,
    cases: PathLike | None = None,
    *,
    size: float | None = None,
    order: int = 2,
    tolerance: float = TOLERANCE,
    keep: PathLike | None = None,
    vk_rund: PathLike | None = None,
    reading: Reading | None = None,
    on_progress: Callable[[Progress], None] | None = None,
) -> Verified:
    """Solve the part of a directory, made smooth, as a body; the directory stays as it is.

    `cases` is the case file it was prepared from, by default that of its optimisation. `size` is
    the largest edge inside of the body, whose surface has the triangles of the part; tetrahedra of
    `order` 1 have 4 nodes, which makes the body stiffer than it is. `keep` is an
    empty or missing folder for surface, model and results of the body. Raises BodyError, PartError
    where Gmsh can't mesh the surface, CaseFileError, ValueError where there is no closed surface,
    and NotFoundError without a solver.
    """
    place = Path(directory)
    if size is not None and not 0 < size < np.inf:
        raise BodyError(f"a size of {size:g} is no length")
    if order not in (1, 2):
        raise BodyError(f"the order must be 1 or 2, not {order}")
    if not 0 <= tolerance < np.inf:
        raise BodyError(f"a tolerance of {tolerance:g} is no share")
    find_vk_rund(vk_rund)
    numbers, known = _inputs(place, None if cases is None else Path(cases))
    original = model.read(place)
    if len(known.load_cases) != len(original.load_cases):
        theirs = counted(len(known.load_cases), "load case")
        raise BodyError(f"{known.path} has {theirs}, {place} has {len(original.load_cases)}")
    with _folder(place, keep) as folder:
        surface = smooth_part(place)
        write_part(surface, folder / SURFACE, place)
        prepared = _prepared(folder / SURFACE, known, MeshOptions(size=size, order=order), reading)
        put(prepared, folder)
        _solve(folder, known, vk_rund, on_progress)
        return _compared(
            place, original, folder, prepared, numbers, tolerance, folder if keep else None
        )


def smooth_part(directory: PathLike) -> PartSurface:
    """The part made smooth; sets that an optimisation keeps stay as they are."""
    state = history.read_state(directory)
    keep = None if state is None else np.array(state.kept, np.int64)
    return part_of(directory, True, keep)


def _inputs(directory: Path, cases: Path | None) -> tuple[list[int], Cases]:
    """The load cases to compare, and the case file, which is the one of the directory."""
    if not Path(directory, file_names.NODES).is_file():
        raise BodyError(f"{directory} holds no model")
    state = history.read_state(directory)
    if state is not None and state.running:
        raise BodyError(
            f"the optimisation of {directory} ended within a step: start it again, that its "
            "results are those of the part"
        )
    if cases is None:
        if state is None or not state.case_file:
            raise BodyError(f"{directory} doesn't know its case file: name it with --cases")
        cases = Path(state.case_file)
        if not cases.is_file():
            raise BodyError(f"{cases}, the case file of {directory}, is gone: name it with --cases")
    known = read_cases(cases)
    if state is not None and cases_digest(cases) != state.cases:
        raise BodyError(
            f"{cases} isn't what {directory} was prepared from, or has changed outside [optimise]"
        )
    return ([] if state is None else state.load_cases), known


@contextmanager
def _folder(directory: Path, keep: PathLike | None) -> Iterator[Path]:
    """Where the body is solved: a folder that goes with the block, or the one to keep."""
    if keep is None:
        with tempfile.TemporaryDirectory(prefix="vkctl-body-") as folder:
            yield Path(folder)
        return
    kept = Path(keep)
    if kept.is_dir() and any(kept.iterdir()):
        raise BodyError(f"{kept} isn't empty: name another folder to keep the body in")
    kept.mkdir(parents=True, exist_ok=True)
    yield kept


def _prepared(
    surface: Path, known: Cases, options: MeshOptions, reading: Reading | None
) -> Prepared:
    """The body's model: all of it is material, and nothing is left out."""
    known.level, known.exclude, known.ignore_level = None, (), ()
    leave_needed(known)
    if labelled := labelled_entries(known):
        raise BodyError(
            f"{known.path}: {labelled[0]} has labels of the part's file, which are others "
            "in the body: say by its place what it is"
        )
    try:
        mesh = make_mesh(mesh_within(surface, options, reading))
    except PartError as error:
        why = str(error).removeprefix(f"{surface}: ")
        raise PartError(f"the part's surface can't be meshed as a body: {why}") from None
    try:
        return build_model(mesh, known)
    except CaseFileError as error:
        raise BodyError(
            f"{error}\nThe body has a mesh of its own: its sets have to be found by their place "
            "('where', 'plane', 'box', ... in the case file), not by names of the part's file."
        ) from None


def _solve(
    folder: Path,
    known: Cases,
    vk_rund: PathLike | None,
    on_progress: Callable[[Progress], None] | None,
) -> None:
    """In the direct mode, unless the case file wants another."""
    chosen: formats.Mode | None = None if known.options.get("Sys.ComputationMode") else "direct"
    outcome = run(folder, mode=chosen, vk_rund=vk_rund, on_progress=on_progress)
    if not outcome.ok:
        raise BodyError(f"the body can't be solved: {outcome.advice.sentence}", outcome)


def _compared(
    directory: Path,
    original: Model,
    folder: Path,
    prepared: Prepared,
    numbers: list[int],
    tolerance: float,
    kept: Path | None,
) -> Verified:
    names, body = case_names(original), prepared.model
    compared, notes = [], list(prepared.notes)
    volumes = (0.0, 0.0)
    for number in numbers or _requested(original):
        results = [_results(place, number) for place in (directory, folder)]
        part, own = (
            _solved(whole, one) for whole, one in zip((original, body), results, strict=True)
        )
        volumes = (results[0].material_volume, results[1].material_volume)
        measure: Measure = "compliance" if is_linear(original, number) else "strain energy"
        ratio = _ratio(part, own, measure)
        compared.append(Compared(number, names[number - 1], part, own, measure, ratio))
        notes += _other_forces(titled(number, names), part, own)
    if not compared:
        raise BodyError(f"no load case of {directory} is requested")
    return Verified(directory, tolerance, compared, *volumes, len(body.elements), notes, kept)


def _requested(original: Model) -> list[int]:
    cases = enumerate(original.load_cases, 1)
    return [number for number, case in cases if formats.is_wanted(case.kind, case.flags)]


def _results(directory: Path, number: int) -> Results:
    try:
        results = read_results(directory, number)
    except FileNotFoundError:
        raise BodyError(f"load case {number} of {directory} isn't solved") from None
    if results.displacements is None:
        raise BodyError(f"load case {number} of {directory} was solved too poorly")
    if results.element_state is not None:
        raise BodyError(
            f"load case {number} of {directory} has material that yields or carries compression "
            "only, whose state the body doesn't take over"
        )
    return results


def _solved(whole: Model, results: Results) -> Solved:
    forces, moved = nodal_forces(whole, results.number), np.asarray(results.displacements)
    x, y, z = forces.sum(axis=0).tolist()
    return Solved(
        float((forces * moved).sum()),
        results.strain_energy,
        float(np.linalg.norm(moved, axis=1).max()),
        (x, y, z),
    )


def _ratio(part: Solved, body: Solved, measure: Measure) -> float:
    values: Array = np.array(
        [one.compliance if measure == "compliance" else one.strain_energy for one in (part, body)]
    )
    if values[0] == values[1]:
        return 1.0
    return float(values[1] / values[0]) if values[0] else np.inf


def _other_forces(title: str, part: Solved, body: Solved) -> list[str]:
    """Where a load on the body isn't that on the part, as on a face that is partly gone."""
    before, after = np.array(part.forces), np.array(body.forces)
    largest = max(float(np.linalg.norm(one)) for one in (before, after))
    if np.linalg.norm(after - before) <= _SAME_FORCES * largest:
        return []
    said = [place_words(without_noise(one, largest), 4) for one in (before, after)]
    return [
        f"{title}: the forces on the part add up to {said[0]}, on the body to {said[1]}: they act "
        "on less or more of it"
    ]
