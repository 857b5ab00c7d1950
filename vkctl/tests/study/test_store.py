"""Meshes kept in files, for the variants that share them."""

from __future__ import annotations

import threading
from pathlib import Path

import numpy as np
import pytest

from vkctl.prepare import build_model, read_cases
from vkctl.prepare.part import Reading
from vkctl.study import store
from vkctl.study.store import MeshedPart, load, made, save, taken_or_made

CASES = """
part = "part.msh"

[materials.steel]
E = 1.0
nu = 0.3

[supports.clamp]
set = "left"
"""


@pytest.fixture
def cases(curved: Path, tmp_path: Path) -> Path:
    path = tmp_path / "cases.toml"
    path.write_text(CASES.replace("part.msh", str(curved / "part.msh")))
    return path


def equal(one: MeshedPart, other: MeshedPart) -> bool:
    """Whether all of two meshes is the same."""

    def same(a: object, b: object) -> bool:
        if isinstance(a, np.ndarray):
            return isinstance(b, np.ndarray) and a.dtype == b.dtype and np.array_equal(a, b)
        if isinstance(a, dict):
            return isinstance(b, dict) and list(a) == list(b) and all(same(a[k], b[k]) for k in a)
        if isinstance(a, list):
            return isinstance(b, list) and len(a) == len(b) and all(map(same, a, b))
        if hasattr(a, "__dict__"):
            return same(vars(a), vars(b))
        return a == b

    return same(vars(one), vars(other))


def test_a_mesh_comes_back_from_its_file_as_it_was(cases: Path, tmp_path: Path) -> None:
    part = made(read_cases(cases), Reading())
    assert part.mesh.surfaces["left"] and part.mesh.element_sets["body"].size
    save(part, tmp_path / "mesh.npz")
    found = load(tmp_path / "mesh.npz")
    assert found is not None and equal(part, found)
    model = build_model(found.mesh, read_cases(cases)).model
    assert len(model.load_cases[0].constraints) > 0


def test_a_mesh_is_made_once_by_those_that_ask_together(
    cases: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    counted = []

    def counting(*arguments):
        counted.append(1)
        return made(*arguments)

    monkeypatch.setattr(store, "made", counting)

    def ask() -> None:
        taken_or_made(tmp_path / "mesh.npz", read_cases(cases), Reading())

    threads = [threading.Thread(target=ask) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(counted) == 1


def test_a_damaged_file_is_made_anew(cases: Path, tmp_path: Path) -> None:
    path = tmp_path / "mesh.npz"
    whole = taken_or_made(path, read_cases(cases), Reading())
    content = path.read_bytes()
    for size in (0, 10, len(content) // 2, len(content) - 1):
        path.write_bytes(content[:size])
        assert load(path) is None
        assert equal(taken_or_made(path, read_cases(cases), Reading()), whole)
        assert path.read_bytes() == content
