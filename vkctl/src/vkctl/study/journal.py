"""What a study leaves in its folder: its plan, the journal of finished variants, the tables.

The plan is written once, before anything begins. The journal grows by a line for each variant that
has come to its end; a last line without an end was being written when the study was killed, and its
variant is done again. Everything else follows from the two.
"""

from __future__ import annotations

import json
import os
import shutil
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any

from vkctl.basics.types import PathLike
from vkctl.directory import formats, lock

from .entries import Scalar
from .work import GONE, Outcome

PLAN = "study.json"
JOURNAL = "journal.jsonl"
VARIANTS = "variants"  # folder of their directories
MESHES = "meshes"
_STATUSES = ("done", "unsettled", "failed")


@dataclass(frozen=True)
class Plan:
    """What is to be done, fixed when a study begins."""

    inputs: dict[str, str]  # digest by what it is called
    variants: list[dict[str, Scalar]]  # number 1 first
    columns: list[str]  # of the results
    memory_gb: float | None = None  # of a variant, an estimate


class LockedError(Exception):
    """Another process works on the study."""


@contextmanager
def locked(out: Path) -> Iterator[None]:
    """Keep other processes off a study's folder, made if missing."""
    out.mkdir(parents=True, exist_ok=True)
    try:
        with lock.holding(out, again=False):
            for unfinished in out.glob(".*.tmp"):  # a killed process was writing them
                unfinished.unlink(missing_ok=True)
            for folder in (out, out / VARIANTS):
                for gone in folder.glob(f".*{GONE}"):
                    shutil.rmtree(gone, ignore_errors=True)
            yield
    except lock.BusyError as error:
        who = "" if error.pid is None else f" (process {error.pid})"
        raise LockedError(f"another study works on {out}{who}") from None


def write_plan(out: Path, plan: Plan) -> None:
    formats.write_parts(out / PLAN, [json.dumps(asdict(plan)).encode()])


def read_plan(out: PathLike) -> Plan | None:
    """The plan of a study that was begun, or None; FormatError where it is damaged."""
    path = Path(out, PLAN)
    try:
        said = json.loads(formats.read_regular(path).decode())
        return _plan(said)
    except FileNotFoundError:
        return None
    except (ValueError, TypeError, KeyError, RecursionError):
        raise formats.FormatError(path, "it holds no plan of a study") from None


def _plan(said: dict[str, Any]) -> Plan:
    """From what was written; ValueError, TypeError or KeyError for anything else."""
    memory = said["memory_gb"]
    plan = Plan(
        dict(said["inputs"]),
        [dict(one) for one in said["variants"]],
        [str(one) for one in said["columns"]],
        None if memory is None else float(memory),
    )
    if not plan.variants or any(set(one) != set(plan.variants[0]) for one in plan.variants):
        raise ValueError
    return plan


def read_journal(out: PathLike) -> dict[int, Outcome]:
    """Finished variants by number; FormatError where the journal is damaged."""
    path = Path(out, JOURNAL)
    try:
        lines = formats.read_regular(path).split(b"\n")[:-1]  # what comes last has no end
    except FileNotFoundError:
        return {}
    found: dict[int, Outcome] = {}
    for number, line in enumerate(lines, 1):
        try:
            outcome = _outcome(json.loads(line))
        except (ValueError, TypeError, RecursionError):
            raise formats.FormatError(path, f"line {number} tells no finished variant") from None
        if outcome.number in found:
            raise formats.FormatError(path, f"it tells variant {outcome.number} twice")
        found[outcome.number] = outcome
    return found


def _outcome(said: dict[str, Any]) -> Outcome:
    outcome = Outcome(**said)
    numbers = [v for v in outcome.values.values() if v is not None]
    if (
        type(outcome.number) is not int
        or outcome.number < 1
        or outcome.status not in _STATUSES
        or not all(isinstance(v, int | float) for v in [*numbers, outcome.seconds])
        or not isinstance(outcome.message, str)
    ):
        raise ValueError
    return outcome


def write_journal(out: Path, outcomes: Iterable[Outcome]) -> None:
    """Replace the journal as a whole."""
    formats.write_parts(out / JOURNAL, [_line(outcome) for outcome in outcomes])


def add_to_journal(out: Path, outcome: Outcome) -> None:
    """Add a variant's line and bring it to the disk."""
    with open(out / JOURNAL, "ab") as stream:
        stream.write(_line(outcome))
        stream.flush()
        os.fsync(stream.fileno())


def cut_unfinished(out: Path) -> None:
    """Cut off a last line that was being written when the study was killed."""
    path = out / JOURNAL
    if not path.exists():
        return
    with open(path, "r+b") as stream:
        whole = stream.read()
        end = whole.rfind(b"\n") + 1
        if end < len(whole):
            stream.truncate(end)


def _line(outcome: Outcome) -> bytes:
    return json.dumps(asdict(outcome)).encode() + b"\n"


def directory_of(out: Path, number: int, count: int) -> Path:
    """Directory of a variant; as many digits as the last one needs, four at least."""
    return out / VARIANTS / f"{number:0{max(4, len(str(count)))}d}"
