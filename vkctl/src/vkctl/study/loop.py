"""A study from its beginning to its end, resumable after a kill at any moment.

A variant counts as done when its line stands in the journal, which comes after everything else of
it. So a study that is started again does those that have no line, each from where its directory
stands.
"""

from __future__ import annotations

import copy
import tempfile
import time
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from contextlib import AbstractContextManager
from dataclasses import dataclass, field
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.formats import FormatError
from vkctl.prepare.part import Reading
from vkctl.running.run import find_vk_rund

from . import journal, keys
from .begin import Begun, begin
from .entries import Keep, StudyFile
from .inputs import absolute_part, digests, mesh_digest
from .journal import Plan
from .keeping import kept_after
from .local import solved_here
from .read import read_study
from .read_wanted import columns_of
from .shares import Shares, shares
from .tables import Row, rows_of, write_csv
from .variants import variants_of
from .work import Outcome, Task, remove

_WRITE_EVERY = 5.0  # seconds between two writings of the table
OVERHEAD = 0.2  # seconds that a variant takes beside the solver, measured on a small part

Dispatch = Callable[[Sequence[Task], int], AbstractContextManager[Iterator[Outcome | None]]]


class StudyError(Exception):
    """A study can't begin or go on; the message says why. What was finished stays."""


@dataclass
class Progress:
    """How far a study is; `latest` is the variant that has just ended, if one has."""

    count: int
    jobs: int  # at a time on this machine; 0 where others make them
    statuses: Counter[str] = field(default_factory=Counter)
    elapsed: float = 0.0  # seconds since it was started, or started again
    remaining: float | None = None  # seconds, an estimate
    latest: Outcome | None = None

    @property
    def finished(self) -> int:
        return self.statuses.total()


@dataclass
class Studied:
    """The end of a study."""

    out: Path
    plan: Plan
    rows: list[Row]

    @property
    def status(self) -> int:
        """0 where every variant is done, else 1."""
        return 0 if all(row["status"] == "done" for row in self.rows) else 1


@dataclass(frozen=True)
class Planned:
    """What `--dry-run` tells."""

    study: StudyFile
    count: int
    finished: int  # variants that are done already
    begun: Begun
    shares: Shares

    @property
    def seconds(self) -> float | None:
        """For all that isn't finished, an estimate."""
        one = self.begun.estimate.get("seconds")
        rounds = -(-(self.count - self.finished) // self.shares.jobs)
        return None if one is None else rounds * (one + OVERHEAD)


def study(
    path: PathLike,
    out: PathLike,
    *,
    jobs: int | None = None,
    threads: int | None = None,
    again: bool = False,
    retry: bool = False,
    vk_rund: PathLike | None = None,
    reading: Reading | None = None,
    dispatch: Dispatch | None = None,
    on_progress: Callable[[Progress], None] | None = None,
) -> Studied:
    """Make the variants of a study file in the folder `out`; called again, it goes on.

    `jobs` variants at a time, each on `threads` threads; without them as many as processors and
    memory allow. `dispatch` hands them to other machines instead (`remote.dispatch_on`). `again`
    begins anew, `retry` repeats what isn't done well. Raises CaseFileError and PartError for
    mistakes in the inputs, StudyError where the folder is another study's, NotFoundError where
    there is no solver.
    """
    program = find_vk_rund(vk_rund)
    said, folder, how = read_study(path), Path(out), reading or Reading()
    inputs = digests(said)
    before = _standing(folder, inputs, again)
    with tempfile.TemporaryDirectory(prefix="vkctl-") as temporary:
        plan, start = before, None
        if plan is None:
            columns = columns_of(said.wanted, said.load_cases)
            variants = variants_of(said)
            start = begin(said, how, Path(temporary), threads)
            plan = Plan(inputs, variants, columns, start.memory_gb)
        try:
            with journal.locked(folder):
                if start is not None:
                    _lay_out(folder, plan, start)
                outcomes = _taken_up(folder, plan, retry)
                share = shares(jobs, threads, len(plan.variants) - len(outcomes), plan.memory_gb)
                tasks = _tasks(said, plan, folder, outcomes, share.threads, program, how)
                jobs_here = share.jobs if dispatch is None else 0
                hand_out = dispatch or solved_here
                _make(folder, plan, said.keep, outcomes, hand_out, tasks, jobs_here, on_progress)
                remove(folder / journal.MESHES)
                return Studied(folder, plan, rows_of(plan, outcomes))
        except journal.LockedError as error:
            raise StudyError(str(error)) from None


def planned(
    path: PathLike,
    out: PathLike,
    *,
    jobs: int | None = None,
    threads: int | None = None,
    again: bool = False,
    reading: Reading | None = None,
) -> Planned:
    """What a study would do, nothing written; errors as of `study`."""
    said, folder = read_study(path), Path(out)
    before = _standing(folder, digests(said), again)
    count = len(variants_of(said) if before is None else before.variants)
    finished = 0 if before is None else len(journal.read_journal(folder))
    with tempfile.TemporaryDirectory(prefix="vkctl-") as temporary:
        start = begin(said, reading or Reading(), Path(temporary), threads or 1)
    share = shares(jobs, threads, count - finished, start.memory_gb)
    return Planned(said, count, finished, start, share)


def _standing(folder: Path, inputs: dict[str, str], again: bool) -> Plan | None:
    """The plan of the study that the folder holds, None where one is to begin.

    StudyError where it is another study's, or something else.
    """
    if folder.exists() and not folder.is_dir():
        raise StudyError(f"{folder} is a file; name a folder for the study")
    before = journal.read_plan(folder)
    if before is None:
        if folder.is_dir() and any(not p.name.startswith(".") for p in folder.iterdir()):
            raise StudyError(f"{folder} isn't empty and holds no study: name another folder")
        return None
    if again:
        return None
    changed = [
        name for name in before.inputs | inputs if inputs.get(name) != before.inputs.get(name)
    ]
    if changed:
        raise StudyError(
            f"{' and '.join(changed)} changed since the study in {folder} began: take that back, "
            "name another folder, or begin anew with --again, which removes what is there"
        )
    return before


def _lay_out(folder: Path, plan: Plan, start: Begun) -> None:
    """A folder in which nothing is done yet; of an earlier study the journal goes first."""
    (folder / journal.JOURNAL).unlink(missing_ok=True)
    for path in folder.glob("results.*"):
        path.unlink(missing_ok=True)
    for name in (journal.VARIANTS, journal.MESHES):
        remove(folder / name)
    journal.write_plan(folder, plan)
    (folder / journal.MESHES).mkdir()
    formats.write_parts(_mesh_file(folder, start.digest), [start.mesh.read_bytes()])


def _mesh_file(folder: Path, digest: str) -> Path:
    return (folder / journal.MESHES / f"{digest}.npz").absolute()


def _taken_up(folder: Path, plan: Plan, retry: bool) -> dict[int, Outcome]:
    """Finished variants by number; what isn't to count any more is removed."""
    journal.cut_unfinished(folder)
    outcomes = journal.read_journal(folder)
    count = len(plan.variants)
    if outcomes and max(outcomes) > count:
        path = folder / journal.JOURNAL
        raise FormatError(path, f"it tells variant {max(outcomes)} of {count}")
    if retry:
        failed = [number for number, one in outcomes.items() if one.status != "done"]
        for number in failed:
            remove(journal.directory_of(folder, number, count))
            del outcomes[number]
        journal.write_journal(folder, outcomes.values())
    return outcomes


def _tasks(
    said: StudyFile,
    plan: Plan,
    folder: Path,
    outcomes: dict[int, Outcome],
    threads: int,
    program: Path,
    reading: Reading,
) -> list[Task]:
    """The variants that aren't finished, with their case files."""
    count = len(plan.variants)
    places = {parameter.name: parameter.places for parameter in said.parameters}
    cases, digest = [], []
    for variant in plan.variants:
        case = copy.deepcopy(said.said)
        for name, value in variant.items():
            for place in places[name]:
                keys.put(case, place, value)
        absolute_part(case, said.cases)
        cases.append(case)
        digest.append(mesh_digest(case))
    (folder / journal.MESHES).mkdir(exist_ok=True)
    shared = {one for one, times in Counter(digest).items() if one and times > 1}
    return [
        Task(
            number,
            case,
            str(journal.directory_of(folder, number, count).absolute()),
            said.deed,
            said.mode,
            said.tolerance,
            threads,
            tuple(said.wanted),
            tuple(plan.columns),
            str(_mesh_file(folder, one)) if one in shared else "",
            plan.memory_gb or 0.0,
            str(program),
            reading.trust_scripts,
            reading.limits,
        )
        for number, (case, one) in enumerate(zip(cases, digest, strict=True), 1)
        if number not in outcomes
    ]


def _make(
    folder: Path,
    plan: Plan,
    keep: Keep,
    outcomes: dict[int, Outcome],
    dispatch: Dispatch,
    tasks: list[Task],
    jobs: int,
    on_progress: Callable[[Progress], None] | None,
) -> None:
    """Have the tasks done; each outcome goes into the journal, then into the table."""
    count = len(plan.variants)
    progress = Progress(count, jobs, Counter(one.status for one in outcomes.values()))
    kept: list[Outcome] = []
    for one in outcomes.values():
        kept = _keep(folder, keep, kept, one, count)
    start = written = time.monotonic()
    before = len(outcomes)
    try:
        with dispatch(tasks, jobs) as coming:
            for outcome in coming:
                now = time.monotonic()
                if outcome is not None and outcome.number not in outcomes:
                    journal.add_to_journal(folder, outcome)
                    outcomes[outcome.number] = outcome
                    progress.statuses[outcome.status] += 1
                    kept = _keep(folder, keep, kept, outcome, count)
                if now - written > _WRITE_EVERY:
                    write_csv(folder, plan, rows_of(plan, outcomes))
                    written = now
                progress.elapsed, progress.latest = now - start, outcome
                if made := len(outcomes) - before:
                    progress.remaining = progress.elapsed / made * (count - len(outcomes))
                if on_progress is not None:
                    on_progress(progress)
    finally:
        write_csv(folder, plan, rows_of(plan, outcomes))


def _keep(
    folder: Path, keep: Keep, kept: list[Outcome], outcome: Outcome, count: int
) -> list[Outcome]:
    """The variants whose directories stay, and those of the others removed."""
    after = kept_after(keep, kept, outcome)
    for one in (*kept, outcome):
        if one not in after:
            remove(journal.directory_of(folder, one.number, count))
    return after
