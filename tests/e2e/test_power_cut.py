"""Power is lost at any moment: a load case that is marked done has all its files, whole and right.

The operations of real runs are replayed on a simulated disk that may have lost whatever wasn't
synced. All that it can have lost is gone through, at every operation.
"""

from __future__ import annotations

import shutil
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import pytest
from disk import Disk, after_power_cut, holding, possible, replay
from interference import (
    DONE,
    PREPARED,
    Operation,
    flags_of,
    linked,
    prepared,
    recorded,
    rerun,
    results,
)
from models import STEEL, pulled, written
from runs import lcflags, solves

from vkctl.directory.model import Model
from vkctl.shapes.boxes import box

FLAGS = "mxs.lcflags"


@dataclass(frozen=True)
class Recording:
    """A run's operations, and what its files are called and hold when it has ended."""

    first: Path
    operations: list[Operation]
    flags: str  # where the flags really lie
    results: dict[int, dict[str, bytes]]  # by load case: name, content


def recording(first: Path, preload: str, folder: Path) -> Recording:
    directory = folder / "recorded"
    shutil.copytree(first, directory, symlinks=True)
    operations = recorded(directory, preload, folder / "operations")

    def place(name: str) -> str:
        return str(Path(directory, name).resolve().relative_to(directory.resolve()))

    found: dict[int, dict[str, bytes]] = {}
    for name, content in results(directory).items():
        found.setdefault(int(name[-4:]), {})[place(name)] = content
    return Recording(first, operations, place(FLAGS), found)


def marked(content: bytes) -> set[int]:
    return {number for number, flag in enumerate(flags_of(content), 1) if flag & 2}


def faults(case: Recording, operations: list[Operation]) -> Iterator[str]:
    """What may be wrong after a loss of power, at every operation."""
    disk = holding(case.first)
    versions = {disk.seen[case.flags].content}
    announced: set[int] = set()
    for step, operation in enumerate(replay(disk, operations)):
        if operation.call == "rename" and operation.other == case.flags:
            versions.add(disk.seen[case.flags].content)
        if b"LCaseTime" in operation.content:
            announced = marked(disk.seen[case.flags].content)
        for content in possible(disk, case.flags):
            if content not in versions:
                yield f"{step}: flags torn or lost"
            elif not announced <= marked(content):
                yield f"{step}: an announced mark lost"
            else:
                yield from (f"{step}: {text}" for text in lost(disk, case, marked(content)))


def lost(disk: Disk, case: Recording, done: set[int]) -> Iterator[str]:
    for number in done:
        for name, content in case.results[number].items():
            if possible(disk, name) != {content}:
                yield f"{name} lost or torn, marked done"


@pytest.mark.parametrize("prepare", PREPARED)
def test_a_load_case_that_is_marked_done_has_its_files_after_a_loss_of_power(
    tmp_path, preload, prepare
):
    case = recording(prepare(tmp_path), preload, tmp_path)
    assert list(faults(case, case.operations)) == []


def test_many_load_cases_keep_what_they_are_marked_for(tmp_path, preload):
    case = recording(larger(tmp_path), preload, tmp_path)
    assert len(case.results) == 7
    assert list(faults(case, case.operations)) == []


def larger(directory: Path) -> Path:
    """Seven load cases of three patterns, run backwards."""
    mesh = box("tet10", (2, 1, 1))
    model = Model(mesh.nodes, mesh.elements, [STEEL])
    model.run_order = np.arange(7, 0, -1)
    cases = [pulled(mesh, 1 + number // 3, (1.0, number, 0.0)) for number in range(7)]
    options = {"Sys_ComputationMode": 1, "Sys_MaxNumCompThreads": 1}
    return written(directory / "first", model, *cases, **options)


def without(operations: list[Operation], call: str, which: slice = slice(None)) -> list[Operation]:
    """Operations without some of this call."""
    places = [i for i, operation in enumerate(operations) if operation.call == call][which]
    assert places
    return [operation for i, operation in enumerate(operations) if i not in places]


@pytest.mark.parametrize(
    ("call", "which", "fault"),
    [
        ("fsync", slice(None), "lost or torn, marked done"),
        ("fsync", slice(0, None, 2), "lost or torn, marked done"),  # those before the flags
        ("fsync", slice(1, None, 2), "an announced mark lost"),  # those behind
        ("fdatasync", slice(None), "lost or torn, marked done"),
        ("fdatasync", slice(0, 1), "lost or torn, marked done"),
        ("fdatasync", slice(-1, None), "flags torn or lost"),
    ],
)
def test_without_one_of_the_syncs_the_simulated_disk_loses_something(
    tmp_path, preload, call, which, fault
):
    case = recording(rerun(tmp_path), preload, tmp_path)
    found = list(faults(case, without(case.operations, call, which)))
    assert any(fault in text for text in found), found[:3]


def test_a_linked_file_is_kept_by_the_sync_of_its_own_folder(tmp_path, preload):
    case = recording(linked(tmp_path), preload, tmp_path)
    folders = {operation.name for operation in case.operations if operation.call == "fsync"}
    assert folders == {".", "inner/"}
    elsewhere = [o for o in case.operations if (o.call, o.name) != ("fsync", "inner/")]
    assert list(faults(case, elsewhere)) != []


@pytest.mark.parametrize("prepare", PREPARED)
def test_what_a_loss_of_power_leaves_is_finished_by_another_run(tmp_path, preload, prepare):
    case = prepared(tmp_path, prepare)
    record = recording(case.first, preload, tmp_path)
    random = np.random.default_rng(7)
    directory = tmp_path / "left"
    for place in random.choice(len(record.operations), 12, replace=False):
        disk = holding(case.first)
        for _ in zip(range(place), replay(disk, record.operations), strict=False):
            pass
        shutil.copytree(case.first, directory, symlinks=True)
        for path in directory.rglob("*"):
            if path.is_file() and not path.is_symlink():
                path.unlink()
        for name, content in after_power_cut(disk, random).items():
            Path(directory, name).write_bytes(content)
        solves(directory)
        assert lcflags(directory)[0] == [DONE, DONE]
        shutil.rmtree(directory)
