"""Mistakes in a case file are told with their line and a suggestion."""

from __future__ import annotations

import tomllib

from case_texts import GOOD

from vkctl.prepare.case_file.locate import locate

TRICKY = """# a = 1
top = 1
"quoted key" = 'x # y'
a.b . c = [ 1, # one
  2, { d = "]", e = [3,
4] } ]
[t.u]
text = \"\"\"
[not.a.table]
k = 1 \\"\"\" ""\"\"\"
raw = '''
[nor.this]'''
last = 1979-05-27 07:32:00
[[many]]
x = 1
[many.sub]
y = 2
[[many]]
x = 3
[[many.inner]]
z = 4
[t]
v = true
"""


def test_lines_of_keys_in_any_way_of_writing() -> None:
    tomllib.loads(TRICKY)
    lines = locate(TRICKY)
    expected = {
        ("top",): 2,
        ("quoted key",): 3,
        ("a",): 4,
        ("a", "b", "c"): 4,
        ("a", "b", "c", 1): 5,
        ("a", "b", "c", 2, "d"): 5,
        ("a", "b", "c", 2, "e", 1): 6,
        ("t", "u"): 7,
        ("t", "u", "text"): 8,
        ("t", "u", "raw"): 11,
        ("t", "u", "last"): 13,
        ("many", 0): 14,
        ("many", 0, "x"): 15,
        ("many", 0, "sub", "y"): 17,
        ("many", 1, "x"): 19,
        ("many", 1, "inner", 0, "z"): 21,
        ("t", "v"): 23,
    }
    assert {path: lines.get(path) for path in expected} == expected
    assert not any("not" in path or "nor" in path for path in lines)


def test_every_key_of_a_file_has_a_line() -> None:
    def walk(value: object, path: tuple[str | int, ...]) -> None:
        if path:
            assert path in lines, path
        items = value.items() if isinstance(value, dict) else enumerate(value)  # type: ignore[arg-type]
        for key, below in items:
            if isinstance(below, dict | list):
                walk(below, (*path, key))
            else:
                assert (*path, key) in lines

    for text in (TRICKY, GOOD):
        lines = locate(text)
        walk(tomllib.loads(text), ())
