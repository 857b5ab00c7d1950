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
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from vkctl.basics.types import PathLike
from vkctl.basics.words import counted
from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.directory.formats import file_names
from vkctl.directory.model import Model
from vkctl.prepare.build import Prepared, build_model, put
from vkctl.prepare.case_file.entries import Cases
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.mesh import PartMesh, make_mesh
from vkctl.prepare.part import MeshOptions, PartError, Reading
from vkctl.prepare.readers.registry import mesh_within
from vkctl.running.progress import Progress
from vkctl.running.run import find_vk_rund, run
from vkctl.view.part_file import PartSurface, part_of, write_part

from . import history
from .begun import cases_digest
from .body_compared import BodyError, Verified, compare
from .body_limits import sets_of
from .body_sets import labelled_entries, leave_needed
from .design import reach_of
from .limits.settings import Limit
from .settings import read_settings

__all__ = ["BodyError", "Verified", "smooth_part", "verify_part"]

TOLERANCE = 0.03
SURFACE = "part.stl"  # beside the body's own files


@dataclass(frozen=True)
class Body:
    """A part's body in its folder, as long as that is there."""

    folder: Path
    original: Model  # of the part
    prepared: Prepared  # the body's own
    numbers: list[int]  # of the load cases that count; all if none
    limits: tuple[Limit, ...]  # that can be looked at on it
    reach: float  # from sets, within which stresses aren't looked at where a limit says no distance


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
    if not 0 <= tolerance < np.inf:
        raise BodyError(f"a tolerance of {tolerance:g} is no share")
    with solved_body(
        directory,
        cases,
        size=size,
        order=order,
        keep=keep,
        vk_rund=vk_rund,
        reading=reading,
        on_progress=on_progress,
    ) as body:
        return compare(
            Path(directory),
            body.original,
            body.folder,
            body.prepared,
            body.numbers,
            tolerance,
            body.folder if keep else None,
            body.limits,
            body.reach,
        )


@contextmanager
def solved_body(
    directory: PathLike,
    cases: PathLike | None = None,
    *,
    size: float | None = None,
    order: int = 2,
    keep: PathLike | None = None,
    vk_rund: PathLike | None = None,
    reading: Reading | None = None,
    on_progress: Callable[[Progress], None] | None = None,
) -> Iterator[Body]:
    """The body of a part, meshed and solved, with what `verify_part` is given and raises."""
    place = Path(directory)
    if size is not None and not 0 < size < np.inf:
        raise BodyError(f"a size of {size:g} is no length")
    if order not in (1, 2):
        raise BodyError(f"the order must be 1 or 2, not {order}")
    find_vk_rund(vk_rund)
    numbers, known = _inputs(place, None if cases is None else Path(cases))
    original, settings = model.read(place), read_settings(known.path)
    reach = reach_of(original, settings.radius, settings.wishes.sizes)
    if len(known.load_cases) != len(original.load_cases):
        theirs = counted(len(known.load_cases), "load case")
        raise BodyError(f"{known.path} has {theirs}, {place} has {len(original.load_cases)}")
    with _folder(place, keep) as folder:
        surface = smooth_part(place)
        write_part(surface, folder / SURFACE, place)
        options = MeshOptions(size=size, order=order)
        prepared, limits = _prepared(folder / SURFACE, known, options, reading, settings.limits)
        put(prepared, folder)
        _solve(folder, known, vk_rund, on_progress)
        yield Body(folder, original, prepared, numbers, limits, reach)


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
    surface: Path,
    known: Cases,
    options: MeshOptions,
    reading: Reading | None,
    limits: tuple[Limit, ...],
) -> tuple[Prepared, tuple[Limit, ...]]:
    """The body's model, and the limits that can be looked at on it: all, or none."""
    _take_needed(read_cases(known.path), set())  # before it is meshed, which may take long
    try:
        mesh = make_mesh(mesh_within(surface, options, reading))
    except PartError as error:
        why = str(error).removeprefix(f"{surface}: ")
        raise PartError(f"the part's surface can't be meshed as a body: {why}") from None
    try:
        return _built(mesh, known, sets_of(limits)), limits
    except BodyError as error:
        prepared = _built(mesh, read_cases(known.path), set())
        said = str(error).split("\n")[0]
        prepared.notes.append(f"the limits can't be looked at on the body: {said}")
        return prepared, ()


def _built(mesh: PartMesh, known: Cases, also: set[str]) -> Prepared:
    """With the sets that load cases need and those of `also`."""
    _take_needed(known, also)
    try:
        return build_model(mesh, known)
    except CaseFileError as error:
        raise BodyError(
            f"{error}\nThe body has a mesh of its own: its sets have to be found by their place "
            "('where', 'plane', 'box', ... in the case file), not by names of the part's file."
        ) from None


def _take_needed(known: Cases, also: set[str]) -> None:
    """Leave what makes the body: all of it is material, and nothing is left out."""
    known.level, known.exclude, known.ignore_level = None, (), ()
    leave_needed(known, also)
    if labelled := labelled_entries(known):
        raise BodyError(
            f"{known.path}: {labelled[0]} has labels of the part's file, which are others "
            "in the body: say by its place what it is"
        )


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
        loose = [one.message for one in check(folder).findings if one.code == "rigid-body"]
        why = loose or [outcome.advice.sentence]
        raise BodyError("\n".join(("the body can't be solved: " + why[0], *why[1:])), outcome)
