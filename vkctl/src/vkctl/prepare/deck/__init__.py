"""Case files from input decks: their materials, supports, loads and steps."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory.formats import replacing

from ..mesh import refuse_unsupported
from ..part import MeshOptions, Part, PartError, Reading
from ..readers.registry import read_part
from .read import read_story
from .report import DeckError, Report
from .targets import Targets
from .write import case_text

__all__ = ["DeckError", "Imported", "case_of", "import_deck"]


@dataclass
class Imported:
    """What came of a deck: tables by kind, and what its case file doesn't hold."""

    counts: dict[str, int]
    untaken: list[str]
    outputs: list[str]  # keywords that ask for output
    notes: list[str]  # of the mesh


def import_deck(
    deck: PathLike, cases: PathLike, reading: Reading | None = None, split: bool = False
) -> Imported:
    """Write a case file with what an Abaqus or CalculiX deck says beside its mesh.

    With `split` it has all cells of the mesh split into 4-node tetrahedra.

    DeckError tells the lines that can't be understood, PartError a mesh that can't be read,
    FileExistsError a case file that is there already. Nothing is written then.
    """
    if Path(deck).suffix.lower() != ".inp":
        raise PartError(f"{os.fspath(deck)}: isn't a deck: its name ends in .inp")
    if os.path.lexists(cases):
        raise FileExistsError(17, "is there already: remove it or choose another name", cases)
    known = reading or Reading()
    part = read_part(
        deck,
        MeshOptions(split=split),
        Reading(known.trust_scripts, known.limits, known.tell, conditions=True),
    )
    beside = os.path.relpath(Path(deck).absolute(), Path(cases).absolute().parent)
    text, made = case_of(part, os.fspath(deck), beside, split)
    with replacing(cases) as stream:
        stream.write(text.encode("utf-8"))
    return made


def case_of(part: Part, title: str, beside: str, split: bool = False) -> tuple[str, Imported]:
    """Text of the case file for a part read with its conditions; `beside` is what it calls it."""
    refuse_unsupported(part)
    report, targets = Report(), Targets(part)
    story = read_story(part, targets, report)
    report.finish()
    text, counts = case_text(beside, Path(title).name, story, targets, report, split)
    if not story.steps:
        report.untaken[f"{title}: no static *STEP, so all loads make one load case"] = None
    notes = [note for note in part.notes if not note.startswith("passed over")]
    return text, Imported(counts, list(report.untaken), list(report.outputs), notes)
