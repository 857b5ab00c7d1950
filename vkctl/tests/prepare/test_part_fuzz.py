"""A bounded sample of `vkctl/tools/fuzz_parts.py`: damaged inputs end in sentences or models."""

from __future__ import annotations

import random
import re
import resource
import signal
import subprocess
import sys
import warnings
from pathlib import Path

import fuzz_parts
import pytest

from vkctl.prepare import build_model, make_mesh, read_cases

pytestmark = pytest.mark.thorough

TOOL = Path(fuzz_parts.__file__)


@pytest.mark.parametrize(
    ("kinds", "inputs"), [(fuzz_parts.QUICK, 400), (fuzz_parts.SLOW, 24)], ids=["here", "apart"]
)
def test_damaged_parts_and_case_files_end_in_a_sentence_or_a_model(
    kinds: tuple[str, ...], inputs: int, tmp_path: Path
) -> None:
    limits = ["--inputs", str(inputs), "--seconds", "600", "--seed", "2026"]
    done = subprocess.run(
        [sys.executable, str(TOOL), *limits, "--kinds", *kinds],
        capture_output=True,
        text=True,
        check=False,
        cwd=tmp_path,
        timeout=900,
    )
    assert done.returncode == 0, done.stderr[-3000:]
    assert done.stdout.endswith(f"\n{inputs} inputs, 0 findings\n")
    found = {line.split()[0] for line in done.stdout.splitlines()[:-1]}
    assert found == set(kinds) and re.search(r"\d+ model", done.stdout)
    assert not list(tmp_path.iterdir())


def test_the_sound_case_file_makes_a_model_and_damage_does_damage(tmp_path: Path) -> None:
    (tmp_path / "cases.toml").write_text(fuzz_parts.CASES)
    made = build_model(make_mesh(fuzz_parts.sound_part()), read_cases(tmp_path / "cases.toml"))
    assert len(made.model.load_cases) == 1
    chance, sound = random.Random(1), fuzz_parts.CASES.encode()
    damaged = [fuzz_parts.damaged(sound, chance, [sound]) for _ in range(100)]
    assert sum(data != sound for data in damaged) > 80


def test_the_tool_finds_an_exception_that_is_no_refusal(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    def broken(*_: object) -> str:
        raise IndexError("planted")

    monkeypatch.setattr(fuzz_parts, "judge", broken)
    monkeypatch.setattr(resource, "setrlimit", lambda *_: None)
    monkeypatch.setattr(signal, "signal", lambda *_: None)
    arguments = [
        "fuzz_parts.py",
        "--inputs",
        "1",
        "--kinds",
        ".toml",
        "--keep",
        str(tmp_path / "k"),
    ]
    monkeypatch.setattr(sys, "argv", arguments)
    monkeypatch.setattr(warnings, "simplefilter", lambda *_: None)
    assert fuzz_parts.main() == 1
    assert "planted" in capsys.readouterr().err and list((tmp_path / "k").iterdir())
