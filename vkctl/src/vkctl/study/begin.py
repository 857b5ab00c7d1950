"""The case file as it is, prepared once before a study begins: what would fail in every variant is
told then, and size and time follow from it."""

from __future__ import annotations

import copy
import os
from dataclasses import dataclass, field
from pathlib import Path

from vkctl.check.estimates import estimate
from vkctl.check.inputs import read_inputs
from vkctl.directory import model
from vkctl.optimise.settings import read_settings
from vkctl.prepare.build import Prepared
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.case_file.toml_table import load
from vkctl.prepare.part import Reading
from vkctl.running.run import set_run_options

from .entries import StudyFile
from .inputs import absolute_part, mesh_digest
from .work import built

_MESH = "mesh.npz"
_RESULT_BYTES = 24  # of a node in each load case: displacement, magnitude, stress, criterion


@dataclass
class Begun:
    """What the case file itself tells."""

    folder: Path
    digest: str  # of its mesh
    size_gb: float  # of a solved directory
    nodes: int
    elements: int
    estimate: dict[str, float] = field(default_factory=dict)  # as of `vkctl check`, of one variant

    @property
    def memory_gb(self) -> float | None:
        return self.estimate.get("memory_gb")

    @property
    def mesh(self) -> Path:
        return self.folder / _MESH


def begin(study: StudyFile, reading: Reading, folder: Path, threads: int | None) -> Begun:
    """Prepare the case file in an empty folder.

    CaseFileError where a set that is to be reported isn't there, and as of `new`.
    """
    cases = read_cases(study.cases)
    prepared, structure = built(cases, str(folder / _MESH), reading)
    _check_sets(study, prepared)
    directory = folder / "base"
    model.write(prepared.model, directory, structure)
    set_run_options(directory, threads, study.mode)
    inputs, _ = read_inputs(directory)
    nodes, elements = len(prepared.model.nodes), len(prepared.model.elements)
    size = sum(entry.stat().st_size for entry in os.scandir(directory))
    size += _RESULT_BYTES * nodes * len(study.load_cases)
    found = estimate(inputs)
    if study.deed == "optimise" and found:
        found["seconds"] *= read_settings(study.cases).steps
    case = copy.deepcopy(study.said)
    absolute_part(case, study.cases)
    return Begun(folder, mesh_digest(case), size / 2**30, nodes, elements, found)


def _check_sets(study: StudyFile, prepared: Prepared) -> None:
    """CaseFileError, with the lines of the study file, for sets that aren't there or are empty."""
    _, report = load(study.path)
    found = prepared.sets.report.problems
    for one in study.wanted:
        if one.set is not None:
            before = len(found)
            prepared.sets.nodes(one.set, ())
            for problem in found[before:]:
                report.add((*one.where, "set"), problem.text, problem.suggestion)
    report.finish()
