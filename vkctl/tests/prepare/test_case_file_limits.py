"""Case files of strangers: each ends in sentences with lines, however they are made."""

from __future__ import annotations

import os
from pathlib import Path

import pytest

from vkctl.prepare import CaseFileError, read_cases

SOUND = "[materials.m]\nE = 1.0\nnu = 0.3\n[supports.s]\nset = 'all'\n"

HOSTILE = {
    "lists in lists": ("a = " + "[" * 5000 + "]" * 5000, "nested too deeply"),
    "tables in tables": ("a = " + "{a = " * 5000 + "1" + "}" * 5000, "nested too deeply"),
    "lists a little deep": ("a = " + "[" * 30 + "]" * 30, "nested too deeply"),
    "a long key": (".".join("a" * 300_000) + " = 1", ":1: a key of too many parts"),
    "a long header": ("\n[" + " . ".join("a" * 100_000) + "]", ":2: a key of too many parts"),
    "a long key inside": ("a = {" + ".".join(["'b'"] * 100_000) + " = 1}", "too many parts"),
    "many digits": ("[mesh]\nscale = 1" + "0" * 5000, "not TOML"),
    "many bits": ("[mesh]\nscale = 0x" + "f" * 5000, "a number of 20000 bits"),
    "many threads": ("[mesh]\nthreads = 0x" + "f" * 5000, "is too large: a number of 20000 bits"),
    "less than nothing": ("[mesh]\nper_circle = -0o" + "7" * 9, ":"),
    "a long text": ("[mesh]\nscale = '" + "a" * 100_000 + "'", "'aaa"),
    "many unknown keys": ("".join(f"[t{n}]\n" for n in range(50_000)), "unknown key 't0'"),
    "many load cases": ("[[load_case]]\n" * 50_000, "more than 9999 load cases"),
    "many wrong names": (
        "run_order = [" + ", ".join(f"'n{n}'" for n in range(50_000)) + "]\n" + SOUND,
        "names 'n0'",
    ),
    "a long formula": (SOUND + "[level]\nvalue = '" + "x + " * 1000 + "x'", "longer than 2000"),
    "bytes that are no text": ("a = '\udcff'", "isn't UTF-8"),
    "a byte of zero": ("a = '\0'", "not TOML"),
    "more than a case file": ("#" * (5 << 20), "is longer than 4 MB"),
}


@pytest.mark.parametrize(("text", "words"), HOSTILE.values(), ids=HOSTILE)
def test_a_hostile_case_file_is_refused_in_sentences(tmp_path: Path, text: str, words: str) -> None:
    path = tmp_path / "cases.toml"
    path.write_bytes(text.encode("utf-8", "surrogateescape"))
    with pytest.raises(CaseFileError) as caught:
        read_cases(path)
    said = str(caught.value)
    assert words in said, said[:500]
    assert len(caught.value.problems) <= 200 and len(said) < 100_000


def test_long_lists_of_numbers_and_long_formulas_are_no_long_keys(tmp_path: Path) -> None:
    points = ", ".join(f"[{n}.5, 0.25, 1.0]" for n in range(200))
    formula = " + ".join(["0.5 * x"] * 50)
    path = tmp_path / "cases.toml"
    path.write_text(f"{SOUND}[node_sets.n]\nnearest = [{points}]\n[level]\nvalue = '{formula}'\n")
    assert len(read_cases(path).sets) == 1


def test_names_of_a_case_file_are_told_without_what_a_terminal_obeys(tmp_path: Path) -> None:
    path = tmp_path / "cases.toml"
    path.write_text('[materials."\\u001b[2J\\u202e"]\nE = "x"\n')
    with pytest.raises(CaseFileError) as caught:
        read_cases(path)
    assert "[materials.\\x1b[2J\\u202e]" in str(caught.value)
    assert all(line.isprintable() for line in str(caught.value).split("\n"))


def test_a_device_without_end_is_read_to_a_limit() -> None:
    with pytest.raises(CaseFileError, match="longer than 4 MB"):
        read_cases("/dev/zero")


def test_a_pipe_is_a_case_file_too(tmp_path: Path) -> None:
    reading, writing = os.pipe()
    os.write(writing, SOUND.encode())
    os.close(writing)
    assert "m" in read_cases(f"/dev/fd/{reading}").materials
    os.close(reading)
