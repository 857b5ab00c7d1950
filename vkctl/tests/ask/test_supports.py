"""Which records belong to which support of a case file, told from the records alone."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from box_parts import part_of
from new_parts import case_file

from vkctl.ask.supports import holders
from vkctl.directory.model import Model
from vkctl.prepare import build_model, make_mesh, read_cases
from vkctl.shapes.boxes import Box, box

MATERIAL = "[materials.steel]\nE = 1000.0\nnu = 0.3\n"
LOAD = '[loads.push]\ntype = "pressure"\nset = "z+"\nvalue = 1\n'
SUPPORTS = {
    "plane x": 'type = "symmetry"\nset = "x-"',
    "plane y": 'type = "symmetry"\nset = "y-"',
    "corner": 'type = "frictionless"\nset = ["x-", "z-"]',
    "far": 'type = "frictionless"\nset = ["x+", "y+"]',
    "floor": 'set = "z-"\ndirections = "z"',
    "wall": 'set = "y+"',
    "springs": 'type = "elastic"\nset = ["x+", "z-"]\nstiffness = 3',
    "moved": 'type = "prescribed"\nset = "x+"\nvalue = [0.1, 0, 0]',
    "all": 'type = "elastic"\nset = "all"\nstiffness = 1',
}


def model_with(part: Box, names: tuple[str, ...], folder: Path) -> Model:
    supports = "".join(f'[supports."{name}"]\n{SUPPORTS[name]}\n' for name in names)
    cases = read_cases(case_file(folder, LOAD + supports, MATERIAL))
    return build_model(make_mesh(part_of(part)), cases).model


@pytest.mark.parametrize("degrees", (0, 30))
@pytest.mark.parametrize(
    "names",
    [
        ("plane x", "plane y", "floor"),
        ("plane y", "plane x"),
        ("plane x", "corner", "plane y"),
        ("corner", "far"),
        ("far", "corner", "springs"),
        ("springs", "wall", "far", "moved"),
        ("floor", "all", "plane x"),
        ("all", "corner", "far"),
    ],
)
def test_each_record_is_its_supports(tmp_path: Path, degrees: int, names: tuple[str, ...]) -> None:
    c, s = np.cos(np.radians(degrees)), np.sin(np.radians(degrees))
    part = box("hex8", (3, 2, 2), mapping=lambda p: p @ [(c, s, 0), (-s, c, 0), (0, 0, 1)])
    alone = [
        len(model_with(part, (name,), tmp_path / str(k)).load_cases[0].constraints)
        for k, name in enumerate(names)
    ]
    found = holders(model_with(part, names, tmp_path / "together"), 1)
    rows = {
        name: np.concatenate([np.empty(0, int), *(one.rows for one in found if one.name == name)])
        for name in names
    }
    assert [len(rows[name]) for name in names] == alone
    every = np.concatenate([np.sort(rows[name]) for name in names])
    assert np.array_equal(every, np.arange(sum(alone)))


def test_records_that_were_changed_are_nobodys(tmp_path: Path) -> None:
    part = box("hex8", (3, 2, 2))
    for names in (("plane x", "floor"), ("wall", "moved")):
        model = model_with(part, names, tmp_path / names[0])
        assert {one.name for one in holders(model, 1)} == set(names)
        model.load_cases[0].constraints = model.load_cases[0].constraints[1:]
        assert not {one.name for one in holders(model, 1)} & set(names)
