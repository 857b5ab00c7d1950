"""Values of a case file by key."""

from __future__ import annotations

from typing import Any

import pytest

from vkctl.study.keys import KeyMistakeError, find, put


def said() -> dict[str, Any]:
    return {
        "materials": {"steel": {"E": 210000, "nu": 0.3}},
        "loads": {"push": {"value": [0, -1, 2]}, "odd.name": {"value": 1.0}},
        "load_case": [{"name": "first", "loads": {"push": 1.5}}, {"loads": ["push"]}],
        "options": {"Sta.BStressExp": 6, "Sys": {"MaxNumCompThreads": 2}},
        "supports": {"foot": {"axes": [[1, 0, 0], [0, 1, 0]]}},
    }


@pytest.mark.parametrize(
    ("key", "value"),
    [
        ("materials.steel.E", 210000),
        ("loads.push.value.x", 0),
        ("loads.push.value.z", 2),
        ("loads.push.value.3", 2),
        ('loads."odd.name".value', 1.0),
        ("load_case.first.loads.push", 1.5),
        ("load_case.1.loads.push", 1.5),
        ("load_case.2.loads.1", "push"),
        ("options.Sta.BStressExp", 6),
        ('options."Sta.BStressExp"', 6),
        ("options.Sys.MaxNumCompThreads", 2),
        ("supports.foot.axes.2.y", 1),
    ],
)
def test_a_key_finds_its_value_and_the_place_takes_another(key: str, value: object) -> None:
    case = said()
    place, found = find(case, key)
    assert found == value
    put(case, place, 77)
    assert find(case, key) == (place, 77)
    put(case, place, value)
    assert case == said()


@pytest.mark.parametrize(
    ("key", "words", "hint"),
    [
        ("materials.steel.young", "no 'young'", "known: E, nu"),
        ("material.steel.E", "no 'material'", "did you mean 'materials'?"),
        ("materials.steel", "a whole table", "known: E, nu"),
        ("loads.push.value", "a list of 3", "loads.push.value.z"),
        ("loads.push.value.0", "no entry '0'", "count from 1 to 3"),
        ("loads.push.value.4", "no entry '4'", "count from 1 to 3"),
        ("load_case.second.loads", "no entry 'second'", "known: first"),
        ("materials.steel.E.x", "goes too deep", ""),
        ("materials..E", "is no key", ""),
        ("", "is no key", ""),
        ("a = 1\nb", "more than one key", ""),
    ],
)
def test_a_key_that_stands_for_no_value_is_told(key: str, words: str, hint: str) -> None:
    with pytest.raises(KeyMistakeError) as caught:
        find(said(), key)
    assert words in str(caught.value)
    assert hint in caught.value.suggestion
