"""The table of what limits come to on a part's body."""

from __future__ import annotations

import math
from dataclasses import replace
from pathlib import Path

import pytest

from vkctl.directory import formats
from vkctl.optimise import history
from vkctl.optimise.limits.on_body import TABLE, OnBody, read_on_body, write_on_body

ONE = OnBody(7, 'stress in "up", twice', 61.5, 60.0, 1.0, -2.5, 1 / 3)
OTHER = OnBody(8, "compliance in up", 1.0, 2.0, math.nan, math.nan, math.nan)


def test_the_table_gives_back_what_was_written_step_by_step(tmp_path: Path) -> None:
    history.folder_of(tmp_path).mkdir()
    assert read_on_body(tmp_path, 1, 99) == []
    write_on_body(tmp_path, [ONE, OTHER])
    found = read_on_body(tmp_path, 1, 99)
    assert found[0] == ONE and repr(found[1]) == repr(OTHER)
    assert read_on_body(tmp_path, 1, 8) == [ONE] and read_on_body(tmp_path, 9, 99) == []


@pytest.mark.parametrize(
    "damage",
    [
        b"step,term\n1,a\n",
        b"step,term,value,at_most,x,y,z\n1,a,b,1,0,0,0\n",
        b"step,term,value,at_most,x,y,z\n1,a,1,0,0,0,0\n",
        b"step,term,value,at_most,x,y,z\n1,a,1,nan,0,0,0\n",
        b"\xff\xfe",
    ],
)
def test_a_damaged_table_is_refused(tmp_path: Path, damage: bytes) -> None:
    history.folder_of(tmp_path).mkdir()
    (history.folder_of(tmp_path) / TABLE).write_bytes(damage)
    with pytest.raises(formats.FormatError, match="no table of limits on a body"):
        read_on_body(tmp_path, 1, 99)


def test_a_limit_is_told_with_its_place_where_it_is_broken() -> None:
    text = 'as a body, stress in "up", twice: 61.5 of at most 60 at (1, -2.5, 0.3333)'
    assert not ONE.held and ONE.told() == f"{text}: the limit isn't met"
    assert OTHER.held and OTHER.told() == "as a body, compliance in up: 1 of at most 2"
    broken = replace(OTHER, value=3.0)
    assert broken.told() == "as a body, compliance in up: 3 of at most 2: the limit isn't met"


def test_half_a_percent_above_is_held_and_no_number_is_not() -> None:
    assert replace(ONE, value=60.29).held and not replace(ONE, value=60.31).held
    nothing = replace(ONE, value=math.nan)
    assert nothing.ratio == math.inf and not nothing.held
